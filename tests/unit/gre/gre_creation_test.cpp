#include "gre/gre_creation.hpp"

#include "fake/fake_platform.hpp"
#include "state/manager_state.hpp"
#include "support/json_text.hpp"
#include "support/recorded_test.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace tunnel_mngr {
namespace {

using support::json;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char addLine[] = "ip tunnel add a mode gre remote 192.0.2.7 local 10.0.0.2 ttl 64";
constexpr char linkLine[] = "ip link set a up";
constexpr char addressLine[] = "ip addr add 172.16.0.1/30 dev a";
constexpr char hookLine[] = "/etc/quorvex/hooks/gre-tunnel-link-changed -n a -d up";
constexpr char creating[] =
    "INFO Creating GRE tunnel: [a] local[10.0.0.2] remote[192.0.2.7] ttl[64]";

class GreCreation : public support::RecordedTest {
 protected:
  GreCreation() { currentWanIp = "10.0.0.2"; }
  ~GreCreation() override { currentWanIp.clear(); }
};

Json::Value linkOnly() {
  return json(R"({"name": "a", "remoteIp": "192.0.2.7", "ttl": 64})");
}

Json::Value withAddress() {
  Json::Value entry = linkOnly();
  entry["tunnelIp"] = "172.16.0.1";
  entry["tunnelMask"] = "30";
  return entry;
}

Json::Value withRoutes(const std::string& routes) {
  Json::Value entry = linkOnly();
  entry["routes"] = json(routes);
  return entry;
}

TEST_F(GreCreation, BringsUpInterfaceAddressAndRoutesAndTellsTheHook) {
  Json::Value entry = withAddress();
  entry["routes"] = json(R"([{"ip": "10.1.0.0", "mask": "16"}, {"ip": "10.2.3.0", "mask": 24}])");
  EXPECT_TRUE(createGreTunnel(entry));
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("INFO Creating GRE tunnel: [a] local[10.0.0.2] remote[192.0.2.7] ttl[64]",
                  "TRACE ip tunnel add a mode gre remote 192.0.2.7 local 10.0.0.2 ttl 64",
                  "cmd ip tunnel add a mode gre remote 192.0.2.7 local 10.0.0.2 ttl 64",
                  "TRACE ip link set a up", "cmd ip link set a up",
                  "TRACE ip addr add 172.16.0.1/30 dev a", "cmd ip addr add 172.16.0.1/30 dev a",
                  "INFO Adding route: a => 10.1.0.0/16", "TRACE ip route add 10.1.0.0/16 dev a",
                  "cmd ip route add 10.1.0.0/16 dev a", "INFO Adding route: a => 10.2.3.0/24",
                  "TRACE ip route add 10.2.3.0/24 dev a", "cmd ip route add 10.2.3.0/24 dev a",
                  "execute /etc/quorvex/hooks/gre-tunnel-link-changed -n a -d up"));
}

TEST_F(GreCreation, NeedsNeitherAddressNorRoutes) {
  EXPECT_TRUE(createGreTunnel(linkOnly()));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(creating, std::string("TRACE ") + addLine, std::string("cmd ") + addLine,
                          std::string("TRACE ") + linkLine, std::string("cmd ") + linkLine,
                          std::string("execute ") + hookLine));
}

TEST_F(GreCreation, WritesOnlyFailuresAtTheErrorLevel) {
  fake::setPrintLevel(10);
  Json::Value entry = withAddress();
  entry["routes"] = json(R"([{"ip": "10.1.0.0", "mask": true}])");
  fake::script("ip route add 10.1.0.0/ dev a", 1);
  EXPECT_TRUE(createGreTunnel(entry));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(std::string("cmd ") + addLine, std::string("cmd ") + linkLine,
                          std::string("cmd ") + addressLine, "cmd ip route add 10.1.0.0/ dev a",
                          "ERROR GRE tunnel: [a] error executing route add command [1]",
                          std::string("execute ") + hookLine));
}

// --- the first failure of a mandatory step ends the creation

TEST_F(GreCreation, EndsWhenTheTunnelCannotBeAdded) {
  fake::script(addLine, 2);
  EXPECT_FALSE(createGreTunnel(withAddress()));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(creating, std::string("TRACE ") + addLine, std::string("cmd ") + addLine,
                          "ERROR GRE tunnel: [a] error executing tunnel add command [2]"));
}

TEST_F(GreCreation, EndsWhenTheLinkCannotBeSetUp) {
  fake::script(linkLine, 127);
  EXPECT_FALSE(createGreTunnel(withAddress()));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(creating, std::string("TRACE ") + addLine, std::string("cmd ") + addLine,
                          std::string("TRACE ") + linkLine, std::string("cmd ") + linkLine,
                          "ERROR GRE tunnel: [a] error executing link set command [127]"));
}

TEST_F(GreCreation, EndsWhenTheAddressCannotBeAdded) {
  fake::script(addressLine, 1);
  Json::Value entry = withAddress();
  entry["routes"] = json(R"([{"ip": "10.1.0.0", "mask": "16"}])");
  EXPECT_FALSE(createGreTunnel(entry));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(creating, std::string("TRACE ") + addLine, std::string("cmd ") + addLine,
                          std::string("TRACE ") + linkLine, std::string("cmd ") + linkLine,
                          std::string("TRACE ") + addressLine, std::string("cmd ") + addressLine,
                          "ERROR GRE tunnel: [a] error executing address add command [1]"));
}

TEST_F(GreCreation, FailsWithTheHookAndLeavesTheTunnelUp) {
  fake::script(hookLine, 1);
  EXPECT_FALSE(createGreTunnel(linkOnly()));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(creating, std::string("TRACE ") + addLine, std::string("cmd ") + addLine,
                          std::string("TRACE ") + linkLine, std::string("cmd ") + linkLine,
                          std::string("execute ") + hookLine,
                          "ERROR GRE tunnel: [a] error executing link-changed hook up [1]"));
}

TEST_F(GreCreation, TellsAHookThatCannotBeStarted) {
  fake::script(hookLine, 127);
  EXPECT_FALSE(createGreTunnel(linkOnly()));
  EXPECT_EQ(fake::takeTrace().back(),
            "ERROR GRE tunnel: [a] error executing link-changed hook up [127]");
}

// --- routes

/// What a creation without an inner address does between the link and the hook.
std::vector<std::string> routeSteps() {
  const std::vector<std::string> trace = fake::takeTrace();
  constexpr std::ptrdiff_t stepsBefore = 5;
  EXPECT_GT(trace.size(), static_cast<std::size_t>(stepsBefore));
  EXPECT_EQ(trace.back(), std::string("execute ") + hookLine);
  return {trace.begin() + stepsBefore, trace.end() - 1};
}

TEST_F(GreCreation, GoesOnWithTheNextRouteWhenOneFails) {
  fake::script("ip route add 10.1.0.0/16 dev a", 2);
  EXPECT_TRUE(createGreTunnel(
      withRoutes(R"([{"ip": "10.1.0.0", "mask": "16"}, {"ip": "10.2.0.0", "mask": "16"}])")));
  EXPECT_THAT(
      routeSteps(),
      ElementsAre("INFO Adding route: a => 10.1.0.0/16", "TRACE ip route add 10.1.0.0/16 dev a",
                  "cmd ip route add 10.1.0.0/16 dev a",
                  "ERROR GRE tunnel: [a] error executing route add command [2]",
                  "INFO Adding route: a => 10.2.0.0/16", "TRACE ip route add 10.2.0.0/16 dev a",
                  "cmd ip route add 10.2.0.0/16 dev a"));
}

TEST_F(GreCreation, SkipsTheRouteWithoutAMask) {
  EXPECT_TRUE(createGreTunnel(withRoutes(R"([{"ip": "10.1.0.0"}])")));
  EXPECT_THAT(routeSteps(), IsEmpty());
}

TEST_F(GreCreation, SkipsTheRouteWithoutAnAddress) {
  EXPECT_TRUE(createGreTunnel(withRoutes(R"([{"mask": 8}, {}, null])")));
  EXPECT_THAT(routeSteps(), IsEmpty());
}

TEST_F(GreCreation, SkipsOnlyTheIncompleteRoute) {
  EXPECT_TRUE(
      createGreTunnel(withRoutes(R"([{"ip": "10.1.0.0"}, {"ip": "10.2.0.0", "mask": 16}])")));
  EXPECT_THAT(routeSteps(), ElementsAre("INFO Adding route: a => 10.2.0.0/16",
                                        "TRACE ip route add 10.2.0.0/16 dev a",
                                        "cmd ip route add 10.2.0.0/16 dev a"));
}

TEST_F(GreCreation, TriesTheRouteWhoseMaskIsNoNumber) {
  fake::script("ip route add 10.1.0.0/ dev a", 1);
  EXPECT_TRUE(createGreTunnel(withRoutes(R"([{"ip": "10.1.0.0", "mask": true}])")));
  EXPECT_THAT(
      routeSteps(),
      ElementsAre("WARNING Unable to parse number *true\n*", "INFO Adding route: a => 10.1.0.0/",
                  "TRACE ip route add 10.1.0.0/ dev a", "cmd ip route add 10.1.0.0/ dev a",
                  "ERROR GRE tunnel: [a] error executing route add command [1]"));
}

TEST_F(GreCreation, TriesTheRouteWhoseMaskIsNull) {
  EXPECT_TRUE(createGreTunnel(withRoutes(R"([{"ip": "10.1.0.0", "mask": null}])")));
  EXPECT_THAT(
      routeSteps(),
      ElementsAre("WARNING Unable to parse number *null\n*", "INFO Adding route: a => 10.1.0.0/",
                  "TRACE ip route add 10.1.0.0/ dev a", "cmd ip route add 10.1.0.0/ dev a"));
}

TEST_F(GreCreation, TakesEmptyRouteTextsAsTheyAre) {
  EXPECT_TRUE(createGreTunnel(withRoutes(R"([{"ip": "", "mask": ""}])")));
  EXPECT_THAT(routeSteps(), ElementsAre("INFO Adding route: a => /", "TRACE ip route add / dev a",
                                        "cmd ip route add / dev a"));
}

TEST_F(GreCreation, TakesRoutesOfAnotherTypeAsNone) {
  for (const char* routes : {"null", "[]", "{}", "\"10.1.0.0/16\"", "7", "false"}) {
    EXPECT_TRUE(createGreTunnel(withRoutes(routes))) << routes;
    EXPECT_THAT(routeSteps(), IsEmpty()) << routes;
  }
}

// --- the inner address needs both halves

TEST_F(GreCreation, SkipsTheAddressUnlessItIsComplete) {
  for (const char* text :
       {R"({"tunnelIp": "172.16.0.1", "tunnelMask": ""})", R"({"tunnelIp": "172.16.0.1"})",
        R"({"tunnelIp": "", "tunnelMask": "30"})", R"({"tunnelMask": "30"})",
        R"({"tunnelIp": null, "tunnelMask": null})"}) {
    Json::Value entry = json(text);
    entry["name"] = "a";
    entry["routes"] = json(R"([{"ip": "10.1.0.0", "mask": "16"}])");
    EXPECT_TRUE(createGreTunnel(entry)) << text;
    EXPECT_THAT(routeSteps(), ElementsAre("INFO Adding route: a => 10.1.0.0/16",
                                          "TRACE ip route add 10.1.0.0/16 dev a",
                                          "cmd ip route add 10.1.0.0/16 dev a"))
        << text;
  }
}

TEST_F(GreCreation, TakesTheMaskAsText) {
  Json::Value entry = linkOnly();
  entry["tunnelIp"] = "172.16.0.1";
  for (const auto& [mask, command] : std::vector<std::pair<Json::Value, std::string>>{
           {Json::Value("255.255.255.252"), "cmd ip addr add 172.16.0.1/255.255.255.252 dev a"},
           {Json::Value(30), "cmd ip addr add 172.16.0.1/30 dev a"},
           {Json::Value("none"), "cmd ip addr add 172.16.0.1/none dev a"}}) {
    entry["tunnelMask"] = mask;
    EXPECT_TRUE(createGreTunnel(entry));
    EXPECT_EQ(fake::takeTrace()[6], command);
  }
}

// --- values

TEST_F(GreCreation, PutsTheTimeToLiveAtTheEndOfTheAddCommand) {
  const std::string start = "cmd ip tunnel add a mode gre remote 192.0.2.7 local 10.0.0.2 ttl ";
  for (const auto& [value, text] :
       std::vector<std::pair<Json::Value, std::string>>{{Json::Value(64), "64"},
                                                        {Json::Value("64"), "64"},
                                                        {Json::Value("inherit"), "inherit"},
                                                        {Json::Value(""), ""},
                                                        {Json::Value(), "0"},
                                                        {Json::Value(-1), "-1"},
                                                        {Json::Value(64.9), "64"},
                                                        {Json::Value(true), "1"}}) {
    Json::Value entry = linkOnly();
    entry["ttl"] = value;
    EXPECT_TRUE(createGreTunnel(entry));
    const std::vector<std::string> trace = fake::takeTrace();
    EXPECT_EQ(trace[0],
              "INFO Creating GRE tunnel: [a] local[10.0.0.2] remote[192.0.2.7] ttl[" + text + "]");
    EXPECT_EQ(trace[2], start + text);
  }
}

TEST_F(GreCreation, PutsZeroForAMissingTimeToLive) {
  Json::Value entry = linkOnly();
  entry.removeMember("ttl");
  EXPECT_TRUE(createGreTunnel(entry));
  EXPECT_EQ(fake::takeTrace()[2],
            "cmd ip tunnel add a mode gre remote 192.0.2.7 local 10.0.0.2 ttl 0");
}

TEST_F(GreCreation, LeavesMissingAddressesToTheCommand) {
  currentWanIp.clear();
  fake::script("ip tunnel add a mode gre remote  local  ttl 0", 1);
  EXPECT_FALSE(createGreTunnel(json(R"({"name": "a"})")));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("INFO Creating GRE tunnel: [a] local[] remote[] ttl[0]",
                          "TRACE ip tunnel add a mode gre remote  local  ttl 0",
                          "cmd ip tunnel add a mode gre remote  local  ttl 0",
                          "ERROR GRE tunnel: [a] error executing tunnel add command [1]"));
}

TEST_F(GreCreation, LeavesAnEmptyNameToTheCommand) {
  fake::script("ip tunnel add  mode gre remote  local 10.0.0.2 ttl 0", 1);
  EXPECT_FALSE(createGreTunnel(json("{}")));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("INFO Creating GRE tunnel: [] local[10.0.0.2] remote[] ttl[0]",
                          "TRACE ip tunnel add  mode gre remote  local 10.0.0.2 ttl 0",
                          "cmd ip tunnel add  mode gre remote  local 10.0.0.2 ttl 0",
                          "ERROR GRE tunnel: [] error executing tunnel add command [1]"));
}

TEST_F(GreCreation, IgnoresOtherKeys) {
  Json::Value entry = linkOnly();
  entry["local"] = "198.51.100.1";
  entry["localIp"] = Json::Value(Json::arrayValue);
  entry["enabled"] = false;
  EXPECT_TRUE(createGreTunnel(entry));
  EXPECT_EQ(fake::takeTrace()[2], std::string("cmd ") + addLine);
}

TEST_F(GreCreation, TakesPercentSignsAsText) {
  Json::Value entry = linkOnly();
  entry["name"] = "%s%n";
  EXPECT_TRUE(createGreTunnel(entry));
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("INFO Creating GRE tunnel: [%s%n] local[10.0.0.2] remote[192.0.2.7] ttl[64]",
                  "TRACE ip tunnel add %s%n mode gre remote 192.0.2.7 local 10.0.0.2 ttl 64",
                  "cmd ip tunnel add %s%n mode gre remote 192.0.2.7 local 10.0.0.2 ttl 64",
                  "TRACE ip link set %s%n up", "cmd ip link set %s%n up",
                  "execute /etc/quorvex/hooks/gre-tunnel-link-changed -n %s%n -d up"));
}

TEST_F(GreCreation, HandsTheHookItsArgumentsWithoutAShell) {
  Json::Value entry = linkOnly();
  entry["name"] = "$(reboot);'\"";
  EXPECT_TRUE(createGreTunnel(entry));
  EXPECT_EQ(fake::takeTrace().back(),
            "execute /etc/quorvex/hooks/gre-tunnel-link-changed -n $(reboot);'\" -d up");
}

// --- values that do not convert

TEST_F(GreCreation, ThrowsBeforeAnyStepWhenAValueDoesNotConvert) {
  for (const char* key : {"name", "remoteIp", "tunnelIp", "tunnelMask", "ttl"}) {
    for (const Json::ValueType type : {Json::arrayValue, Json::objectValue}) {
      Json::Value entry = withAddress();
      entry[key] = Json::Value(type);
      EXPECT_THROW(createGreTunnel(entry), Json::Exception) << key;
      EXPECT_THAT(fake::takeTrace(), IsEmpty()) << key;
    }
  }
}

TEST_F(GreCreation, ThrowsOnATimeToLiveOutOfRange) {
  Json::Value entry = linkOnly();
  entry["ttl"] = 5000000000.0;
  EXPECT_THROW(createGreTunnel(entry), Json::Exception);
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(GreCreation, ThrowsOnAnEntryThatIsNoObject) {
  for (const char* entry : {"[]", "\"a\"", "7", "true"}) {
    EXPECT_THROW(createGreTunnel(json(entry)), Json::Exception) << entry;
    EXPECT_THAT(fake::takeTrace(), IsEmpty()) << entry;
  }
}

TEST_F(GreCreation, ThrowsOnARouteThatIsNoObject) {
  for (const char* routes : {R"(["10.1.0.0/16"])", "[7]", "[[]]"}) {
    EXPECT_THROW(createGreTunnel(withRoutes(routes)), Json::Exception) << routes;
    EXPECT_EQ(fake::takeTrace().back(), std::string("cmd ") + linkLine) << routes;
  }
}

TEST_F(GreCreation, ThrowsOnARouteWhoseAddressDoesNotConvert) {
  EXPECT_THROW(createGreTunnel(withRoutes(R"([{"ip": [], "mask": 8}])")), Json::Exception);
  EXPECT_EQ(fake::takeTrace().back(), std::string("cmd ") + linkLine);
}

}  // namespace
}  // namespace tunnel_mngr
