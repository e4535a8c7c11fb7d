#include "gre/gre_teardown.hpp"

#include "fake/fake_platform.hpp"
#include "support/json_text.hpp"
#include "support/recorded_test.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tunnel_mngr {
namespace {

using support::json;
using testing::ElementsAre;
using testing::IsEmpty;

Json::Value tunnel(const std::string& name, const std::string& remote, const std::string& local,
                   const std::string& ttl) {
  Json::Value value(Json::objectValue);
  value["name"] = name;
  value["remoteIp"] = remote;
  value["localIp"] = local;
  value["ttl"] = ttl;
  return value;
}

Json::Value list(const std::vector<Json::Value>& tunnels) {
  Json::Value value(Json::arrayValue);
  for (const Json::Value& one : tunnels) {
    value.append(one);
  }
  return value;
}

// --- discovery

class GreDiscovery : public support::RecordedTest {
 protected:
  bool discover(const std::string& output) {
    fake::script("ip tunnel", 0, output);
    return discoverGreTunnels(tunnels, names);
  }

  Json::Value tunnels{Json::arrayValue};
  std::vector<std::string> names;
};

TEST_F(GreDiscovery, ListsTheTunnelsInTheOrderOfTheKernel) {
  EXPECT_TRUE(
      discover("gre0: gre/ip remote any local any ttl inherit nopmtudisc\n"
               "gre5: gre/ip remote 1.2.3.4 local 5.6.7.8 ttl 64\n"
               "tunl0: any/ip remote any local any ttl inherit nopmtudisc\n"
               "ipip1: ip/ip remote 10.0.0.1 local 10.0.0.2 ttl 64\n"
               "b: gre/ip remote 9.9.9.9 local 5.6.7.8 dev eth0 ttl inherit\n"));
  EXPECT_THAT(names, ElementsAre("gre5", "b"));
  EXPECT_EQ(tunnels, list({tunnel("gre5", "1.2.3.4", "5.6.7.8", "64"),
                           tunnel("b", "9.9.9.9", "5.6.7.8", "eth0")}));
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("TRACE ip tunnel", "cmd ip tunnel", "TRACE Parsing current GRE tunnels",
                  "TRACE Line: [gre0: gre/ip remote any local any ttl inherit nopmtudisc]",
                  "TRACE Line: [gre5: gre/ip remote 1.2.3.4 local 5.6.7.8 ttl 64]",
                  "TRACE Line: [tunl0: any/ip remote any local any ttl inherit nopmtudisc]",
                  "TRACE Line: [ipip1: ip/ip remote 10.0.0.1 local 10.0.0.2 ttl 64]",
                  "TRACE Line: [b: gre/ip remote 9.9.9.9 local 5.6.7.8 dev eth0 ttl inherit]"));
}

TEST_F(GreDiscovery, FindsNothingInAnEmptyOutput) {
  EXPECT_TRUE(discover(""));
  EXPECT_THAT(names, IsEmpty());
  EXPECT_EQ(tunnels, list({}));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("TRACE ip tunnel", "cmd ip tunnel", "TRACE Parsing current GRE tunnels"));
}

TEST_F(GreDiscovery, LeavesBothListsAloneWhenTheCommandFails) {
  fake::script("ip tunnel", 127, "gre5: gre/ip remote 1.2.3.4 local 5.6.7.8 ttl 64\n");
  tunnels.append("kept");
  names = {"kept"};
  EXPECT_FALSE(discoverGreTunnels(tunnels, names));
  EXPECT_EQ(tunnels, list({Json::Value("kept")}));
  EXPECT_THAT(names, ElementsAre("kept"));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("TRACE ip tunnel", "cmd ip tunnel",
                                             "ERROR GRE error executing ip tunnel command [127]"));
}

TEST_F(GreDiscovery, ReplacesTheTunnelsAndAppendsTheNames) {
  tunnels.append("old");
  names = {"first"};
  EXPECT_TRUE(discover("gre5: gre/ip remote 1.2.3.4 local 5.6.7.8 ttl 64"));
  EXPECT_EQ(tunnels, list({tunnel("gre5", "1.2.3.4", "5.6.7.8", "64")}));
  EXPECT_THAT(names, ElementsAre("first", "gre5"));
}

TEST_F(GreDiscovery, MakesAnArrayOfANullValue) {
  tunnels = Json::Value();
  EXPECT_TRUE(discover("gre5: gre/ip remote 1.2.3.4 local 5.6.7.8 ttl 64\n"));
  EXPECT_TRUE(tunnels.isArray());
  EXPECT_EQ(tunnels.size(), 1U);
}

TEST_F(GreDiscovery, SkipsLinesOfNineCharactersSilently) {
  EXPECT_TRUE(
      discover("a: gre/ip\n"
               "bc: gre/ip\n"
               "         \n"
               "\n"
               "x"));
  EXPECT_THAT(names, ElementsAre("bc"));
  EXPECT_EQ(tunnels, list({tunnel("bc", "", "", "")}));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("TRACE ip tunnel", "cmd ip tunnel", "TRACE Parsing current GRE tunnels",
                          "TRACE Line: [bc: gre/ip]"));
}

TEST_F(GreDiscovery, TakesALineFeedAloneAsTheEndOfALine) {
  EXPECT_TRUE(discover("a: gre/ip remote 1.2.3.4 local 5.6.7.8 ttl 64\r\n"));
  EXPECT_EQ(tunnels, list({tunnel("a", "1.2.3.4", "5.6.7.8", "64")}));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("TRACE ip tunnel", "cmd ip tunnel", "TRACE Parsing current GRE tunnels",
                          "TRACE Line: [a: gre/ip remote 1.2.3.4 local 5.6.7.8 ttl 64\r]"));
}

TEST_F(GreDiscovery, ReadsAThousandTunnels) {
  std::string output;
  std::vector<std::string> expected;
  for (int i = 0; i < 1000; ++i) {
    expected.push_back("t" + std::to_string(i));
    output += expected.back() + ": gre/ip remote 1.2.3.4 local 5.6.7.8 ttl 64\n";
  }
  EXPECT_TRUE(discover(output));
  EXPECT_EQ(names, expected);
  EXPECT_EQ(tunnels.size(), 1000U);
}

TEST_F(GreDiscovery, WritesNothingButFailuresAtTheErrorLevel) {
  fake::setPrintLevel(10);
  EXPECT_TRUE(discover("gre5: gre/ip remote 1.2.3.4 local 5.6.7.8 ttl 64\n"));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("cmd ip tunnel"));
}

// --- one line

struct LineCase {
  const char* title;
  const char* line;
  bool found;
  const char* expected;
};

const LineCase lineCases[] = {
    {"ATunnel", "gre5: gre/ip remote 1.2.3.4 local 5.6.7.8 ttl 64", true,
     R"({"name": "gre5", "remoteIp": "1.2.3.4", "localIp": "5.6.7.8", "ttl": "64"})"},
    {"DoubleBlanksAndTabs", "  gre5:   gre/ip \t remote  1.2.3.4  local 5.6.7.8\tttl 64 ", true,
     R"({"name": "gre5", "remoteIp": "1.2.3.4", "localIp": "5.6.7.8", "ttl": "64"})"},
    {"OtherWordsInTheirPlaces", "gre5: gre/ip from 1.2.3.4 to 5.6.7.8 hops 64 key 1", true,
     R"({"name": "gre5", "remoteIp": "1.2.3.4", "localIp": "5.6.7.8", "ttl": "64"})"},
    {"OnlyNameAndMode", "gre5: gre/ip", true,
     R"({"name": "gre5", "remoteIp": "", "localIp": "", "ttl": ""})"},
    {"NoLocal", "gre5: gre/ip remote 1.2.3.4 local", true,
     R"({"name": "gre5", "remoteIp": "1.2.3.4", "localIp": "", "ttl": ""})"},
    {"ColonsAtBothEnds", "::gre5:: gre/ip remote any local any ttl 1", true,
     R"({"name": "gre5", "remoteIp": "any", "localIp": "any", "ttl": "1"})"},
    {"ColonWithin", "a:b: gre/ip remote any local any ttl 1", true,
     R"({"name": "a:b", "remoteIp": "any", "localIp": "any", "ttl": "1"})"},
    {"NoColon", "gre5 gre/ip remote any local any ttl 1", true,
     R"({"name": "gre5", "remoteIp": "any", "localIp": "any", "ttl": "1"})"},
    {"NameOfColons", ":: gre/ip remote any local any ttl 1", true,
     R"({"name": "", "remoteIp": "any", "localIp": "any", "ttl": "1"})"},
    {"NameBeginsLikeAFallbackDevice", "gre01: gre/ip remote any local any ttl 1", true,
     R"({"name": "gre01", "remoteIp": "any", "localIp": "any", "ttl": "1"})"},
    {"KernelsGre0", "gre0: gre/ip remote any local any ttl inherit nopmtudisc", false, ""},
    {"KernelsTunl0", "tunl0: gre/ip remote any local any ttl inherit", false, ""},
    {"FallbackDeviceWithoutColon", "gre0 gre/ip remote any local any ttl 1", false, ""},
    {"ModeIpip", "ipip1: ip/ip remote 10.0.0.1 local 10.0.0.2 ttl 64", false, ""},
    {"ModeSit", "sit0: ipv6/ip remote any local any ttl 64", false, ""},
    {"ModeLonger", "gre5: gre/ipv6 remote any local any ttl 64", false, ""},
    {"ModeInCapitals", "gre5: GRE/IP remote any local any ttl 64", false, ""},
    {"ModeElsewhere", "gre5: remote gre/ip local any ttl 64", false, ""},
    {"NameOnly", "gre5:", false, ""},
    {"Empty", "", false, ""},
};

class GreTunnelLine : public testing::TestWithParam<LineCase> {};

TEST_P(GreTunnelLine, IsReadByItsWords) {
  Json::Value found;
  EXPECT_EQ(parseGreTunnelLine(GetParam().line, found), GetParam().found);
  if (GetParam().found) {
    EXPECT_EQ(found, json(GetParam().expected));
  }
}

INSTANTIATE_TEST_SUITE_P(Table, GreTunnelLine, testing::ValuesIn(lineCases),
                         [](const auto& row) { return std::string(row.param.title); });

// --- teardown

class GreTeardown : public support::RecordedTest {};

constexpr char hookLine[] = "/etc/quorvex/hooks/gre-tunnel-link-changed -n a -d down";
constexpr char unlinkFailed[] = "ERROR GRE tunnel: [a] error executing unlink command [1]";
constexpr char destroyFailed[] = "ERROR GRE tunnel: [a] error executing tunnel destroy command [2]";
constexpr char hookFailed[] = "ERROR GRE tunnel: [a] error executing link-changed hook down [3]";

TEST_F(GreTeardown, TakesTheLinkDownDeletesTheTunnelAndTellsTheHook) {
  EXPECT_TRUE(destroyGreTunnel("a"));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("INFO Destroying tunnel: a", "TRACE ip link set a down",
                          "cmd ip link set a down", "TRACE ip tunnel del a", "cmd ip tunnel del a",
                          "execute /etc/quorvex/hooks/gre-tunnel-link-changed -n a -d down"));
}

TEST_F(GreTeardown, GoesOnWhenTheLinkStaysUp) {
  fake::script("ip link set a down", 1);
  EXPECT_TRUE(destroyGreTunnel("a"));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("INFO Destroying tunnel: a", "TRACE ip link set a down",
                          "cmd ip link set a down", unlinkFailed, "TRACE ip tunnel del a",
                          "cmd ip tunnel del a", std::string("execute ") + hookLine));
}

TEST_F(GreTeardown, TellsTheHookWhenTheTunnelCannotBeDeleted) {
  fake::script("ip tunnel del a", 2);
  EXPECT_TRUE(destroyGreTunnel("a"));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("INFO Destroying tunnel: a", "TRACE ip link set a down",
                          "cmd ip link set a down", "TRACE ip tunnel del a", "cmd ip tunnel del a",
                          destroyFailed, std::string("execute ") + hookLine));
}

TEST_F(GreTeardown, FailsWithTheHook) {
  fake::script(hookLine, 3);
  EXPECT_FALSE(destroyGreTunnel("a"));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("INFO Destroying tunnel: a", "TRACE ip link set a down",
                          "cmd ip link set a down", "TRACE ip tunnel del a", "cmd ip tunnel del a",
                          std::string("execute ") + hookLine, hookFailed));
}

TEST_F(GreTeardown, TellsEachFailureOfItsOwn) {
  fake::script("ip link set a down", 1);
  fake::script("ip tunnel del a", 2);
  fake::script(hookLine, 3);
  EXPECT_FALSE(destroyGreTunnel("a"));
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("INFO Destroying tunnel: a", "TRACE ip link set a down", "cmd ip link set a down",
                  unlinkFailed, "TRACE ip tunnel del a", "cmd ip tunnel del a", destroyFailed,
                  std::string("execute ") + hookLine, hookFailed));
}

TEST_F(GreTeardown, TakesPercentSignsAsText) {
  EXPECT_TRUE(destroyGreTunnel("%s"));
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("INFO Destroying tunnel: %s", "TRACE ip link set %s down",
                  "cmd ip link set %s down", "TRACE ip tunnel del %s", "cmd ip tunnel del %s",
                  "execute /etc/quorvex/hooks/gre-tunnel-link-changed -n %s -d down"));
}

TEST_F(GreTeardown, WritesNothingButFailuresAtTheErrorLevel) {
  fake::setPrintLevel(10);
  fake::script("ip link set a down", 1);
  EXPECT_TRUE(destroyGreTunnel("a"));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("cmd ip link set a down", unlinkFailed, "cmd ip tunnel del a",
                          std::string("execute ") + hookLine));
}

}  // namespace
}  // namespace tunnel_mngr
