#include "core/signals.hpp"

#include "core/core_test.hpp"
#include "core/single_instance.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Signals : public CoreTest {
 protected:
  Signals() {
    checkRunningInstance();
    fake::takeTrace();
    fake::traceLocks = true;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  }
  ~Signals() override { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }

 private:
  sigset_t mask;
};

TEST_F(Signals, AskForARefreshWithoutTheLock) {
  onSighup(SIGHUP);
  EXPECT_EQ(refreshRequested, 1);
  EXPECT_FALSE(stopRequested);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("signal"));
}

TEST_F(Signals, AskForOneRefreshWhenTheyComeTwice) {
  onSighup(SIGHUP);
  onSighup(SIGHUP);
  EXPECT_EQ(refreshRequested, 1);
}

TEST_F(Signals, GiveThePlaceOfTheRunningInstanceUp) {
  onSigterm(SIGTERM);
  EXPECT_TRUE(stopRequested);
  EXPECT_EQ(refreshRequested, 0);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sem_unlink TUNNEL_MANAGER", "sem_close"));
}

TEST_F(Signals, RemoveThePidFileThatWasWritten) {
  writePidFile();
  fake::takeTrace();
  onSigterm(SIGTERM);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sem_unlink TUNNEL_MANAGER", "sem_close",
                                             "unlink /var/run/tunnel_mngr.pid"));
}

TEST_F(Signals, DoNothingOnceAStopIsRequested) {
  onSigterm(SIGTERM);
  fake::takeTrace();
  onSigterm(SIGTERM);
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(Signals, MeanNothingToAnothersHandler) {
  onSighup(SIGTERM);
  onSigterm(SIGHUP);
  onSighup(SIGUSR1);
  onSigterm(SIGINT);
  EXPECT_EQ(refreshRequested, 0);
  EXPECT_FALSE(stopRequested);
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(Signals, ReachTheirHandlers) {
  installSignalHandlers();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("signal 1 onSighup", "signal 15 onSigterm"));
  fake::deliverSignal(SIGHUP);
  EXPECT_EQ(refreshRequested, 1);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("signal"));
  fake::deliverSignal(SIGTERM);
  EXPECT_TRUE(stopRequested);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sem_unlink TUNNEL_MANAGER", "sem_close"));
}

TEST_F(Signals, ReachNobodyOnceTheyAreBlocked) {
  blockSignals();
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  for (const int number : {SIGHUP, SIGTERM, SIGINT, SIGUSR1}) {
    EXPECT_EQ(sigismember(&blocked, number), 1) << number;
  }
}

}  // namespace
}  // namespace tunnel_mngr
