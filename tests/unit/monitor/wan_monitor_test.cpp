#include "monitor/wan_monitor.hpp"

#include "fake/fake_platform.hpp"
#include "support/recorded_test.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(std::is_base_of_v<VEXA::Thread, WanMonitor>);
static_assert(std::has_virtual_destructor_v<WanMonitor>);

constexpr char notChanged[] = "TRACE [WAN_MONITOR] WAN has not changed";

std::string downRecord(int counter) {
  return "TRACE [WAN_MONITOR] All WANs are down. Waiting for the WAN to go up. Current down "
         "counter: [" +
         std::to_string(counter) + "]";
}

/// The addresses that the next polls find; the last one stays.
std::deque<std::string> addresses;
std::function<void()> onPoll;

std::string poll() {
  fake::record("poll");
  if (onPoll) {
    onPoll();
  }
  std::string address = addresses.front();
  if (addresses.size() > 1) {
    addresses.pop_front();
  }
  return address;
}

class WanMonitorTest : public support::RecordedTest {
 protected:
  WanMonitorTest() {
    fake::traceLocks = true;
    refreshRequested = 0;
    onPoll = nullptr;
  }
  ~WanMonitorTest() override { refreshRequested = 0; }

  void watch(const std::string& seed, std::deque<std::string> polled) {
    addresses = std::move(polled);
    monitor = std::make_unique<WanMonitor>(lock, condition, poll, seed);
  }

  /// Runs the monitor and stops it in the sleep after this many polls.
  void runPolls(int polls) {
    int sleeps = 0;
    fake::onSleep = [this, &sleeps, polls](unsigned) {
      if (++sleeps > polls) {
        monitor->stop();
      }
    };
    monitor->run();
    fake::onSleep = nullptr;
  }

  LockHandle lock{new VEXA::Lock};
  ConditionHandle condition{lock->createCondition()};
  std::unique_ptr<WanMonitor> monitor;
};

// --- construction and destruction

TEST_F(WanMonitorTest, NamesItsThread) {
  watch("10.0.0.2", {""});
  monitor->start();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("start WAN_MONITOR"));
}

TEST_F(WanMonitorTest, PollsNothingBeforeItRuns) {
  watch("10.0.0.2", {""});
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(WanMonitorTest, SharesTheHandlesAsLongAsItLives) {
  watch("10.0.0.2", {""});
  EXPECT_EQ(lock.useCount(), 2U);
  EXPECT_EQ(condition.useCount(), 2U);
  std::unique_ptr<VEXA::Thread> base = std::move(monitor);
  base.reset();
  EXPECT_EQ(lock.useCount(), 1U);
  EXPECT_EQ(condition.useCount(), 1U);
}

// --- the policy

TEST_F(WanMonitorTest, AsksForNothingWhileTheAddressStays) {
  watch("10.0.0.2", {"10.0.0.2"});
  runPolls(3);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("sleep 30000", "poll", notChanged, "sleep 30000", "poll", notChanged,
                          "sleep 30000", "poll", notChanged, "sleep 30000", "stop WAN_MONITOR"));
  EXPECT_EQ(refreshRequested, 0);
}

TEST_F(WanMonitorTest, AsksOnceForAnotherAddress) {
  watch("10.0.0.2", {"10.0.0.3"});
  runPolls(2);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("sleep 30000", "poll", "lock", "signal", "unlock", "sleep 30000", "poll",
                          notChanged, "sleep 30000", "stop WAN_MONITOR"));
  EXPECT_EQ(refreshRequested, 1);
}

TEST_F(WanMonitorTest, SeesAnAddressOfAnotherLengthAsAnother) {
  watch("10.0.0.2", {"10.0.0.20", "10.0.0.2"});
  runPolls(2);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("sleep 30000", "poll", "lock", "signal", "unlock", "sleep 30000", "poll",
                          "lock", "signal", "unlock", "sleep 30000", "stop WAN_MONITOR"));
}

TEST_F(WanMonitorTest, AsksAtOnceWhenTheWanComesUp) {
  watch("", {"10.0.0.2"});
  runPolls(1);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sleep 30000", "poll", "lock", "signal", "unlock",
                                             "sleep 30000", "stop WAN_MONITOR"));
  EXPECT_EQ(refreshRequested, 1);
}

TEST_F(WanMonitorTest, AsksAtTheFourthPollThatFindsTheWanLost) {
  watch("10.0.0.2", {""});
  runPolls(4);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sleep 30000", "poll", downRecord(1), notChanged,  //
                                             "sleep 30000", "poll", downRecord(2), notChanged,  //
                                             "sleep 30000", "poll", downRecord(3), notChanged,  //
                                             "sleep 30000", "poll", "lock", "signal", "unlock",
                                             "sleep 30000", "stop WAN_MONITOR"));
  EXPECT_EQ(refreshRequested, 1);
}

TEST_F(WanMonitorTest, AsksForNothingMoreWhileTheWanStaysLost) {
  watch("", {""});
  runPolls(9);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sleep 30000", "poll", downRecord(1), notChanged,  //
                                             "sleep 30000", "poll", downRecord(2), notChanged,  //
                                             "sleep 30000", "poll", downRecord(3), notChanged,  //
                                             "sleep 30000", "poll", notChanged,                 //
                                             "sleep 30000", "poll", downRecord(1), notChanged,  //
                                             "sleep 30000", "poll", downRecord(2), notChanged,  //
                                             "sleep 30000", "poll", downRecord(3), notChanged,  //
                                             "sleep 30000", "poll", notChanged,                 //
                                             "sleep 30000", "poll", downRecord(1), notChanged,
                                             "sleep 30000", "stop WAN_MONITOR"));
}

TEST_F(WanMonitorTest, ForgetsTheAddressOfALostWan) {
  watch("10.0.0.2", {"", "", "", "", "", "10.0.0.2"});
  runPolls(6);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sleep 30000", "poll", downRecord(1), notChanged,   //
                                             "sleep 30000", "poll", downRecord(2), notChanged,   //
                                             "sleep 30000", "poll", downRecord(3), notChanged,   //
                                             "sleep 30000", "poll", "lock", "signal", "unlock",  //
                                             "sleep 30000", "poll", downRecord(1), notChanged,   //
                                             "sleep 30000", "poll", "lock", "signal", "unlock",  //
                                             "sleep 30000", "stop WAN_MONITOR"));
}

TEST_F(WanMonitorTest, CountsAnewAfterTheOldAddressIsBack) {
  watch("10.0.0.2", {"", "", "10.0.0.2", "", "", "", "10.0.0.2"});
  runPolls(7);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sleep 30000", "poll", downRecord(1), notChanged,  //
                                             "sleep 30000", "poll", downRecord(2), notChanged,  //
                                             "sleep 30000", "poll", notChanged,                 //
                                             "sleep 30000", "poll", downRecord(1), notChanged,  //
                                             "sleep 30000", "poll", downRecord(2), notChanged,  //
                                             "sleep 30000", "poll", downRecord(3), notChanged,  //
                                             "sleep 30000", "poll", notChanged,                 //
                                             "sleep 30000", "stop WAN_MONITOR"));
  EXPECT_EQ(refreshRequested, 0);
}

TEST_F(WanMonitorTest, AsksForAnotherAddressAfterAbsorbedFailures) {
  watch("10.0.0.2", {"", "10.0.0.3", ""});
  runPolls(3);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sleep 30000", "poll", downRecord(1), notChanged,   //
                                             "sleep 30000", "poll", "lock", "signal", "unlock",  //
                                             "sleep 30000", "poll", downRecord(1), notChanged,   //
                                             "sleep 30000", "stop WAN_MONITOR"));
}

TEST_F(WanMonitorTest, WritesNoTraceRecordsAtTheErrorLevel) {
  fake::setPrintLevel(10);
  watch("10.0.0.2", {"", "10.0.0.2"});
  runPolls(2);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sleep 30000", "poll", "sleep 30000", "poll",
                                             "sleep 30000", "stop WAN_MONITOR"));
}

// --- the end

TEST_F(WanMonitorTest, NeverPollsWhenItWasStoppedBefore) {
  watch("10.0.0.2", {""});
  monitor->stop();
  monitor->run();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("stop WAN_MONITOR"));
}

TEST_F(WanMonitorTest, DoesNotPollOnceItIsStoppedInItsSleep) {
  watch("10.0.0.2", {"10.0.0.3"});
  runPolls(0);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sleep 30000", "stop WAN_MONITOR"));
  EXPECT_EQ(refreshRequested, 0);
}

TEST_F(WanMonitorTest, EndsAfterThePollInWhichItIsStopped) {
  watch("10.0.0.2", {"10.0.0.2"});
  onPoll = [this] { monitor->stop(); };
  monitor->run();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("sleep 30000", "poll", "stop WAN_MONITOR", notChanged));
}

TEST_F(WanMonitorTest, EndsAfterTheRequestThatItWasStoppedBefore) {
  watch("10.0.0.2", {"10.0.0.3"});
  onPoll = [this] { monitor->stop(); };
  monitor->run();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("sleep 30000", "poll", "stop WAN_MONITOR", "lock", "signal", "unlock"));
}

TEST_F(WanMonitorTest, GoesOnAfterAPollThatThrew) {
  watch("10.0.0.2", {"", "10.0.0.2"});
  onPoll = [] {
    onPoll = nullptr;
    throw std::runtime_error("a reply of the wrong type");
  };
  EXPECT_THROW(monitor->run(), std::runtime_error);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sleep 30000", "poll"));
  runPolls(2);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("sleep 30000", "poll", downRecord(1), notChanged, "sleep 30000", "poll",
                          notChanged, "sleep 30000", "stop WAN_MONITOR"));
}

// --- a poll that does not come back

std::promise<void>* pollEntered = nullptr;
std::promise<void>* pollReleased = nullptr;

std::string stuckPoll() {
  pollEntered->set_value();
  pollReleased->get_future().wait();
  return "10.0.0.3";
}

TEST_F(WanMonitorTest, LetsGoOfAPollThatOutlivesIt) {
  std::promise<void> entered;
  std::promise<void> released;
  pollEntered = &entered;
  pollReleased = &released;
  {
    const LockHandle shortLock(new VEXA::Lock);
    const ConditionHandle shortCondition(shortLock->createCondition());
    monitor = std::make_unique<WanMonitor>(shortLock, shortCondition, stuckPoll, "10.0.0.2");
    WanMonitor* const running = monitor.get();
    std::thread thread([running] { running->run(); });
    entered.get_future().wait();
    std::future<void> destroyed = std::async(std::launch::async, [this] { monitor.reset(); });
    EXPECT_EQ(destroyed.wait_for(std::chrono::seconds(60)), std::future_status::ready)
        << "the destructor waits for the poll";
    released.set_value();
    thread.join();
    destroyed.wait();
    EXPECT_EQ(shortLock.useCount(), 1U);
    EXPECT_EQ(shortCondition.useCount(), 1U);
  }
  EXPECT_EQ(refreshRequested, 0);
  EXPECT_THAT(fake::takeTrace(), testing::Not(testing::Contains("signal")));
}

TEST_F(WanMonitorTest, CanEndInAForkedCopyWhateverTheThreadWasDoing) {
  addresses = {"10.0.0.3"};
  monitor = std::make_unique<WanMonitor>(managerLock, managerCondition, poll, "10.0.0.2");
  int sleeps = 0;
  fake::onSleep = [this, &sleeps](unsigned) {
    if (++sleeps == 2) {
      monitor->stop();
    }
  };
  int status = -1;
  fake::onEntry = [this, &status](const std::string& entry) {
    if (entry != "signal") {
      return;
    }
    const pid_t copy = fork();
    if (copy == 0) {
      alarm(60);
      fake::onEntry = nullptr;
      monitor.reset();
      _exit(0);
    }
    waitpid(copy, &status, 0);
  };
  monitor->run();
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace tunnel_mngr
