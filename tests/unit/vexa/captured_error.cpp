#include "captured_error.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <thread>

CapturedError::CapturedError() : saved(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
  const int file = memfd_create("captured", MFD_CLOEXEC);
  fcntl(file, F_SETFL, O_APPEND);
  dup2(file, STDERR_FILENO);
  close(file);
}

CapturedError::~CapturedError() {
  dup2(saved, STDERR_FILENO);
  close(saved);
}

std::string CapturedError::text() const {
  std::string all(static_cast<std::size_t>(lseek(STDERR_FILENO, 0, SEEK_END)), '\0');
  const ssize_t count = pread(STDERR_FILENO, &all[0], all.size(), 0);
  all.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return all;
}

bool CapturedError::waitFor(const std::string& part) const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (text().find(part) == std::string::npos) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::string withoutTimes(const std::string& lines) {
  static const std::regex time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )");
  constexpr std::size_t timeBytes = sizeof("2026-11-21T08:00:00.123Z");
  std::istringstream stream(lines);
  std::string result;
  bool first = true;
  for (std::string line; std::getline(stream, line); first = false) {
    const bool isLed = std::regex_match(line.substr(0, timeBytes), time);
    result += (first ? "" : "\n") + (isLed ? line.substr(timeBytes) : "NO TIME");
  }
  return result;
}
