#include "ipsec/ipsec_sandbox.hpp"

#include "fake/fake_platform.hpp"
#include "platform/text.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;

const std::string base = "/var/run/ipsec";

// Read by the functions that the linker puts in place of the C library's.
std::string sandboxRoot;
std::set<std::string> refusedPaths;
bool modeChangesRefused = false;
std::deque<int> writeResults;

bool isRedirected(const std::string& path) {
  return !sandboxRoot.empty() && path.compare(0, base.size(), base) == 0;
}

std::string redirected(const std::string& path) {
  return isRedirected(path) ? sandboxRoot + path.substr(base.size()) : path;
}

std::string octal(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%o", static_cast<unsigned>(mode));
  return text;
}

std::string openWord(int flags) {
  constexpr int always = O_WRONLY | O_CREAT | O_CLOEXEC;
  if (flags == (always | O_TRUNC)) {
    return "truncate";
  }
  if (flags == (always | O_APPEND)) {
    return "append";
  }
  return "open with flags " + std::to_string(flags) + " of";
}

bool isRefused(const std::string& path) {
  if (refusedPaths.count(path) == 0) {
    return false;
  }
  errno = EACCES;
  return true;
}

}  // namespace

extern "C" {
// The names are the linker's.
int realOpen(const char* path, int flags, ...) __asm__("__real_open");
ssize_t realWrite(int file, const void* bytes, size_t count) __asm__("__real_write");
int realChmod(const char* path, mode_t mode) __asm__("__real_chmod");
int wrappedOpen(const char* path, int flags, ...) __asm__("__wrap_open");
ssize_t wrappedWrite(int file, const void* bytes, size_t count) __asm__("__wrap_write");
int wrappedChmod(const char* path, mode_t mode) __asm__("__wrap_chmod");
unsigned wrappedSleep(unsigned seconds) __asm__("__wrap_sleep");

int wrappedOpen(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list values;
    va_start(values, flags);
    mode = va_arg(values, mode_t);
    va_end(values);
  }
  if (isRedirected(path)) {
    fake::record(openWord(flags) + " " + path + " " + octal(mode));
  }
  return isRefused(path) ? -1 : realOpen(redirected(path).c_str(), flags, mode);
}

ssize_t wrappedWrite(int file, const void* bytes, size_t count) {
  if (writeResults.empty()) {
    return realWrite(file, bytes, count);
  }
  const int result = writeResults.front();
  writeResults.pop_front();
  if (result < 0) {
    errno = -result;
    return -1;
  }
  return realWrite(file, bytes, std::min(count, static_cast<size_t>(result)));
}

int wrappedChmod(const char* path, mode_t mode) {
  fake::record(std::string("chmod ") + path + " " + octal(mode));
  if (modeChangesRefused) {
    errno = EPERM;
    return -1;
  }
  return realChmod(redirected(path).c_str(), mode);
}

unsigned wrappedSleep(unsigned seconds) {
  fake::record("sleep(" + std::to_string(seconds) + ")");
  return 0;
}
}

Json::Value json(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    throw std::invalid_argument(errors);
  }
  return value;
}

IpsecSandbox::IpsecSandbox() : formerUmask(umask(0)) {
  fake::reset();
  std::string pattern = testing::TempDir() + "ipsec_XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) {
    throw std::runtime_error("no temporary directory");
  }
  top = pattern;
  sandboxRoot = top + "/ipsec";
  refusedPaths.clear();
  modeChangesRefused = false;
  writeResults.clear();
  for (const char* name : {"cacerts", "certs", "private"}) {
    fs::create_directories(sandboxRoot + "/" + name);
  }
}

IpsecSandbox::~IpsecSandbox() {
  sandboxRoot.clear();
  writeResults.clear();
  umask(formerUmask);
  std::error_code ignored;
  fs::remove_all(top, ignored);
}

std::string IpsecSandbox::real(const std::string& path) const {
  return redirected(path);
}

std::string IpsecSandbox::content(const std::string& path) const {
  std::ifstream file(real(path), std::ios::binary);
  if (!file) {
    return "(missing)";
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

mode_t IpsecSandbox::mode(const std::string& path) const {
  struct stat status {};
  return stat(real(path).c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::vector<std::string> IpsecSandbox::names(const std::string& path) const {
  std::vector<std::string> found;
  for (const fs::directory_entry& entry : fs::directory_iterator(real(path))) {
    found.push_back(entry.path().filename());
  }
  std::sort(found.begin(), found.end());
  return found;
}

void IpsecSandbox::put(const std::string& path, const std::string& text, mode_t permissions) const {
  std::ofstream(real(path), std::ios::binary) << text;
  fs::permissions(real(path), static_cast<fs::perms>(permissions));
}

void IpsecSandbox::refuse(const std::string& path) {
  refusedPaths.insert(path);
}

void IpsecSandbox::refuseModeChanges() {
  modeChangesRefused = true;
}

void IpsecSandbox::scriptWrites(const std::vector<int>& results) {
  writeResults.assign(results.begin(), results.end());
}

std::size_t IpsecSandbox::writesLeft() const {
  return writeResults.size();
}

void IpsecSandbox::runCommands() {
  fake::onCommand = [](const std::string& line) {
    const std::string redirectedLine = VEXA::Text::replace(line, base, sandboxRoot);
    if (std::system(redirectedLine.c_str()) != 0) {
      throw std::runtime_error("failed: " + redirectedLine);
    }
  };
}
