#pragma once

#include <functional>
#include <thread>
#include <vector>

/// Threads that all do the same at once; each is told its number, from 0.
class ManyThreads {
 public:
  ManyThreads(int count, const std::function<void(int)>& work) {
    threads.reserve(static_cast<std::size_t>(count));
    for (int number = 0; number < count; ++number) {
      threads.emplace_back(work, number);
    }
  }
  ManyThreads(const ManyThreads&) = delete;
  ManyThreads& operator=(const ManyThreads&) = delete;
  ~ManyThreads() { join(); }

  /// Waits until all have ended.
  void join() {
    for (std::thread& thread : threads) {
      thread.join();
    }
    threads.clear();
  }

 private:
  std::vector<std::thread> threads;
};
