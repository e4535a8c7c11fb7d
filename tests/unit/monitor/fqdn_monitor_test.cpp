#include "monitor/fqdn_monitor.hpp"

#include "fake/fake_platform.hpp"
#include "monitor/fake_lookup.hpp"
#include "support/recorded_test.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netdb.h>

#include <memory>
#include <string>
#include <type_traits>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(std::is_base_of_v<VEXA::Thread, FqdnMonitor>);
static_assert(std::has_virtual_destructor_v<FqdnMonitor>);

constexpr char notFound[] = "WARNING [FQDN_MONITOR] The host [peer.example] was not found.\n";
constexpr char checking[] = "TRACE [FQDN_MONITOR] tunnel:peer.example check tunnel_a ";
constexpr char notChanged[] = "TRACE [FQDN_MONITOR] FQDN has not changed";
constexpr char stopRecord[] = "TRACE [FQDN_MONITOR] tunnel:tunnel_a stop ";

std::string failureRecord(int counter) {
  return "INFO [FQDN_MONITOR] tunnel:tunnel_a Failed to resolve the [peer.example] host. "
         "Resolution failure counter: [" +
         std::to_string(counter) + "]\n";
}

std::string changeRecord(const std::string& from, const std::string& to) {
  return "INFO [FQDN_MONITOR] tunnel:tunnel_a The host [peer.example] has resolved to a new ip "
         "address. [" +
         from + "]=>[" + to + "]\n";
}

class FqdnMonitorTest : public support::RecordedTest {
 protected:
  FqdnMonitorTest() {
    fake::resetLookups();
    refreshRequested = 0;
  }
  ~FqdnMonitorTest() override {
    fake::resetLookups();
    refreshRequested = 0;
  }

  void watch(const std::string& address, std::uint16_t periodMinutes = 5,
             const std::string& host = "peer.example") {
    monitor =
        std::make_unique<FqdnMonitor>(lock, condition, host, address, periodMinutes, "tunnel_a");
  }

  /// Runs the monitor and stops it in this one of its sleeps, the first being 1.
  void runUntilSleep(int last) {
    int sleeps = 0;
    fake::onSleep = [this, &sleeps, last](unsigned) {
      if (++sleeps == last) {
        monitor->stop();
      }
    };
    monitor->run();
    fake::onSleep = nullptr;
  }

  /// One check of an answer, with its records.
  bool check(const fake::Lookup& answer) {
    fake::resetLookups();
    fake::scriptLookup(answer);
    return monitor->checkAddress();
  }

  LockHandle lock{new VEXA::Lock};
  ConditionHandle condition{lock->createCondition()};
  std::unique_ptr<FqdnMonitor> monitor;
};

// --- construction and destruction

TEST_F(FqdnMonitorTest, NamesItsThreadAfterTheTunnel) {
  watch("1.2.3.4");
  monitor->start();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("start FQDN_MONITOR:tunnel_a"));
}

TEST_F(FqdnMonitorTest, SharesTheHandlesAsLongAsItLives) {
  EXPECT_EQ(lock.useCount(), 1U);
  EXPECT_EQ(condition.useCount(), 1U);
  watch("1.2.3.4");
  EXPECT_EQ(lock.useCount(), 2U);
  EXPECT_EQ(condition.useCount(), 2U);
  const std::unique_ptr<VEXA::Thread> base = std::move(monitor);
  EXPECT_EQ(lock.useCount(), 2U);
}

TEST_F(FqdnMonitorTest, GivesTheHandlesBackThroughItsBase) {
  watch("1.2.3.4");
  std::unique_ptr<VEXA::Thread> base = std::move(monitor);
  base.reset();
  EXPECT_EQ(lock.useCount(), 1U);
  EXPECT_EQ(condition.useCount(), 1U);
}

TEST_F(FqdnMonitorTest, DoesNothingBeforeItIsStarted) {
  watch("1.2.3.4");
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

// --- one check

TEST_F(FqdnMonitorTest, NeverSeesAChangeOfADottedAddress) {
  watch("192.0.2.7", 5, "192.0.2.7");
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(monitor->checkAddress());
  }
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(FqdnMonitorTest, SaysNothingOfTheSameAddress) {
  watch("1.2.3.4");
  EXPECT_FALSE(check(fake::resolved({"1.2.3.4"})));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("lookup peer.example"));
}

TEST_F(FqdnMonitorTest, ReportsANewAddressOnce) {
  watch("1.2.3.4");
  EXPECT_TRUE(check(fake::resolved({"1.2.3.5"})));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lookup peer.example", changeRecord("1.2.3.4", "1.2.3.5")));
  EXPECT_FALSE(check(fake::resolved({"1.2.3.5"})));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("lookup peer.example"));
}

TEST_F(FqdnMonitorTest, ReportsANameThatBeginsToResolve) {
  watch("");
  EXPECT_TRUE(check(fake::resolved({"1.2.3.5"})));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("lookup peer.example", changeRecord("", "1.2.3.5")));
}

TEST_F(FqdnMonitorTest, SaysNothingOfItsOwnWhileANameNeverResolved) {
  watch("");
  for (int i = 0; i < 6; ++i) {
    EXPECT_FALSE(check(fake::failed(HOST_NOT_FOUND)));
    EXPECT_THAT(fake::takeTrace(), ElementsAre("lookup peer.example", notFound));
  }
}

TEST_F(FqdnMonitorTest, AbsorbsThreeFailuresAndReportsTheFourth) {
  watch("1.2.3.4");
  for (int counter = 1; counter <= 3; ++counter) {
    EXPECT_FALSE(check(fake::failed(HOST_NOT_FOUND)));
    EXPECT_THAT(fake::takeTrace(),
                ElementsAre("lookup peer.example", notFound, failureRecord(counter)));
  }
  EXPECT_TRUE(check(fake::failed(HOST_NOT_FOUND)));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lookup peer.example", notFound, changeRecord("1.2.3.4", "")));
}

TEST_F(FqdnMonitorTest, IsSilentAfterTheAddressIsGone) {
  watch("1.2.3.4");
  for (int i = 0; i < 4; ++i) {
    check(fake::failed(HOST_NOT_FOUND));
  }
  fake::takeTrace();
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(check(fake::failed(HOST_NOT_FOUND)));
    EXPECT_THAT(fake::takeTrace(), ElementsAre("lookup peer.example", notFound));
  }
  EXPECT_TRUE(check(fake::resolved({"1.2.3.4"})));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("lookup peer.example", changeRecord("", "1.2.3.4")));
}

TEST_F(FqdnMonitorTest, CountsFailuresAgainAfterTheAddressCameBack) {
  watch("1.2.3.4");
  for (int round = 0; round < 2; ++round) {
    for (int counter = 1; counter <= 3; ++counter) {
      EXPECT_FALSE(check(fake::failed(HOST_NOT_FOUND)));
      EXPECT_EQ(fake::takeTrace().back(), failureRecord(counter));
    }
    EXPECT_FALSE(check(fake::resolved({"1.2.3.4"})));
    EXPECT_THAT(fake::takeTrace(), ElementsAre("lookup peer.example"));
  }
}

TEST_F(FqdnMonitorTest, ReportsANewAddressAfterAbsorbedFailures) {
  watch("1.2.3.4");
  check(fake::failed(HOST_NOT_FOUND));
  check(fake::failed(HOST_NOT_FOUND));
  fake::takeTrace();
  EXPECT_TRUE(check(fake::resolved({"1.2.3.5"})));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lookup peer.example", changeRecord("1.2.3.4", "1.2.3.5")));
  EXPECT_FALSE(check(fake::failed(HOST_NOT_FOUND)));
  EXPECT_EQ(fake::takeTrace().back(), failureRecord(1));
}

TEST_F(FqdnMonitorTest, CountsANameWithOnlyIpv6AddressesAsAFailure) {
  watch("1.2.3.4");
  fake::Lookup answer = fake::resolved({"2001:db8::1"});
  answer.family = AF_INET6;
  EXPECT_FALSE(check(answer));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lookup peer.example",
                          "ERROR [FQDN_MONITOR] The address family is not supported (IPv6)\n",
                          failureRecord(1)));
}

TEST_F(FqdnMonitorTest, CountsMissingMemoryAsAFailure) {
  watch("1.2.3.4");
  fake::refusedGrowth = 256;
  EXPECT_FALSE(monitor->checkAddress());
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("ERROR [FQDN_MONITOR] gethostbyname: not enough memory.\n", failureRecord(1)));
}

// --- the thread

TEST_F(FqdnMonitorTest, ChecksOnceInEveryPeriod) {
  fake::traceLocks = true;
  fake::scriptLookup(fake::resolved({"1.2.3.4"}));
  watch("1.2.3.4");
  runUntilSleep(3);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("sleep 300000", checking, "lookup peer.example", notChanged,
                          "sleep 300000", checking, "lookup peer.example", notChanged,
                          "sleep 300000", "stop FQDN_MONITOR:tunnel_a", stopRecord));
  EXPECT_EQ(refreshRequested, 0);
}

TEST_F(FqdnMonitorTest, RequestsOneRebuildForANewAddress) {
  fake::traceLocks = true;
  fake::scriptLookup(fake::resolved({"1.2.3.5"}));
  watch("1.2.3.4");
  runUntilSleep(3);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("sleep 300000", checking, "lookup peer.example",
                          changeRecord("1.2.3.4", "1.2.3.5"), "lock", "signal", "unlock",
                          "sleep 300000", checking, "lookup peer.example", notChanged,
                          "sleep 300000", "stop FQDN_MONITOR:tunnel_a", stopRecord));
  EXPECT_EQ(refreshRequested, 1);
}

TEST_F(FqdnMonitorTest, RetriesEveryThirtySecondsWhileFailuresAreAbsorbed) {
  fake::traceLocks = true;
  fake::scriptLookup(fake::failed(HOST_NOT_FOUND));
  watch("1.2.3.4", 1);
  runUntilSleep(6);
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("sleep 60000", checking, "lookup peer.example", notFound, failureRecord(1),
                  notChanged,  //
                  "sleep 30000", checking, "lookup peer.example", notFound, failureRecord(2),
                  notChanged,  //
                  "sleep 30000", checking, "lookup peer.example", notFound, failureRecord(3),
                  notChanged,  //
                  "sleep 30000", checking, "lookup peer.example", notFound,
                  changeRecord("1.2.3.4", ""), "lock", "signal", "unlock",  //
                  "sleep 60000", checking, "lookup peer.example", notFound, notChanged,
                  "sleep 60000", "stop FQDN_MONITOR:tunnel_a", stopRecord));
  EXPECT_EQ(refreshRequested, 1);
}

TEST_F(FqdnMonitorTest, GoesBackToItsPeriodWhenTheNameResolvesAgain) {
  fake::scriptLookup(fake::failed(TRY_AGAIN));
  fake::scriptLookup(fake::resolved({"1.2.3.4"}));
  watch("1.2.3.4");
  runUntilSleep(3);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("sleep 300000", checking, "lookup peer.example",
                          "WARNING [FQDN_MONITOR] The name server is temporarily unavailable.  "
                          "Unable to resolve [peer.example]",
                          failureRecord(1), notChanged,  //
                          "sleep 30000", checking, "lookup peer.example", notChanged,
                          "sleep 300000", "stop FQDN_MONITOR:tunnel_a", stopRecord));
  EXPECT_EQ(refreshRequested, 0);
}

TEST_F(FqdnMonitorTest, WakesForADottedAddressAndAsksForNothing) {
  watch("192.0.2.7", 5, "192.0.2.7");
  runUntilSleep(2);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("sleep 300000", "TRACE [FQDN_MONITOR] tunnel:192.0.2.7 check tunnel_a ",
                          notChanged, "sleep 300000", "stop FQDN_MONITOR:tunnel_a", stopRecord));
  EXPECT_EQ(refreshRequested, 0);
}

TEST_F(FqdnMonitorTest, LooksNothingUpOnceItIsStoppedInItsSleep) {
  watch("1.2.3.4");
  runUntilSleep(1);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("sleep 300000", "stop FQDN_MONITOR:tunnel_a", stopRecord));
}

TEST_F(FqdnMonitorTest, EndsAtOnceWhenItWasStoppedBefore) {
  watch("1.2.3.4");
  monitor->stop();
  monitor->run();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("stop FQDN_MONITOR:tunnel_a", stopRecord));
}

TEST_F(FqdnMonitorTest, EndsAfterTheLookUpInWhichItIsStopped) {
  fake::scriptLookup(fake::resolved({"1.2.3.4"}));
  watch("1.2.3.4");
  fake::onLookup = [this] { monitor->stop(); };
  monitor->run();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sleep 300000", checking, "lookup peer.example",
                                             "stop FQDN_MONITOR:tunnel_a", notChanged, stopRecord));
  EXPECT_EQ(refreshRequested, 0);
}

TEST_F(FqdnMonitorTest, AsksForNothingOnceTheRebuildOfAnotherHasStoppedIt) {
  fake::traceLocks = true;
  fake::scriptLookup(fake::resolved({"1.2.3.5"}));
  watch("1.2.3.4");
  fake::onLookup = [this] { monitor->stop(); };
  monitor->run();
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("sleep 300000", checking, "lookup peer.example", "stop FQDN_MONITOR:tunnel_a",
                  changeRecord("1.2.3.4", "1.2.3.5"), "lock", "unlock", stopRecord));
  EXPECT_EQ(refreshRequested, 0);
}

TEST_F(FqdnMonitorTest, EndsAfterTheRequestInWhichItIsStopped) {
  fake::traceLocks = true;
  fake::scriptLookup(fake::resolved({"1.2.3.5"}));
  watch("1.2.3.4");
  fake::onEntry = [this](const std::string& entry) {
    if (entry == "signal") {
      monitor->stop();
    }
  };
  monitor->run();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("sleep 300000", checking, "lookup peer.example",
                                             changeRecord("1.2.3.4", "1.2.3.5"), "lock", "signal",
                                             "stop FQDN_MONITOR:tunnel_a", "unlock", stopRecord));
  EXPECT_EQ(refreshRequested, 1);
}

TEST_F(FqdnMonitorTest, WritesNothingButErrorsAtTheErrorLevel) {
  fake::setPrintLevel(10);
  fake::scriptLookup(fake::failed(NO_DATA));
  watch("1.2.3.4");
  runUntilSleep(5);
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("sleep 300000", "lookup peer.example", "sleep 30000", "lookup peer.example",
                  "sleep 30000", "lookup peer.example", "sleep 30000", "lookup peer.example",
                  "signal", "sleep 300000", "stop FQDN_MONITOR:tunnel_a"));
}

// --- periods

struct PeriodCase {
  std::uint16_t minutes;
  const char* sleep;
};

class FqdnMonitorPeriod : public FqdnMonitorTest, public testing::WithParamInterface<PeriodCase> {};

TEST_P(FqdnMonitorPeriod, IsSleptInMilliseconds) {
  watch("1.2.3.4", GetParam().minutes);
  runUntilSleep(1);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(GetParam().sleep, "stop FQDN_MONITOR:tunnel_a", stopRecord));
}

INSTANTIATE_TEST_SUITE_P(Minutes, FqdnMonitorPeriod,
                         testing::Values(PeriodCase{1, "sleep 60000"},
                                         PeriodCase{300, "sleep 18000000"},
                                         PeriodCase{35791, "sleep 2147460000"},
                                         PeriodCase{35792, "sleep 2147520000"},
                                         PeriodCase{65535, "sleep 3932100000"}),
                         [](const auto& row) { return std::to_string(row.param.minutes); });

}  // namespace
}  // namespace tunnel_mngr
