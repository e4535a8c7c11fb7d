#pragma once

#include "platform/thread.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

inline constexpr unsigned int veryLongMs = 60 * 60 * 1000;

/// Waits, with a bound, for something that another thread brings about.
inline bool becomesTrue(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

/// What a test does and sees in its thread. Outlives the thread's object, and the thread's work
/// too: the object's destructor waits for that only so long, and the machine may be busy.
struct Probe {
  Probe() = default;
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;
  ~Probe() {
    EXPECT_TRUE(becomesTrue([this] { return inside == 0; }));
  }

  std::function<void(VEXA::Thread&)> work;
  std::atomic<int> entered{0};
  std::atomic<int> left{0};
  std::atomic<int> inside{0};
};

class ProbedThread : public VEXA::Thread {
 public:
  explicit ProbedThread(Probe& lent, const std::string& name = "PROBED", bool resume = true)
      : VEXA::Thread(name, resume), probe(lent) {}
  ~ProbedThread() override { stop(); }

  /// Entered while the object is being destroyed, it runs as what the base class still waits
  /// for; the sanitizer would say so of a test that wants just that.
  __attribute__((no_sanitize("vptr"))) void run() override {
    Probe& kept = probe;
    const Inside inside(kept);
    ++kept.entered;
    kept.work(*this);
    ++kept.left;
  }

 private:
  /// However the work ends: by its end, by an exception or with its thread.
  class Inside {
   public:
    explicit Inside(Probe& lent) : probe(lent) { ++probe.inside; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
    ~Inside() { --probe.inside; }

   private:
    Probe& probe;
  };

  Probe& probe;
};

/// @return how many threads this process has.
inline std::ptrdiff_t countThreads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

/// The same once a thread has come and gone: a sanitizer adds one of its own with the first.
inline std::ptrdiff_t countLastingThreads() {
  pid_t first = 0;
  std::thread([&first] { first = gettid(); }).join();
  const std::filesystem::path task = "/proc/self/task/" + std::to_string(first);
  EXPECT_TRUE(becomesTrue([&task] { return !std::filesystem::exists(task); }));
  return countThreads();
}

/// A work that only stop() ends in time.
inline void sleepLong(VEXA::Thread& thread) {
  thread.sleep(veryLongMs);
}

/// Every test leaves as many threads behind as it found.
class ThreadTest : public testing::Test {
 protected:
  ~ThreadTest() override {
    EXPECT_TRUE(becomesTrue([this] { return countThreads() == before; }));
  }

  const std::ptrdiff_t before = countLastingThreads();
};
