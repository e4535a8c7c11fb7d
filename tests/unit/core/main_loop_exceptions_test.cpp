#include "core/main_loop_fixture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;

using MainLoopException = MainLoop;

constexpr char caught[] = "ERROR Exception caught while waiting on signal";

/// Throws at the first entry of this name.
void throwOnceAt(const std::string& name) {
  auto thrown = std::make_shared<bool>(false);
  fake::rooms.onCall = [name, thrown](const std::string& entry) {
    if (entry == name && !*thrown) {
      *thrown = true;
      throw std::runtime_error("a bad reply");
    }
  };
}

TEST_F(MainLoopException, TriesARefreshThatThrewAgainAfterItsWait) {
  fake::setPrintLevel(10);
  throwOnceAt("Conf::init");
  refreshRequested = 1;
  runUntilWait(2);
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("lock", "discoverGreTunnels", "Conf::init", caught, "wait 200", "unlock", "lock",
                  "discoverGreTunnels", "Conf::init", "stopIpsec", "stopOvpnTunnels",
                  "getCurrentWanIp", "checkOvpnTunnels", "unlock", "lock", "wait 200", "unlock"));
  EXPECT_EQ(refreshRequested, 0);
}

TEST_F(MainLoopException, KeepsTheRequestOfARefreshThatThrew) {
  throwOnceAt("getCurrentWanIp");
  refreshRequested = 1;
  runUntilWait(1);
  EXPECT_EQ(refreshRequested, 1);
}

TEST_F(MainLoopException, LogsAnExceptionOncePerTurn) {
  fake::setPrintLevel(10);
  fake::rooms.onCall = [](const std::string&) { throw std::runtime_error("always"); };
  refreshRequested = 1;
  runUntilWait(3);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lock", "discoverGreTunnels", caught, "wait 200", "unlock", "lock",
                          "discoverGreTunnels", caught, "wait 200", "unlock", "lock",
                          "discoverGreTunnels", caught, "wait 200", "unlock"));
}

TEST_F(MainLoopException, GoesOnAfterAnOpenVpnCheckThatThrew) {
  fake::setPrintLevel(10);
  throwOnceAt("checkOvpnTunnels");
  runUntilWait(4, [this](int wait) { setClock(wait == 4 ? 11 : 0); });
  EXPECT_THAT(fake::takeTrace(), ElementsAre("lock", "wait 200", "checkOvpnTunnels", caught,
                                             "wait 200", "unlock", "lock", "wait 200", "unlock",
                                             "lock", "wait 200", "checkOvpnTunnels", "unlock"));
}

TEST_F(MainLoopException, CatchesAnExceptionFromItsWait) {
  fake::setPrintLevel(10);
  runUntilWait(3, [](int wait) {
    if (wait == 1) {
      throw std::runtime_error("from a handler");
    }
  });
  EXPECT_THAT(fake::takeTrace(), ElementsAre("lock", "wait 200", caught, "wait 200", "unlock",
                                             "lock", "wait 200", "checkOvpnTunnels", "unlock"));
}

TEST_F(MainLoopException, CatchesWhatIsNoStandardException) {
  fake::setPrintLevel(10);
  fake::rooms.onCall = [](const std::string& entry) {
    if (entry == "checkOvpnTunnels") {
      throw 7;
    }
  };
  runUntilWait(2);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lock", "wait 200", "checkOvpnTunnels", caught, "wait 200", "unlock"));
}

TEST_F(MainLoopException, StopsTheMonitorsOfACycleThatThrewBeforeItTriesAgain) {
  fake::setPrintLevel(30);
  const unsigned holders = managerLock.useCount();
  fake::rooms.wanIp = "10.0.0.2";
  bool thrown = false;
  fake::rooms.onCall = [this, &thrown](const std::string& entry) {
    if (entry == "pullConfigurations" && !thrown) {
      thrown = true;
      addMonitors({"a", "b"});
      throw std::runtime_error("a bad record");
    }
  };
  refreshRequested = 1;
  runUntilWait(2);
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("lock", "INFO Managing tunnels", "discoverGreTunnels", "Conf::init", "stopIpsec",
                  "stopOvpnTunnels", "getCurrentWanIp", "pullConfigurations", caught, "wait 200",
                  "unlock",  //
                  "lock", "stop FQDN_MONITOR:a", "stop FQDN_MONITOR:b", "INFO Managing tunnels",
                  "discoverGreTunnels", "Conf::init", "stopIpsec", "stopOvpnTunnels",
                  "getCurrentWanIp", "pullConfigurations", "setupIpsecTunnels 10.0.0.2 []",
                  "cmd firewall --init", "startOvpnTunnels", "INFO Number of FQDN monitors is 0",
                  "checkOvpnTunnels", "unlock",  //
                  "lock", "wait 200", "unlock"));
  EXPECT_EQ(managerLock.useCount(), holders) << "nobody else knows the monitors of such a cycle";
}

TEST_F(MainLoopException, SaysWhichExceptionItWasAtDebug) {
  fake::setPrintLevel(40);
  throwOnceAt("checkOvpnTunnels");
  fake::traceLocks = false;
  runUntilWait(2);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("wait 200", "checkOvpnTunnels", caught,
                                             "DEBUG The exception says: a bad reply", "wait 200"));
}

}  // namespace
}  // namespace tunnel_mngr
