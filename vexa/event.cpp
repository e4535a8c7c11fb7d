#include "vexa/event.hpp"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace VEXA {

namespace {

static_assert(std::atomic<int>::is_always_lock_free && sizeof(std::atomic<int>) == sizeof(int),
              "a signal handler sets it, and the kernel reads it as an int");

// The kernel's own layout for this call, also where time_t is longer than a long.
struct FutexTime {
  long seconds;
  long nanoseconds;
};

void wakeWaiter(std::atomic<int>& word) {
  syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

// Returns when the word is not 0, the time is over, or for no reason at all.
void waitWhileZero(std::atomic<int>& word, std::chrono::nanoseconds time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  const FutexTime limit{static_cast<long>(seconds.count()),
                        static_cast<long>((time - seconds).count())};
  syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, 0, &limit, nullptr, 0);
}

}  // namespace

void Event::set() {
  const int savedErrno = errno;
  happened = 1;
  wakeWaiter(happened);
  errno = savedErrno;
}

bool Event::wait(unsigned int milliseconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  while (happened.exchange(0) == 0) {
    const auto remaining = end - std::chrono::steady_clock::now();
    if (remaining <= remaining.zero()) {
      return false;
    }
    waitWhileZero(happened, remaining);
  }
  return true;
}

}  // namespace VEXA
