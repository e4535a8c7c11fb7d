#include "core/main_loop.hpp"

#include "core/main_loop_fixture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// --- turns

TEST_F(MainLoop, ReturnsAtOnceWhenAStopIsRequested) {
  stopRequested = true;
  refreshRequested = 1;
  runMainLoop();
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
  EXPECT_EQ(refreshRequested, 1);
}

TEST_F(MainLoop, ChecksOpenVpnInItsFirstTurn) {
  runUntilWait(1);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("lock", "wait 200", "checkOvpnTunnels", "unlock"));
}

TEST_F(MainLoop, WaitsInEveryTurnWithoutARequest) {
  runUntilWait(3);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lock", "wait 200", "checkOvpnTunnels", "unlock", "lock", "wait 200",
                          "unlock", "lock", "wait 200", "unlock"));
}

TEST_F(MainLoop, ChecksOpenVpnAgainAfterElevenSeconds) {
  runUntilWait(5, [this](int wait) {
    const int seconds[] = {0, 1, 10, 11, 21};
    setClock(seconds[wait - 1]);
  });
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lock", "wait 200", "checkOvpnTunnels", "unlock", "lock", "wait 200",
                          "unlock", "lock", "wait 200", "unlock", "lock", "wait 200",
                          "checkOvpnTunnels", "unlock", "lock", "wait 200", "unlock"));
}

TEST_F(MainLoop, PostponesTheCheckWhenTheClockStepsBack) {
  runUntilWait(5, [this](int wait) {
    const int seconds[] = {0, -5000, -10, 10, 11};
    setClock(seconds[wait - 1]);
  });
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lock", "wait 200", "checkOvpnTunnels", "unlock", "lock", "wait 200",
                          "unlock", "lock", "wait 200", "unlock", "lock", "wait 200", "unlock",
                          "lock", "wait 200", "checkOvpnTunnels", "unlock"));
}

TEST_F(MainLoop, SkipsTheCheckWhenThereIsNoTime) {
  runUntilWait(2, [this](int wait) { fake::calls.times = {wait == 1 ? -1 : now}; });
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lock", "wait 200", "ERROR time(NULL) returned error", "unlock", "lock",
                          "wait 200", "checkOvpnTunnels", "unlock"));
}

// --- refreshes

/// A cycle without a WAN address.
const std::vector<std::string> shortCycle = {
    "INFO Managing tunnels",
    "discoverGreTunnels",
    "Conf::init",
    "stopIpsec",
    "stopOvpnTunnels",
    "getCurrentWanIp",
    "TRACE WAN address is not acquired. Tunnels will not be setup until WAN is available."};

/// A cycle with one, and no tunnels.
const std::vector<std::string> fullCycle = {"INFO Managing tunnels",
                                            "discoverGreTunnels",
                                            "Conf::init",
                                            "stopIpsec",
                                            "stopOvpnTunnels",
                                            "getCurrentWanIp",
                                            "pullConfigurations",
                                            "TRACE No GRE Tunnels configured",
                                            "setupIpsecTunnels 10.0.0.2 []",
                                            "TRACE firewall --init",
                                            "cmd firewall --init",
                                            "startOvpnTunnels"};

std::vector<std::string> joined(const std::vector<std::vector<std::string>>& parts) {
  std::vector<std::string> all;
  for (const std::vector<std::string>& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

TEST_F(MainLoop, RefreshesOnceWithoutAWait) {
  refreshRequested = 1;
  runUntilWait(1);
  EXPECT_EQ(fake::takeTrace(),
            joined({{"lock"},
                    shortCycle,
                    {"INFO Number of FQDN monitors is 0", "checkOvpnTunnels", "unlock"},
                    {"lock", "wait 200", "unlock"}}));
  EXPECT_EQ(refreshRequested, 0);
}

TEST_F(MainLoop, RefreshesWhenTheWaitEndsWithARequest) {
  runUntilWait(2, [](int wait) { refreshRequested = wait == 1 ? 1 : 0; });
  EXPECT_EQ(fake::takeTrace(),
            joined({{"lock", "wait 200"},
                    shortCycle,
                    {"INFO Number of FQDN monitors is 0", "checkOvpnTunnels", "unlock"},
                    {"lock", "wait 200", "unlock"}}));
}

TEST_F(MainLoop, StopsTheOldMonitorsAndStartsTheNewOnes) {
  pullMonitors({"a", "b"});
  refreshRequested = 1;
  runUntilWait(1);
  keepStarted();
  EXPECT_EQ(fake::takeTrace(), joined({{"lock"},
                                       fullCycle,
                                       {"INFO Number of FQDN monitors is 2", "start FQDN_MONITOR:a",
                                        "start FQDN_MONITOR:b", "checkOvpnTunnels", "unlock"},
                                       {"lock", "wait 200", "unlock"}}));
  pullMonitors({"c"});
  refreshRequested = 1;
  stopRequested = false;
  runUntilWait(1);
  EXPECT_EQ(fake::takeTrace(),
            joined({{"lock", "stop FQDN_MONITOR:a", "stop FQDN_MONITOR:b"},
                    fullCycle,
                    {"INFO Number of FQDN monitors is 1", "start FQDN_MONITOR:c", "unlock"},
                    {"lock", "wait 200", "unlock"}}));
  EXPECT_EQ(fqdnMonitors.size(), 1U);
  keepStarted();
}

TEST_F(MainLoop, DeletesNoMonitorThatItStarted) {
  pullMonitors({"a"});
  refreshRequested = 1;
  runUntilWait(1);
  keepStarted();
  const unsigned holders = managerLock.useCount();
  dropFqdnMonitors();
  EXPECT_THAT(fqdnMonitors, IsEmpty());
  EXPECT_EQ(managerLock.useCount(), holders);
  EXPECT_TRUE(startedMonitors.at(0)->isCanceled());
}

TEST_F(MainLoop, DropsTheMonitorsBeforeTheCycleRuns) {
  addMonitors({"a"});
  startFqdnMonitors();
  keepStarted();
  std::size_t left = 1;
  fake::rooms.onCall = [&left](const std::string& entry) {
    if (entry == "discoverGreTunnels") {
      left = fqdnMonitors.size();
    }
  };
  refreshRequested = 1;
  runUntilWait(1);
  EXPECT_EQ(left, 0U);
}

TEST_F(MainLoop, ClearsTheRequestAfterTheRefresh) {
  std::int32_t during = 0;
  fake::rooms.onCall = [&during](const std::string& entry) {
    if (entry == "getCurrentWanIp") {
      during = refreshRequested;
    }
  };
  refreshRequested = 1;
  runUntilWait(1);
  EXPECT_EQ(during, 1);
  EXPECT_EQ(refreshRequested, 0);
}

TEST_F(MainLoop, AbsorbsARequestThatComesDuringARefresh) {
  fake::rooms.onCall = [](const std::string& entry) {
    if (entry == "stopIpsec") {
      refreshRequested = 1;
    }
  };
  refreshRequested = 1;
  runUntilWait(1);
  EXPECT_EQ(fake::takeTrace(),
            joined({{"lock"},
                    shortCycle,
                    {"INFO Number of FQDN monitors is 0", "checkOvpnTunnels", "unlock"},
                    {"lock", "wait 200", "unlock"}}));
}

TEST_F(MainLoop, SeesARequestThatComesDuringTheOpenVpnCheckInTheNextTurn) {
  fake::rooms.onCall = [](const std::string& entry) {
    if (entry == "checkOvpnTunnels") {
      refreshRequested = 1;
    }
  };
  runUntilWait(2);
  EXPECT_EQ(fake::takeTrace(), joined({{"lock", "wait 200", "checkOvpnTunnels", "unlock", "lock"},
                                       shortCycle,
                                       {"INFO Number of FQDN monitors is 0", "unlock"},
                                       {"lock", "wait 200", "unlock"}}));
}

TEST_F(MainLoop, RefreshesNothingOnceAStopIsRequested) {
  runUntilWait(1, [](int) { refreshRequested = 1; });
  EXPECT_THAT(fake::takeTrace(), ElementsAre("lock", "wait 200", "checkOvpnTunnels", "unlock"));
  EXPECT_EQ(refreshRequested, 1);
}

TEST_F(MainLoop, StartsTheMonitorsOfACycleThatFailed) {
  pullMonitors({"a"});
  fake::script("firewall --init", 1);
  refreshRequested = 1;
  runUntilWait(1);
  keepStarted();
  const std::vector<std::string> trace = fake::takeTrace();
  EXPECT_THAT(std::vector<std::string>(trace.end() - 8, trace.end()),
              ElementsAre("ERROR Error executing firewall --init command [1]",
                          "INFO Number of FQDN monitors is 1", "start FQDN_MONITOR:a",
                          "checkOvpnTunnels", "unlock", "lock", "wait 200", "unlock"));
  EXPECT_EQ(refreshRequested, 0);
}

// --- monitors

TEST_F(MainLoop, CountsTheMonitorsThatItStarts) {
  addMonitors({"a", "b", "c"});
  startFqdnMonitors();
  keepStarted();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("INFO Number of FQDN monitors is 3", "start FQDN_MONITOR:a",
                          "start FQDN_MONITOR:b", "start FQDN_MONITOR:c"));
}

}  // namespace
}  // namespace tunnel_mngr
