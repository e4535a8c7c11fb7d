#include "platform/lock.hpp"

#include "many_threads.hpp"
#include "platform/auto_ptr.hpp"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>
namespace {

using Clock = std::chrono::steady_clock;
using VEXA::Condition;
using VEXA::Lock;

constexpr unsigned int veryLongMs = 60 * 1000;

struct LockAndCondition {
  Lock lock;
  VEXA::AutoPtr<Condition> condition{lock.createCondition()};
};

TEST(Lock, LetsOneThreadInAtATime) {
  Lock lock;
  int count = 0;
  ManyThreads(4, [&](int) {
    for (int turn = 0; turn < 5000; ++turn) {
      lock.lock();
      ++count;
      lock.unlock();
    }
  }).join();
  EXPECT_EQ(20000, count);
}

TEST(Lock, CanBeUnlockedByTheForkedChildOfItsHolder) {
  Lock lock;
  lock.lock();
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    lock.unlock();
    lock.lock();
    lock.unlock();
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(0, status);
  lock.unlock();
}

TEST(Condition, WaitsUntilTheTimeIsOver) {
  LockAndCondition both;
  both.lock.lock();
  const auto begin = Clock::now();
  both.condition->wait(30);
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(30));
  both.lock.unlock();
}

TEST(Condition, ReleasesTheLockWhileItWaitsAndTakesItAgain) {
  LockAndCondition both;
  bool changed = false;
  both.lock.lock();
  std::thread other([&] {
    both.lock.lock();
    changed = true;
    both.condition->signal();
    both.lock.unlock();
  });
  both.condition->wait(veryLongMs);
  EXPECT_TRUE(changed);
  std::atomic<bool> entered{false};
  std::thread third([&] {
    both.lock.lock();
    entered = true;
    both.lock.unlock();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(entered);
  both.lock.unlock();
  other.join();
  third.join();
}

TEST(Condition, DoesNotLoseASignalThatComesBeforeTheWait) {
  LockAndCondition both;
  both.condition->signal();
  both.lock.lock();
  const auto begin = Clock::now();
  both.condition->wait(veryLongMs);
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(30));
  both.lock.unlock();
}

TEST(Condition, CountsSeveralSignalsBetweenTwoWaitsAsOne) {
  LockAndCondition both;
  for (int i = 0; i < 3; ++i) {
    both.condition->signal();
  }
  both.lock.lock();
  both.condition->wait(veryLongMs);
  const auto begin = Clock::now();
  both.condition->wait(30);
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(30));
  both.lock.unlock();
}

// What the handler of the next test reaches.
Condition* signaledByHandler = nullptr;
std::atomic<bool> requested{false};

void requestBySignal(int) {
  requested = true;
  signaledByHandler->signal();
}

/// Sends signals one by one, each when the one before was answered.
void sendSignals(pthread_t target, int count, const std::atomic<int>& answered) {
  for (int sent = 0; sent < count; ++sent) {
    pthread_kill(target, SIGUSR1);
    while (answered <= sent) {
      std::this_thread::yield();
    }
  }
}

TEST(Condition, LosesNoneOfManySignalsFromASignalHandler) {
  constexpr int count = 10000;
  LockAndCondition both;
  signaledByHandler = both.condition.get();
  const auto before = std::signal(SIGUSR1, requestBySignal);
  std::atomic<int> answered{0};
  std::thread sender(sendSignals, pthread_self(), count, std::cref(answered));
  int lateWaits = 0;
  both.lock.lock();
  while (answered < count) {
    const auto begin = Clock::now();
    both.condition->wait(veryLongMs);
    lateWaits += Clock::now() - begin > std::chrono::seconds(30) ? 1 : 0;
    if (requested.exchange(false)) {
      ++answered;
    }
  }
  both.lock.unlock();
  sender.join();
  std::signal(SIGUSR1, before);
  EXPECT_EQ(0, lateWaits);
}

}  // namespace
