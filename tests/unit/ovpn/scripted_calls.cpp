#include "ovpn/scripted_calls.hpp"

#include "fake/fake_platform.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <map>
#include <set>
#include <sstream>

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's --wrap gives these names.
extern "C" {
int __real_open(const char* path, int flags, mode_t mode);
int __real_fchmod(int descriptor, mode_t mode);
ssize_t __real_write(int descriptor, const void* data, size_t size);
int __real_close(int descriptor);
pid_t __real_fork();
pid_t __real_waitpid(pid_t pid, int* status, int options);
int __real_kill(pid_t pid, int number);
int __real_prctl(int option, unsigned long value, unsigned long, unsigned long, unsigned long);
pid_t __real_getppid();
DIR* __real_opendir(const char* path);
int __real_close_range(unsigned first, unsigned last, int flags);
int __real_pthread_sigmask(int how, const sigset_t* set, sigset_t* before);
sighandler_t __real_signal(int number, sighandler_t handler);
int __real_execvp(const char* file, char* const* words);
[[noreturn]] void __real__exit(int status);

int __wrap_open(const char* path, int flags, mode_t mode);
int __wrap_fchmod(int descriptor, mode_t mode);
ssize_t __wrap_write(int descriptor, const void* data, size_t size);
int __wrap_close(int descriptor);
pid_t __wrap_fork();
pid_t __wrap_waitpid(pid_t pid, int* status, int options);
int __wrap_kill(pid_t pid, int number);
unsigned __wrap_sleep(unsigned seconds);
int __wrap_prctl(int option, unsigned long value, unsigned long, unsigned long, unsigned long);
pid_t __wrap_getppid();
DIR* __wrap_opendir(const char* path);
int __wrap_close_range(unsigned first, unsigned last, int flags);
int __wrap_pthread_sigmask(int how, const sigset_t* set, sigset_t* before);
sighandler_t __wrap_signal(int number, sighandler_t handler);
int __wrap_execvp(const char* file, char* const* words);
int __wrap_execlp(const char* file, const char* argument, ...);
[[noreturn]] void __wrap__exit(int status);
}

namespace {

struct Answer {
  long result;
  int error;
};

bool scripted = false;
std::string runDirectory;
std::map<std::string, std::deque<Answer>> answers;
std::set<int> runFiles;
std::set<int> defaults;
int traceOfPlayedChild = -1;
std::vector<int> flagsSeen;
int parent = 0;
pid_t nextChild = 100;

/// The mask that a scripted process has before it blocks anything.
constexpr int blockedBefore = SIGUSR2;

std::string octal(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", mode);
  return text;
}

/// The scripted answer to a call, or the usual one. Sets errno.
long next(const std::string& name, long usual) {
  std::deque<Answer>& queue = answers[name];
  if (queue.empty()) {
    return usual;
  }
  const Answer given = queue.front();
  queue.pop_front();
  if (given.result < 0) {
    errno = given.error;
  }
  return given.result;
}

std::string describe(const sigset_t& set) {
  if (sigismember(&set, SIGTERM) == 1 && sigismember(&set, SIGRTMAX) == 1) {
    return "mask all";
  }
  return sigismember(&set, blockedBefore) == 1 ? "mask as before" : "mask none";
}

/// Hands the trace of a played child to the test and ends the child, in the ordinary way
/// that lets a measurement of coverage note what it has done.
[[noreturn]] void endPlayedChild() {
  if (traceOfPlayedChild < 0) {
    std::fputs("a scripted process ends outside playChild()\n", stderr);
    std::abort();
  }
  std::string text;
  for (const std::string& entry : fake::takeTrace()) {
    text += entry + "\n";
  }
  const ssize_t written = __real_write(traceOfPlayedChild, text.data(), text.size());
  std::exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
}

std::vector<std::string> readLines(int descriptor) {
  std::string text;
  char buffer[4096];
  ssize_t count = read(descriptor, buffer, sizeof buffer);
  while (count > 0) {
    text.append(buffer, static_cast<std::size_t>(count));
    count = read(descriptor, buffer, sizeof buffer);
  }
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

}  // namespace

namespace calls {

void reset() {
  scripted = false;
  runDirectory.clear();
  answers.clear();
  runFiles.clear();
  defaults.clear();
  flagsSeen.clear();
  parent = 0;
  nextChild = 100;
}

void scriptProcesses() {
  scripted = true;
}

void redirectRun(const std::string& directory) {
  runDirectory = directory;
}

void answer(const std::string& name, long result, int error) {
  answers[name].push_back({result, error});
}

void setParent(int pid) {
  parent = pid;
}

std::vector<std::string> playChild(const std::function<bool()>& code) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return {"no pipe"};
  }
  std::fflush(nullptr);
  const pid_t child = __real_fork();
  if (child == 0) {
    traceOfPlayedChild = ends[1];
    fake::takeTrace();
    fake::record(code() ? "returned true" : "returned false");
    endPlayedChild();
  }
  __real_close(ends[1]);
  std::vector<std::string> trace = readLines(ends[0]);
  __real_close(ends[0]);
  __real_waitpid(child, nullptr, 0);
  return trace;
}

const std::vector<int>& openFlags() {
  return flagsSeen;
}

}  // namespace calls

int __wrap_open(const char* path, int flags, mode_t mode) {
  const std::string asked = path;
  if (runDirectory.empty() || asked.rfind("/var/run", 0) != 0) {
    return __real_open(path, flags, mode);
  }
  fake::record("open " + asked + " " + octal(mode));
  flagsSeen.push_back(flags);
  const long given = next("open", calls::real);
  if (given != calls::real) {
    return static_cast<int>(given);
  }
  const std::string redirected = runDirectory + asked.substr(8);
  const int descriptor = __real_open(redirected.c_str(), flags, mode);
  if (descriptor >= 0) {
    runFiles.insert(descriptor);
  }
  return descriptor;
}

int __wrap_fchmod(int descriptor, mode_t mode) {
  fake::record("chmod " + octal(mode));
  const long given = next("fchmod", calls::real);
  return given == calls::real ? __real_fchmod(descriptor, mode) : static_cast<int>(given);
}

ssize_t __wrap_write(int descriptor, const void* data, size_t size) {
  if (runFiles.count(descriptor) == 0) {
    return __real_write(descriptor, data, size);
  }
  fake::record("write " + std::to_string(size));
  const long given = next("write", calls::real);
  if (given < 0 && given != calls::real) {
    return given;
  }
  return __real_write(descriptor, data, given == calls::real ? size : static_cast<size_t>(given));
}

int __wrap_close(int descriptor) {
  if (runFiles.erase(descriptor) > 0) {
    fake::record("close");
  }
  return __real_close(descriptor);
}

pid_t __wrap_fork() {
  if (!scripted) {
    return __real_fork();
  }
  fake::record("fork");
  const pid_t given = static_cast<pid_t>(next("fork", nextChild));
  nextChild += given == nextChild ? 1 : 0;
  return given;
}

pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
  if (!scripted) {
    return __real_waitpid(pid, status, options);
  }
  fake::record("waitpid " + std::to_string(pid) + (options == WNOHANG ? "" : " blocking"));
  return static_cast<pid_t>(next("waitpid", 0));
}

int __wrap_kill(pid_t pid, int number) {
  if (!scripted) {
    return __real_kill(pid, number);
  }
  fake::record("kill " + std::to_string(pid) + " " + std::to_string(number));
  return static_cast<int>(next("kill", 0));
}

unsigned __wrap_sleep(unsigned seconds) {
  if (scripted) {
    fake::record("sleep " + std::to_string(seconds));
    return 0;
  }
  const timespec briefly = {0, 2000000};
  nanosleep(&briefly, nullptr);
  return 0;
}

int __wrap_prctl(int option, unsigned long value, unsigned long third, unsigned long fourth,
                 unsigned long fifth) {
  if (!scripted) {
    return __real_prctl(option, value, third, fourth, fifth);
  }
  fake::record("prctl " + std::to_string(option) + " " + std::to_string(static_cast<int>(value)));
  return static_cast<int>(next("prctl", 0));
}

pid_t __wrap_getppid() {
  if (!scripted) {
    return __real_getppid();
  }
  return parent == 0 ? getpid() : parent;
}

DIR* __wrap_opendir(const char* path) {
  if (!scripted) {
    return __real_opendir(path);
  }
  const std::string asked = path;
  fake::record("opendir " + asked);
  if (next("opendir", 0) < 0) {
    return nullptr;
  }
  return __real_opendir(asked == "/proc/self/fd" ? path : "/");
}

int __wrap_close_range(unsigned first, unsigned last, int flags) {
  const bool expected = first == 3 && last == ~0U && flags == CLOSE_RANGE_CLOEXEC;
  if (scripted) {
    fake::record(expected ? "closes descriptors" : "closes something else");
  }
  const long given = next("close_range", scripted ? 0 : calls::real);
  return given == calls::real ? __real_close_range(first, last, flags) : static_cast<int>(given);
}

int __wrap_pthread_sigmask(int how, const sigset_t* set, sigset_t* before) {
  if (!scripted) {
    return __real_pthread_sigmask(how, set, before);
  }
  fake::record(how == SIG_SETMASK ? describe(*set) : "mask changed otherwise");
  if (before != nullptr) {
    sigemptyset(before);
    sigaddset(before, blockedBefore);
  }
  return 0;
}

sighandler_t __wrap_signal(int number, sighandler_t handler) {
  if (!scripted) {
    return __real_signal(number, handler);
  }
  if (handler != SIG_DFL) {
    fake::record("handler of signal " + std::to_string(number));
  }
  defaults.insert(number);
  if (defaults.size() == static_cast<std::size_t>(SIGRTMAX)) {
    fake::record("default signals");
  }
  return SIG_DFL;
}

int __wrap_execvp(const char* file, char* const* words) {
  if (!scripted) {
    return __real_execvp(file, words);
  }
  std::string entry = std::string("exec ") + file;
  for (; *words != nullptr; ++words) {
    entry += " [" + std::string(*words) + "]";
  }
  fake::record(entry);
  if (next("exec", 0) < 0) {
    return -1;
  }
  endPlayedChild();
}

int __wrap_execlp(const char* file, const char* argument, ...) {
  std::vector<char*> words = {const_cast<char*>(argument)};
  va_list others;
  va_start(others, argument);
  while (words.back() != nullptr) {
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it takes va_start for unknown.
    words.push_back(va_arg(others, char*));
  }
  va_end(others);
  return __wrap_execvp(file, words.data());
}

void __wrap__exit(int status) {
  if (!scripted) {
    __real__exit(status);
  }
  fake::record("_exit " + std::to_string(status & 0xff));
  endPlayedChild();
}
// NOLINTEND(bugprone-reserved-identifier)
