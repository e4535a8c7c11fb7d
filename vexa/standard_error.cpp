#include "vexa/standard_error.hpp"

#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>

namespace VEXA {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds patience(50);

struct Date {
  std::int64_t year;
  int month;
  int day;
};

// Counts years from March, so that a leap day is the last day of its year. The C
// library's own conversion takes a lock that a fork could leave taken.
Date dateOf(std::int64_t daysSince1970) {
  constexpr std::int64_t daysPer400Years = 146097;
  constexpr std::int64_t daysFrom0000ToMarch1970 = 719468;
  const std::int64_t days = daysSince1970 + daysFrom0000ToMarch1970;
  const std::int64_t era = days / daysPer400Years;
  const std::int64_t dayOfEra = days % daysPer400Years;
  const std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
  const auto day = static_cast<int>(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1);
  const auto month =
      static_cast<int>(monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9);
  return {era * 400 + yearOfEra + (month <= 2 ? 1 : 0), month, day};
}

/// Keeps SIGPIPE from the process while it lives, and takes away one that it caused.
class BrokenPipeGuard {
 public:
  BrokenPipeGuard() {
    sigset_t pending;
    sigpending(&pending);
    wasPending = sigismember(&pending, SIGPIPE) == 1;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, &before);
  }
  BrokenPipeGuard(const BrokenPipeGuard&) = delete;
  BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;
  ~BrokenPipeGuard() {
    constexpr timespec now{0, 0};
    while (!wasPending && sigtimedwait(&pipeSignal, nullptr, &now) < 0 && errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

 private:
  bool wasPending = false;
  sigset_t pipeSignal{};
  sigset_t before{};
};

// @return false when there is none in that time.
bool waitForRoom(int descriptor, std::chrono::milliseconds time) {
  pollfd wait{descriptor, POLLOUT, 0};
  return poll(&wait, 1, static_cast<int>(time.count())) != 0;
}

bool isRegularFile(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

// Writes what goes without waiting. Terminals, and pipes of older kernels, know no such
// write; what poll promises them room for is what goes into a pipe at once.
ssize_t writeNow(int descriptor, const char* bytes, std::size_t size) {
  const iovec whole{const_cast<char*>(bytes), size};
  const ssize_t count = pwritev2(descriptor, &whole, 1, -1, RWF_NOWAIT);
  const int error = errno;
  const bool unsupported = error == EOPNOTSUPP || error == ENOSYS || error == EINVAL;
  if (count >= 0 || (error != EAGAIN && !unsupported)) {
    return count;
  }
  if (isRegularFile(descriptor)) {
    return write(descriptor, bytes, size);
  }
  if (unsupported && waitForRoom(descriptor, std::chrono::milliseconds(0))) {
    return write(descriptor, bytes, std::min<std::size_t>(size, PIPE_BUF));
  }
  errno = EAGAIN;
  return -1;
}

bool writeAll(int descriptor, const char* bytes, std::size_t size, bool patient) {
  const auto end = Clock::now() + (patient ? patience : patience.zero());
  while (size > 0) {
    const ssize_t count = writeNow(descriptor, bytes, size);
    if (count >= 0) {
      bytes += count;
      size -= static_cast<std::size_t>(count);
    } else if (errno == EAGAIN) {
      const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
      if (remaining <= remaining.zero() || !waitForRoom(descriptor, remaining)) {
        return false;
      }
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace

UtcText utcText(const timespec& time) {
  constexpr int secondsPerDay = 24 * 60 * 60;
  const Date date = dateOf(time.tv_sec / secondsPerDay);
  const auto second = static_cast<int>(time.tv_sec % secondsPerDay);
  UtcText text{};
  std::snprintf(text.data(), text.size(), "%04lld-%02d-%02dT%02d:%02d:%02d.%03dZ",
                static_cast<long long>(date.year), date.month, date.day, second / 3600,
                second / 60 % 60, second % 60, static_cast<int>(time.tv_nsec / 1000000));
  return text;
}

bool StandardError::send(const LogRecord& record, bool patient) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const UtcText time = utcText(now);
  LogText line(LogText::longest + 2 * time.size());
  line.append(time.data());
  line.append(" ");
  line.append(record.text.data(), record.text.size());
  line.append("\n");
  const BrokenPipeGuard guard;
  return writeAll(descriptor, line.data(), line.size(), patient);
}

}  // namespace VEXA
