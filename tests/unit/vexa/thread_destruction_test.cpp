#include "captured_error.hpp"
#include "probed_thread.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using ThreadDestruction = ThreadTest;

/// Destroys the object, which has to wait for its thread: as long as it does for one that is
/// stuck, should the machine be too busy to let the thread run.
void expectWaiting(std::unique_ptr<ProbedThread>& thread, const Probe& probe) {
  constexpr std::chrono::milliseconds patience(500);
  const auto begin = Clock::now();
  thread.reset();
  EXPECT_TRUE(probe.left == 1 || Clock::now() - begin >= patience);
}

TEST_F(ThreadDestruction, WaitsForAThreadThatSleeps) {
  Probe probe;
  probe.work = sleepLong;
  auto thread = std::make_unique<ProbedThread>(probe);
  thread->start();
  ASSERT_TRUE(becomesTrue([&] { return probe.entered == 1; }));
  expectWaiting(thread, probe);
}

TEST_F(ThreadDestruction, WaitsForAThreadThatWorks) {
  Probe probe;
  probe.work = [](VEXA::Thread& thread) {
    while (!thread.isCanceled()) {
      std::this_thread::yield();
    }
  };
  auto thread = std::make_unique<ProbedThread>(probe);
  thread->start();
  ASSERT_TRUE(becomesTrue([&] { return probe.entered == 1; }));
  expectWaiting(thread, probe);
}

TEST_F(ThreadDestruction, IsSafeWhileTheThreadIsJustStarting) {
  Probe probe;
  probe.work = sleepLong;
  for (int i = 0; i < 300; ++i) {
    ProbedThread thread(probe);
    thread.start();
    if (i % 2 == 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(i));
    }
  }
  EXPECT_TRUE(becomesTrue([&] { return countThreads() == before; }));
  EXPECT_EQ(probe.entered, probe.left);
}

TEST_F(ThreadDestruction, DoesNotWaitLongForAThreadThatIsStuck) {
  std::atomic<bool> released{false};
  std::atomic<bool> returned{false};
  Probe probe;
  probe.work = [&](VEXA::Thread&) {
    becomesTrue([&] { return released.load(); });
    returned = true;
    throw std::runtime_error("back too late");
  };
  const CapturedError captured;
  auto thread = std::make_unique<ProbedThread>(probe, "STUCK");
  thread->start();
  ASSERT_TRUE(becomesTrue([&] { return probe.entered == 1; }));
  const auto begin = Clock::now();
  thread.reset();
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));
  EXPECT_EQ(before + 1, countThreads());
  released = true;
  EXPECT_TRUE(becomesTrue([&] { return returned && countThreads() == before; }));
  EXPECT_NE(std::string::npos, captured.text().find("thread [STUCK]: [back too late]\n"));
  EXPECT_EQ(1, probe.entered);
}

TEST_F(ThreadDestruction, IsBoundedInAForkedChildThatHasNoSuchThread) {
  Probe probe;
  probe.work = sleepLong;
  auto thread = std::make_unique<ProbedThread>(probe);
  thread->start();
  ASSERT_TRUE(becomesTrue([&] { return probe.entered == 1; }));
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    thread.reset();
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(0, status);
}

}  // namespace
