#include "core/management_cycle.hpp"

#include "core/core_test.hpp"
#include "support/json_text.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace tunnel_mngr {
namespace {

using support::json;
using testing::ElementsAre;

class ManagementCycle : public CoreTest {
 protected:
  ManagementCycle() { fake::rooms.wanIp = "10.0.0.2"; }
};

TEST_F(ManagementCycle, TearsEverythingDownAndBuildsItAgainInOrder) {
  fake::rooms.existingTunnels = {"old1", "old2"};
  fake::rooms.greTunnels = json(R"([{"name": "a", "enabled": true, "ttl": 64},
                                    {"name": "b", "enabled": true}])");
  fake::rooms.ipsecTunnels = json(R"([{"name": "i"}])");
  EXPECT_TRUE(manageTunnels());
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("INFO Managing tunnels", "discoverGreTunnels", "destroyGreTunnel old1",
                          "destroyGreTunnel old2", "Conf::init", "stopIpsec", "stopOvpnTunnels",
                          "getCurrentWanIp", "pullConfigurations",
                          R"(createGreTunnel {"enabled":true,"name":"a","ttl":64})",
                          R"(createGreTunnel {"enabled":true,"name":"b"})",
                          R"(setupIpsecTunnels 10.0.0.2 [{"name":"i"}])", "TRACE firewall --init",
                          "cmd firewall --init", "startOvpnTunnels"));
  EXPECT_EQ(currentWanIp, "10.0.0.2");
}

TEST_F(ManagementCycle, KnowsTheWanAddressBeforeItBuildsTunnels) {
  fake::rooms.greTunnels = json(R"([{"enabled": true}])");
  std::string known;
  fake::rooms.onCall = [&known](const std::string& entry) {
    if (entry.rfind("createGreTunnel", 0) == 0) {
      known = currentWanIp;
    }
  };
  EXPECT_TRUE(manageTunnels());
  EXPECT_EQ(known, "10.0.0.2");
}

TEST_F(ManagementCycle, ChangesNothingWhenDiscoveryFails) {
  currentWanIp = "10.0.0.1";
  fake::rooms.discovers = false;
  fake::rooms.existingTunnels = {"old"};
  EXPECT_FALSE(manageTunnels());
  EXPECT_THAT(fake::takeTrace(), ElementsAre("INFO Managing tunnels", "discoverGreTunnels"));
  EXPECT_EQ(currentWanIp, "10.0.0.1");
}

TEST_F(ManagementCycle, GoesOnWhenATunnelCannotBeDestroyed) {
  fake::rooms.existingTunnels = {"old1", "old2"};
  fake::rooms.destroys = false;
  EXPECT_TRUE(manageTunnels());
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("INFO Managing tunnels", "discoverGreTunnels", "destroyGreTunnel old1",
                          "destroyGreTunnel old2", "Conf::init", "stopIpsec", "stopOvpnTunnels",
                          "getCurrentWanIp", "pullConfigurations",
                          "TRACE No GRE Tunnels configured", "setupIpsecTunnels 10.0.0.2 []",
                          "TRACE firewall --init", "cmd firewall --init", "startOvpnTunnels"));
}

TEST_F(ManagementCycle, LeavesIpsecAndOpenVpnRunningWhenTheirConfigurationCannotBeRead) {
  currentWanIp = "10.0.0.1";
  fake::rooms.existingTunnels = {"old"};
  fake::rooms.readsConf = false;
  EXPECT_FALSE(manageTunnels());
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("INFO Managing tunnels", "discoverGreTunnels", "destroyGreTunnel old",
                          "Conf::init", "ERROR [TUNNEL_MNGR] Failed read config"));
  EXPECT_EQ(currentWanIp, "10.0.0.1");
}

TEST_F(ManagementCycle, LeavesEverythingDownWithoutAWanAddress) {
  currentWanIp = "10.0.0.1";
  fake::rooms.wanIp = "";
  fake::rooms.existingTunnels = {"old"};
  fake::rooms.greTunnels = json(R"([{"name": "a", "enabled": true}])");
  EXPECT_TRUE(manageTunnels());
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("INFO Managing tunnels", "discoverGreTunnels", "destroyGreTunnel old",
                  "Conf::init", "stopIpsec", "stopOvpnTunnels", "getCurrentWanIp",
                  "TRACE WAN address is not acquired. Tunnels will not be setup until WAN is "
                  "available."));
  EXPECT_EQ(currentWanIp, "");
}

TEST_F(ManagementCycle, LeavesEverythingDownWhenTheConfigurationCannotBePulled) {
  fake::rooms.existingTunnels = {"old"};
  fake::rooms.pulls = false;
  EXPECT_FALSE(manageTunnels());
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("INFO Managing tunnels", "discoverGreTunnels", "destroyGreTunnel old",
                          "Conf::init", "stopIpsec", "stopOvpnTunnels", "getCurrentWanIp",
                          "pullConfigurations"));
  EXPECT_EQ(currentWanIp, "10.0.0.2");
}

// --- what is set up

/// What a cycle without old tunnels does after it has pulled the configuration.
std::vector<std::string> setUpSteps() {
  const std::vector<std::string> trace = fake::takeTrace();
  constexpr std::ptrdiff_t stepsBefore = 7;
  EXPECT_GT(trace.size(), static_cast<std::size_t>(stepsBefore));
  EXPECT_EQ(trace[stepsBefore - 1], "pullConfigurations");
  return {trace.begin() + stepsBefore, trace.end()};
}

TEST_F(ManagementCycle, SetsUpTheOthersWithoutGreTunnels) {
  fake::rooms.ipsecTunnels = json(R"([{"name": "i"}, {"name": "j"}])");
  EXPECT_TRUE(manageTunnels());
  EXPECT_THAT(setUpSteps(),
              ElementsAre("TRACE No GRE Tunnels configured",
                          R"(setupIpsecTunnels 10.0.0.2 [{"name":"i"},{"name":"j"}])",
                          "TRACE firewall --init", "cmd firewall --init", "startOvpnTunnels"));
}

TEST_F(ManagementCycle, TakesMissingListsAsEmpty) {
  fake::rooms.greTunnels = Json::Value();
  fake::rooms.ipsecTunnels = Json::Value();
  EXPECT_TRUE(manageTunnels());
  EXPECT_THAT(setUpSteps(),
              ElementsAre("TRACE No GRE Tunnels configured", "setupIpsecTunnels 10.0.0.2 null",
                          "TRACE firewall --init", "cmd firewall --init", "startOvpnTunnels"));
}

TEST_F(ManagementCycle, NamesTheTunnelsThatAreNotEnabled) {
  fake::rooms.greTunnels = json(R"([{"name": "a"}, {"name": "b", "enabled": true},
                                    {"name": "c", "enabled": false}, {"enabled": null}])");
  EXPECT_TRUE(manageTunnels());
  EXPECT_THAT(setUpSteps(),
              ElementsAre("TRACE Tunnel [a] is not enabled",
                          R"(createGreTunnel {"enabled":true,"name":"b"})",
                          "TRACE Tunnel [c] is not enabled", "TRACE Tunnel [] is not enabled",
                          "setupIpsecTunnels 10.0.0.2 []", "TRACE firewall --init",
                          "cmd firewall --init", "startOvpnTunnels"));
}

TEST_F(ManagementCycle, GoesOnWhenATunnelCannotBeCreated) {
  fake::rooms.creates = false;
  fake::rooms.greTunnels = json(R"([{"enabled": true}, {"enabled": true}])");
  EXPECT_TRUE(manageTunnels());
  EXPECT_THAT(setUpSteps(),
              ElementsAre(R"(createGreTunnel {"enabled":true})",
                          R"(createGreTunnel {"enabled":true})", "setupIpsecTunnels 10.0.0.2 []",
                          "TRACE firewall --init", "cmd firewall --init", "startOvpnTunnels"));
}

TEST_F(ManagementCycle, StartsNoOpenVpnWhenTheFirewallFails) {
  for (const int status : {1, 127, 255}) {
    fake::reset();
    fake::script("firewall --init", status, "ignored");
    EXPECT_FALSE(manageTunnels());
    EXPECT_THAT(setUpSteps(),
                ElementsAre("TRACE No GRE Tunnels configured", "setupIpsecTunnels 10.0.0.2 []",
                            "TRACE firewall --init", "cmd firewall --init",
                            "ERROR Error executing firewall --init command [" +
                                std::to_string(status) + "]"));
  }
}

TEST_F(ManagementCycle, WritesNothingButFailuresAtTheErrorLevel) {
  fake::setPrintLevel(10);
  fake::rooms.greTunnels = json("[{}]");
  EXPECT_TRUE(manageTunnels());
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("discoverGreTunnels", "Conf::init", "stopIpsec", "stopOvpnTunnels",
                          "getCurrentWanIp", "pullConfigurations", "setupIpsecTunnels 10.0.0.2 []",
                          "cmd firewall --init", "startOvpnTunnels"));
}

// --- exceptions

TEST_F(ManagementCycle, ThrowsOnARecordThatDoesNotConvert) {
  for (const char* list :
       {R"([{"enabled": "true"}])", R"([{"enabled": false, "name": []}])", "[7]", "[[]]"}) {
    fake::rooms.greTunnels = json(list);
    EXPECT_THROW(static_cast<void>(manageTunnels()), Json::Exception) << list;
    EXPECT_EQ(fake::takeTrace().back(), "pullConfigurations") << list;
  }
}

class ManagementCycleStep : public ManagementCycle,
                            public testing::WithParamInterface<const char*> {};

TEST_P(ManagementCycleStep, LetsAnExceptionPassAtOnce) {
  fake::rooms.existingTunnels = {"old"};
  fake::rooms.greTunnels = json(R"([{"enabled": true}])");
  fake::rooms.onCall = [](const std::string& entry) {
    if (entry == GetParam()) {
      throw std::runtime_error("a bad reply");
    }
  };
  EXPECT_THROW(static_cast<void>(manageTunnels()), std::runtime_error);
  EXPECT_EQ(fake::takeTrace().back(), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Steps, ManagementCycleStep,
                         testing::Values("discoverGreTunnels", "destroyGreTunnel old", "Conf::init",
                                         "stopIpsec", "stopOvpnTunnels", "getCurrentWanIp",
                                         "pullConfigurations",
                                         R"(createGreTunnel {"enabled":true})",
                                         "setupIpsecTunnels 10.0.0.2 []", "startOvpnTunnels"));

}  // namespace
}  // namespace tunnel_mngr
