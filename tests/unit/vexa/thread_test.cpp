#include "platform/thread.hpp"

#include "captured_error.hpp"
#include "probed_thread.hpp"
#include "refused_calls.hpp"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

std::string readAll(const std::string& path) {
  std::stringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

using Thread = ThreadTest;

TEST_F(Thread, RunsItsWorkOnceInAnotherThread) {
  std::atomic<pid_t> runner{0};
  Probe probe;
  probe.work = [&](VEXA::Thread&) { runner = gettid(); };
  ProbedThread thread(probe);
  EXPECT_EQ(0, probe.entered);
  thread.start();
  EXPECT_TRUE(becomesTrue([&] { return probe.left == 1; }));
  EXPECT_NE(gettid(), runner);
  EXPECT_EQ(1, probe.entered);
}

TEST_F(Thread, CarriesTheFirst15BytesOfItsName) {
  std::string name;
  Probe probe;
  probe.work = [&](VEXA::Thread&) { name = readAll("/proc/thread-self/comm"); };
  ProbedThread thread(probe, "FQDN_MONITOR:branch-office");
  thread.start();
  ASSERT_TRUE(becomesTrue([&] { return probe.left == 1; }));
  EXPECT_EQ("FQDN_MONITOR:br\n", name);
}

TEST_F(Thread, BlocksAllSignalsInItsThreadOnly) {
  sigset_t inside;
  Probe probe;
  probe.work = [&](VEXA::Thread&) { pthread_sigmask(SIG_SETMASK, nullptr, &inside); };
  ProbedThread thread(probe);
  thread.start();
  ASSERT_TRUE(becomesTrue([&] { return probe.left == 1; }));
  sigset_t outside;
  pthread_sigmask(SIG_SETMASK, nullptr, &outside);
  for (const int signal : {SIGHUP, SIGTERM, SIGINT, SIGUSR1, SIGPIPE, SIGCHLD, SIGALRM}) {
    EXPECT_EQ(1, sigismember(&inside, signal)) << signal;
    EXPECT_EQ(0, sigismember(&outside, signal)) << signal;
  }
}

TEST_F(Thread, HasASmallStack) {
  std::size_t size = 0;
  Probe probe;
  probe.work = [&](VEXA::Thread&) {
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &size);
    pthread_attr_destroy(&attributes);
  };
  ProbedThread thread(probe);
  thread.start();
  ASSERT_TRUE(becomesTrue([&] { return probe.left == 1; }));
  EXPECT_GE(size, 256U * 1024);
  EXPECT_LE(size, 1024U * 1024);
}

TEST_F(Thread, SleepsAsLongAsAsked) {
  Clock::duration slept{};
  Probe probe;
  probe.work = [&](VEXA::Thread& thread) {
    const auto begin = Clock::now();
    thread.sleep(30);
    slept = Clock::now() - begin;
  };
  ProbedThread thread(probe);
  thread.start();
  ASSERT_TRUE(becomesTrue([&] { return probe.left == 1; }));
  EXPECT_GE(slept, std::chrono::milliseconds(30));
}

TEST_F(Thread, StopCancelsAndWakesARunningSleep) {
  Probe probe;
  probe.work = [](VEXA::Thread& thread) {
    while (!thread.isCanceled()) {
      thread.sleep(3932100000U);
    }
  };
  ProbedThread thread(probe);
  thread.start();
  ASSERT_TRUE(becomesTrue([&] { return probe.entered == 1; }));
  EXPECT_FALSE(thread.isCanceled());
  thread.stop();
  EXPECT_TRUE(thread.isCanceled());
  EXPECT_TRUE(becomesTrue([&] { return probe.left == 1; }));
}

TEST_F(Thread, EverySleepAfterStopEndsAtOnce) {
  Probe probe;
  probe.work = [](VEXA::Thread& thread) {
    for (int i = 0; i < 3; ++i) {
      sleepLong(thread);
    }
  };
  ProbedThread thread(probe);
  thread.start();
  ASSERT_TRUE(becomesTrue([&] { return probe.entered == 1; }));
  thread.stop();
  EXPECT_TRUE(becomesTrue([&] { return probe.left == 1; }));
}

TEST_F(Thread, StopDoesNotWaitForTheThread) {
  std::atomic<bool> released{false};
  Probe probe;
  probe.work = [&](VEXA::Thread&) { becomesTrue([&] { return released.load(); }); };
  ProbedThread thread(probe);
  thread.start();
  ASSERT_TRUE(becomesTrue([&] { return probe.entered == 1; }));
  thread.stop();
  EXPECT_EQ(0, probe.left);
  released = true;
  EXPECT_TRUE(becomesTrue([&] { return probe.left == 1; }));
}

TEST_F(Thread, IsNotRunWhenItWasStoppedBefore) {
  Probe probe;
  probe.work = [](VEXA::Thread&) {};
  ProbedThread thread(probe);
  thread.stop();
  thread.start();
  EXPECT_TRUE(becomesTrue([&] { return countThreads() == before; }));
  EXPECT_EQ(0, probe.entered);
}

TEST_F(Thread, IsStartedOnlyOnceWhileItRuns) {
  Probe probe;
  probe.work = sleepLong;
  ProbedThread thread(probe);
  thread.start();
  thread.start();
  ASSERT_TRUE(becomesTrue([&] { return probe.entered == 1; }));
  thread.start();
  EXPECT_EQ(before + 1, countThreads());
}

TEST_F(Thread, CanBeStartedAgainAfterItsEnd) {
  Probe probe;
  probe.work = [](VEXA::Thread&) {};
  ProbedThread thread(probe);
  for (int i = 1; i <= 3; ++i) {
    // The end of run() and that of the thread are not the same moment.
    EXPECT_TRUE(becomesTrue([&] {
      thread.start();
      return probe.entered >= i;
    }));
  }
}

TEST_F(Thread, EndsAtOnceWithoutAWorkOfItsOwn) {
  VEXA::Thread thread("IDLE", true);
  thread.start();
  EXPECT_TRUE(becomesTrue([&] { return countThreads() == before; }));
  EXPECT_FALSE(thread.isCanceled());
}

TEST_F(Thread, ThousandEndTogetherSoonAfterTheirStop) {
  constexpr int count = 1000;
  Probe probe;
  probe.work = sleepLong;
  std::vector<std::unique_ptr<ProbedThread>> threads;
  for (int i = 0; i < count; ++i) {
    threads.push_back(std::make_unique<ProbedThread>(probe));
    threads.back()->start();
  }
  ASSERT_TRUE(becomesTrue([&] { return probe.entered == count; }));
  EXPECT_EQ(before + count, countThreads());
  const auto begin = Clock::now();
  for (const auto& thread : threads) {
    thread->stop();
  }
  EXPECT_TRUE(becomesTrue([&] { return countThreads() == before; }));
  // Far more than a busy machine needs, even with a sanitizer.
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(40));
}

TEST_F(Thread, SaysSoAndGoesOnWhenNoThreadCanBeHad) {
  Probe probe;
  probe.work = [](VEXA::Thread&) {};
  ProbedThread thread(probe, "REFUSED");
  const CapturedError captured;
  withRefusedCalls({SYS_clone, SYS_clone3}, EAGAIN, [&] { thread.start(); });
  EXPECT_NE(std::string::npos,
            captured.text().find("ERROR: Thread [REFUSED] could not be started [11]\n"));
  EXPECT_EQ(0, probe.entered);
  thread.start();
  EXPECT_TRUE(becomesTrue([&] { return probe.left == 1; }));
}

TEST_F(Thread, IsEnteredAgainAfterAnExceptionWasLogged) {
  Probe probe;
  probe.work = [&](VEXA::Thread&) {
    if (probe.entered == 1) {
      throw std::runtime_error("no value of this type");
    }
  };
  const CapturedError captured;
  ProbedThread thread(probe, "WAN_MONITOR");
  const auto begin = Clock::now();
  thread.start();
  ASSERT_TRUE(becomesTrue([&] { return probe.left == 1; }));
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(500));
  EXPECT_EQ(2, probe.entered);
  EXPECT_NE(std::string::npos,
            captured.text().find(
                "ERROR: Exception caught in thread [WAN_MONITOR]: [no value of this type]\n"));
}

TEST_F(Thread, StopEndsThePauseAfterAnException) {
  Probe probe;
  probe.work = [](VEXA::Thread&) { throw 5; };
  const CapturedError captured;
  ProbedThread thread(probe, "ODD");
  thread.start();
  ASSERT_TRUE(captured.waitFor("ERROR: Exception caught in thread [ODD]: [unknown]\n"));
  const auto begin = Clock::now();
  thread.stop();
  EXPECT_TRUE(becomesTrue([&] { return countThreads() == before; }));
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(4));
  EXPECT_EQ(1, probe.entered);
}

TEST_F(Thread, EndsAfterAnExceptionWhenItShallNotResume) {
  Probe probe;
  probe.work = [](VEXA::Thread&) { throw std::runtime_error("once"); };
  const CapturedError captured;
  ProbedThread thread(probe, "ONCE", false);
  thread.start();
  EXPECT_TRUE(captured.waitFor("[ONCE]: [once]\n"));
  const auto begin = Clock::now();
  EXPECT_TRUE(becomesTrue([&] { return countThreads() == before; }));
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(4));
}

TEST_F(Thread, MayEndByPthreadExit) {
  Probe probe;
  probe.work = [](VEXA::Thread&) { pthread_exit(nullptr); };
  const CapturedError captured;
  {
    ProbedThread thread(probe);
    thread.start();
    EXPECT_TRUE(becomesTrue([&] { return probe.entered == 1; }));
  }
  EXPECT_TRUE(becomesTrue([&] { return countThreads() == before; }));
  EXPECT_EQ("", captured.text());
}

}  // namespace
