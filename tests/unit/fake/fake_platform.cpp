#include "fake/fake_platform.hpp"

#include "platform/lock.hpp"
#include "platform/logger.hpp"
#include "platform/system.hpp"
#include "platform/thread.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <map>
#include <utility>

namespace fake {

namespace {

struct Answer {
  int status;
  std::string output;
};

std::vector<std::string> entries;
std::map<std::string, std::deque<Answer>> answers;
std::map<std::string, Answer> files;
std::deque<bool> setupResults;
int printLevel = 100;

int answer(const std::string& line, std::string& output) {
  const auto found = answers.find(line);
  if (found == answers.end()) {
    output.clear();
    return 0;
  }
  const Answer given = found->second.front();
  if (found->second.size() > 1) {
    found->second.pop_front();
  }
  output = given.output;
  return given.status;
}

int run(const std::string& kind, const std::string& line, std::string& output) {
  record(kind + " " + line);
  if (onCommand) {
    onCommand(line);
  }
  return answer(line, output);
}

bool setupResult() {
  if (setupResults.empty()) {
    return true;
  }
  const bool result = setupResults.front();
  setupResults.pop_front();
  return result;
}

__attribute__((format(printf, 2, 0))) void recordFormatted(const std::string& label,
                                                           const char* format, va_list values) {
  va_list again;
  va_copy(again, values);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(&text[0], text.size(), format, values);
  text.pop_back();
  record(label + " " + text);
}

}  // namespace

std::function<void(const std::string&)> onCommand;
std::function<void(unsigned)> onWait;
std::function<void(unsigned)> onSleep;
std::function<void(const std::string&)> onEntry;
bool traceLocks = false;

void reset() {
  entries.clear();
  answers.clear();
  files.clear();
  setupResults.clear();
  printLevel = 100;
  onCommand = nullptr;
  onWait = nullptr;
  onSleep = nullptr;
  onEntry = nullptr;
  traceLocks = false;
}

const std::vector<std::string>& trace() {
  return entries;
}

std::vector<std::string> takeTrace() {
  return std::exchange(entries, {});
}

void record(const std::string& entry) {
  entries.push_back(entry);
  if (onEntry) {
    onEntry(entry);
  }
}

void setPrintLevel(int level) {
  printLevel = level;
}

void scriptSetup(std::vector<bool> results) {
  setupResults.assign(results.begin(), results.end());
}

void script(const std::string& line, int status, const std::string& output) {
  answers[line].push_back({status, output});
}

void scriptFile(const std::string& path, int error, const std::string& content) {
  files[path] = {error, content};
}

}  // namespace fake

namespace VEXA {

void Logger::setPrintLevel(int level, bool replace) {
  fake::record("setPrintLevel " + std::to_string(level) + (replace ? " true" : " false"));
  fake::printLevel = level;
}

bool Logger::setup(const PrintMode& mode, const std::string& ident, const int& option,
                   const int& facility) {
  fake::record("setup " + std::to_string(mode) + " " + ident + " " + std::to_string(option) + " " +
               std::to_string(facility));
  return fake::setupResult();
}

bool Logger::setup(const PrintMode& mode) {
  fake::record("setup " + std::to_string(mode));
  return fake::setupResult();
}

void Logger::printfWarning(const char* format, ...) {
  va_list values;
  va_start(values, format);
  fake::recordFormatted("WARNING", format, values);
  va_end(values);
}

bool Logger::isPrintable(int level) {
  return level <= fake::printLevel;
}

void Logger::printfGeneric(int, const char* label, const char* format, ...) {
  va_list values;
  va_start(values, format);
  fake::recordFormatted(label, format, values);
  va_end(values);
}

struct Thread::State {
  std::string name;
  bool canceled = false;
};

Thread::Thread(const std::string& name, bool) : state(std::make_shared<State>()) {
  state->name = name;
}

Thread::~Thread() = default;

void Thread::start() {
  fake::record("start " + state->name);
}

void Thread::stop() {
  fake::record("stop " + state->name);
  state->canceled = true;
}

void Thread::run() {}

bool Thread::isCanceled() const {
  return state->canceled;
}

void Thread::sleep(unsigned int milliseconds) {
  fake::record("sleep " + std::to_string(milliseconds));
  if (fake::onSleep) {
    fake::onSleep(milliseconds);
  }
}

struct Lock::State {};

Lock::Lock() = default;

Lock::~Lock() = default;

void Lock::lock() {
  if (fake::traceLocks) {
    fake::record("lock");
  }
}

void Lock::unlock() {
  if (fake::traceLocks) {
    fake::record("unlock");
  }
}

Condition* Lock::createCondition() {
  return new Condition(*this);
}

struct Condition::State {};

Condition::Condition(Lock&) {}

Condition::~Condition() = default;

void Condition::wait(unsigned int milliseconds) {
  fake::record("wait " + std::to_string(milliseconds));
  if (fake::onWait) {
    fake::onWait(milliseconds);
  }
}

void Condition::signal() {
  fake::record("signal");
}

namespace System {

int cmd(const std::string& line, std::string& output) {
  return fake::run("cmd", line, output);
}

int execute(const std::string& program, const std::vector<std::string>& arguments,
            std::string& output) {
  std::string line = program;
  for (const std::string& argument : arguments) {
    line += " " + argument;
  }
  return fake::run("execute", line, output);
}

int readFile(const std::string& path, std::string& out) {
  fake::record("readFile " + path);
  const auto found = fake::files.find(path);
  out = found == fake::files.end() ? "" : found->second.output;
  return found == fake::files.end() ? ENOENT : found->second.status;
}

}  // namespace System

}  // namespace VEXA
