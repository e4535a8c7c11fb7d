#include "ovpn/conf.hpp"

#include "fake/fake_platform.hpp"
#include "ovpn/run_directory.hpp"
#include "ovpn/scripted_api.hpp"
#include "ovpn/scripted_calls.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <cerrno>
#include <vector>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> with(std::vector<std::string> first,
                              const std::vector<std::string>& more) {
  first.insert(first.end(), more.begin(), more.end());
  return first;
}

/// The two requests that begin every trace, and what follows.
std::vector<std::string> afterRequests(const std::vector<std::string>& more) {
  return with(
      {"api http://localhost/api?fields=ovpnTunnels", "api http://localhost/api?fields=syslog"},
      more);
}

std::vector<std::string> writes(const std::string& name, std::size_t size) {
  return {"open /var/run/openvpn_" + name + ".conf 0600", "chmod 0600",
          "write " + std::to_string(size), "close"};
}

/// A list with one enabled tunnel.
std::string listOf(const std::string& name, const std::string& config) {
  Json::Value tunnel;
  tunnel["enabled"] = true;
  tunnel["name"] = name;
  tunnel["config"] = config;
  return "[" + tunnel.toStyledString() + "]";
}

std::vector<std::string> names() {
  std::vector<std::string> found;
  for (const OvpnConfEntry& entry : Conf::tunnels()) {
    found.push_back(entry.name);
  }
  return found;
}

class ConfTest : public testing::Test {
 protected:
  /// Runs init() with this one tunnel and returns what it made of it.
  OvpnConfEntry accept(const std::string& name, const std::string& config, int logLevel = 0) {
    scripted_api::answerTunnels(listOf(name, config), logLevel);
    EXPECT_TRUE(Conf::init());
    EXPECT_EQ(Conf::tunnels().size(), 1U);
    return Conf::tunnels().empty() ? OvpnConfEntry() : Conf::tunnels().front();
  }

  /// The text that is written for a tunnel.
  std::string written(const std::string& name, const std::string& config, int logLevel = 0) {
    return run.read(accept(name, config, logLevel).confFile);
  }

  /// Fills the list, so that a test can see it emptied.
  void acceptBefore() {
    accept("before", "");
    fake::takeTrace();
    scripted_api::reset();
  }

  RunDirectory run;
};

TEST_F(ConfTest, WritesAndListsAnEnabledTunnel) {
  const std::string config =
      "client-config-dir /etc/ccd  # per client\ndev tun\nifconfig 10.8.0.1 10.8.0.2\n";
  const OvpnConfEntry entry = accept("office", config, 10);
  const std::string text =
      "client-config-dir /etc/ccd  # per client\ndev tunoffice\n"
      "ifconfig 10.8.0.1 10.8.0.2\nverb 3\n";

  EXPECT_EQ(fake::takeTrace(), afterRequests(writes("office", text.size())));
  EXPECT_EQ(run.read("/var/run/openvpn_office.conf"), text);
  EXPECT_EQ(run.mode("/var/run/openvpn_office.conf"), 0600U);
  EXPECT_EQ(entry.name, "office");
  EXPECT_EQ(entry.confFile, "/var/run/openvpn_office.conf");
  EXPECT_EQ(entry.statusFile, "/var/run/openvpn_office.status");
  EXPECT_EQ(entry.connectFile, "/var/run/connect_office.status");
  EXPECT_EQ(entry.clientConfigDir, "/etc/ccd");
  EXPECT_EQ(entry.pingAddress, "10.8.0.2");
  EXPECT_TRUE(entry.pingCheck);
}

TEST_F(ConfTest, FailsWithoutARecordWhenTheTunnelsCannotBeRead) {
  acceptBefore();
  scripted_api::answer(scripted_api::syslogUrl, "{}");
  EXPECT_FALSE(Conf::init());
  EXPECT_THAT(fake::takeTrace(), ElementsAre("api http://localhost/api?fields=ovpnTunnels"));
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(ConfTest, FailsWithoutARecordWhenTheLogLevelCannotBeRead) {
  acceptBefore();
  scripted_api::answer(scripted_api::tunnelsUrl, R"({"ovpnTunnels":)" + listOf("a", "") + "}");
  EXPECT_FALSE(Conf::init());
  EXPECT_EQ(fake::takeTrace(), afterRequests({}));
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(ConfTest, AcceptsAListWithoutAnEnabledTunnel) {
  acceptBefore();
  for (const char* list : {"[]", R"([{"enabled":false,"name":"a"},{"name":"b"},{}])", "null"}) {
    scripted_api::answerTunnels(list);
    EXPECT_TRUE(Conf::init()) << list;
    EXPECT_EQ(fake::takeTrace(), afterRequests({})) << list;
    EXPECT_THAT(names(), IsEmpty()) << list;
  }
}

TEST_F(ConfTest, AcceptsAnswersWithoutTheirKeys) {
  scripted_api::answer(scripted_api::tunnelsUrl, "{}");
  scripted_api::answer(scripted_api::syslogUrl, "{}");
  EXPECT_TRUE(Conf::init());
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(ConfTest, KeepsTheOrderOfTheApi) {
  scripted_api::answerTunnels(
      R"([{"enabled":true,"name":"z"},{"enabled":true,"name":"a"},{"enabled":1,"name":"m"}])");
  EXPECT_TRUE(Conf::init());
  EXPECT_THAT(names(), ElementsAre("z", "a", "m"));
}

TEST_F(ConfTest, StartsFromNothingEachTime) {
  acceptBefore();
  accept("next", "");
  EXPECT_THAT(names(), ElementsAre("next"));
}

TEST_F(ConfTest, LeavesTheFilesOfTunnelsThatAreGone) {
  acceptBefore();
  scripted_api::answerTunnels(R"([{"enabled":false,"name":"before"}])");
  EXPECT_TRUE(Conf::init());
  EXPECT_EQ(run.read("/var/run/openvpn_before.conf"), "verb 2\n");
}

TEST_F(ConfTest, LogsTheSecondTunnelOfANameAndKeepsTheFirst) {
  scripted_api::answerTunnels(
      R"([{"enabled":true,"name":"a","config":"dev tun"},{"enabled":true,"name":"a"},
          {"enabled":true,"name":"A"}])");
  EXPECT_TRUE(Conf::init());
  EXPECT_EQ(fake::takeTrace(),
            afterRequests(with(
                with(writes("a", 16), {"ERROR [TUNNEL_MNGR][OVPN] duplicated openvpn name: a"}),
                writes("A", 7))));
  EXPECT_EQ(run.read("/var/run/openvpn_a.conf"), "dev tuna\nverb 2\n");
  EXPECT_THAT(names(), ElementsAre("a", "A"));
}

TEST_F(ConfTest, NeverTakesADisabledTunnelForADuplicate) {
  scripted_api::answerTunnels(
      R"([{"enabled":false,"name":"a"},{"enabled":true,"name":"a"},{"enabled":false,"name":"a"}])");
  EXPECT_TRUE(Conf::init());
  EXPECT_EQ(fake::takeTrace(), afterRequests(writes("a", 7)));
  EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(ConfTest, TriesTheNextTunnelOfANameWhoseFirstCouldNotBeWritten) {
  scripted_api::answerTunnels(
      R"([{"enabled":true,"name":"a","config":"first"},{"enabled":true,"name":"a"}])");
  calls::answer("open", -1, EACCES);
  EXPECT_TRUE(Conf::init());
  EXPECT_EQ(run.read("/var/run/openvpn_a.conf"), "verb 2\n");
  EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(ConfTest, LeavesOutATunnelWhoseFileCannotBeCreated) {
  scripted_api::answerTunnels(R"([{"enabled":true,"name":"a"},{"enabled":true,"name":"b"}])");
  calls::answer("open", -1, EROFS);
  EXPECT_TRUE(Conf::init());
  EXPECT_EQ(fake::takeTrace(),
            afterRequests(with({"open /var/run/openvpn_a.conf 0600",
                                "ERROR [TUNNEL_MNGR][OVPN] faild create file for tunnel a conf: "
                                "/var/run/openvpn_a.conf"},
                               writes("b", 7))));
  EXPECT_THAT(names(), ElementsAre("b"));
}

TEST_F(ConfTest, LeavesOutATunnelWhoseNameIsNoFileName) {
  scripted_api::answerTunnels(listOf("no/such/directory", ""));
  EXPECT_TRUE(Conf::init());
  EXPECT_EQ(fake::takeTrace(),
            afterRequests({"open /var/run/openvpn_no/such/directory.conf 0600",
                           "ERROR [TUNNEL_MNGR][OVPN] faild create file for tunnel "
                           "no/such/directory conf: /var/run/openvpn_no/such/directory.conf"}));
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(ConfTest, LeavesAPartlyWrittenFileAndItsTunnelOut) {
  scripted_api::answerTunnels(R"([{"enabled":true,"name":"a"},{"enabled":true,"name":"b"}])");
  calls::answer("write", 4);
  EXPECT_TRUE(Conf::init());
  EXPECT_EQ(fake::takeTrace(),
            afterRequests(with(
                with(writes("a", 7), {"ERROR [TUNNEL_MNGR][OVPN] faild write file for tunnel a "
                                      "conf: /var/run/openvpn_a.conf"}),
                writes("b", 7))));
  EXPECT_EQ(run.read("/var/run/openvpn_a.conf"), "verb");
  EXPECT_THAT(names(), ElementsAre("b"));
}

TEST_F(ConfTest, TreatsAFailedWriteLikeAShortOne) {
  scripted_api::answerTunnels(listOf("a", ""));
  calls::answer("write", -1, ENOSPC);
  EXPECT_TRUE(Conf::init());
  EXPECT_EQ(fake::takeTrace(),
            afterRequests(with(writes("a", 7),
                               {"ERROR [TUNNEL_MNGR][OVPN] faild write file for tunnel a conf: "
                                "/var/run/openvpn_a.conf"})));
  EXPECT_TRUE(run.exists("/var/run/openvpn_a.conf"));
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(ConfTest, NarrowsAFileThatOthersCouldRead) {
  run.create("/var/run/openvpn_a.conf", "an older and longer text\n", 0666);
  EXPECT_EQ(written("a", ""), "verb 2\n");
  EXPECT_EQ(run.mode("/var/run/openvpn_a.conf"), 0600U);
}

TEST_F(ConfTest, KeepsTheTunnelsBeforeAnException) {
  scripted_api::answerTunnels(
      R"([{"enabled":true,"name":"a"},{"enabled":true,"name":{}},{"enabled":true,"name":"c"}])");
  EXPECT_FALSE(Conf::init());
  EXPECT_EQ(fake::takeTrace(),
            afterRequests(
                with(writes("a", 7), {"ERROR [TUNNEL_MNGR][OVPN] Conf::init catch exception"})));
  EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(ConfTest, CatchesEveryValueOfTheWrongType) {
  const std::vector<std::pair<std::string, std::string>> answers = {
      {R"([1])", R"({"syslog":{}})"},
      {R"({"ovpnTunnels":[7]})", R"({"syslog":{}})"},
      {R"({"ovpnTunnels":[{"enabled":"yes"}]})", R"({"syslog":{}})"},
      {R"({"ovpnTunnels":[{"enabled":true,"config":[]}]})", R"({"syslog":{}})"},
      {R"({"ovpnTunnels":[{"enabled":true}]})", R"({"syslog":[0]})"},
      {R"({"ovpnTunnels":[{"enabled":true}]})", R"({"syslog":{"logLevel":-1}})"},
      {R"({"ovpnTunnels":[{"enabled":true}]})", R"({"syslog":{"logLevel":"10"}})"},
      {R"({"ovpnTunnels":[]})", R"([1])"},
  };
  for (const auto& [tunnels, syslog] : answers) {
    scripted_api::answer(scripted_api::tunnelsUrl, tunnels);
    scripted_api::answer(scripted_api::syslogUrl, syslog);
    EXPECT_FALSE(Conf::init()) << tunnels << syslog;
    EXPECT_EQ(fake::takeTrace(),
              afterRequests({"ERROR [TUNNEL_MNGR][OVPN] Conf::init catch exception"}))
        << tunnels << syslog;
    EXPECT_THAT(names(), IsEmpty());
  }
}

TEST_F(ConfTest, LooksAtTheLogLevelOnlyForATunnelThatNeedsIt) {
  scripted_api::answerTunnels(R"([{"enabled":false,"name":"a"}])", -1);
  EXPECT_TRUE(Conf::init());
}

TEST_F(ConfTest, PrintsNothingWhenErrorsAreNotPrintable) {
  fake::setPrintLevel(0);
  scripted_api::answerTunnels(
      R"([{"enabled":true,"name":"a"},{"enabled":true,"name":"a"},{"enabled":true,"name":"b"},7])");
  calls::answer("open", calls::real);
  calls::answer("open", -1, EACCES);
  EXPECT_FALSE(Conf::init());
  EXPECT_EQ(fake::takeTrace(),
            afterRequests(with(writes("a", 7), {"open /var/run/openvpn_b.conf 0600"})));
}

TEST_F(ConfTest, AcceptsAThousandTunnels) {
  Json::Value list(Json::arrayValue);
  for (int number = 0; number < 1000; ++number) {
    Json::Value tunnel;
    tunnel["enabled"] = true;
    tunnel["name"] = std::to_string(number);
    list.append(tunnel);
  }
  scripted_api::answerTunnels(list.toStyledString());
  EXPECT_TRUE(Conf::init());
  ASSERT_EQ(Conf::tunnels().size(), 1000U);
  EXPECT_EQ(Conf::tunnels().back().name, "999");
}

TEST_F(ConfTest, WritesOnlyTheVerbosityForAnEmptyText) {
  EXPECT_EQ(written("a", ""), "verb 2\n");
}

TEST_F(ConfTest, AppendsAMissingVerbosityAsTheLastLine) {
  EXPECT_EQ(written("a", "client\nnobind"), "client\nnobind\nverb 2\n");
}

TEST_F(ConfTest, RewritesEveryVerbosity) {
  EXPECT_EQ(written("a", "verb 9\nclient\n  verb 1\n", 50), "verb 7\nclient\n  verb 7\n");
}

TEST_F(ConfTest, AddsNoDeviceToATextWithoutOne) {
  EXPECT_EQ(written("a", "#dev tun\n"), "#dev tun\nverb 2\n");
}

TEST_F(ConfTest, NamesTheDeviceAfterTheTunnelInFifteenBytes) {
  EXPECT_EQ(written("office", "dev tun"), "dev tunoffice\nverb 2\n");
  EXPECT_EQ(written("123456789012", "dev tun"), "dev tun123456789012\nverb 2\n");
  EXPECT_EQ(written("1234567890123", "dev tun"), "dev tun123456789012\nverb 2\n");
  EXPECT_EQ(written("12345678901234567890", "dev tun"), "dev tun123456789012\nverb 2\n");
}

TEST_F(ConfTest, KeepsTheIndentationOfTheDevice) {
  EXPECT_EQ(written("a", " \tdev  tap # mine\n"), " \tdev tapa\nverb 2\n");
}

TEST_F(ConfTest, GivesEveryDeviceLineTheNameFromTheFirst) {
  EXPECT_EQ(written("a", "dev tun\ndev tap\n"), "dev tuna\ndev tuna\nverb 2\n");
}

TEST_F(ConfTest, ChoosesTheVerbosityByTheLogLevel) {
  const std::vector<std::pair<int, std::string>> table = {{0, "2"},  {29, "4"}, {30, "6"},
                                                          {49, "6"}, {50, "7"}, {100, "7"}};
  for (const auto& [level, verbosity] : table) {
    EXPECT_EQ(written("a", "", level), "verb " + verbosity + "\n") << level;
  }
}

TEST_F(ConfTest, ReadsAMissingLogLevelAsZero) {
  for (const char* syslog : {"{}", R"({"syslog":{}})", R"({"syslog":null})", "null"}) {
    scripted_api::answerTunnels(listOf("a", ""));
    scripted_api::answer(scripted_api::syslogUrl, syslog);
    EXPECT_TRUE(Conf::init()) << syslog;
    EXPECT_EQ(run.read("/var/run/openvpn_a.conf"), "verb 2\n") << syslog;
  }
}

struct PingCase {
  const char* special;
  const char* config;
  bool pingCheck;
  const char* pingAddress;
};

void PrintTo(const PingCase& row, std::ostream* out) {
  *out << row.special;
}

class ConfPing : public testing::TestWithParam<PingCase> {
 protected:
  RunDirectory run;
};

TEST_P(ConfPing, FollowsFromTheText) {
  scripted_api::answerTunnels(listOf("a", GetParam().config));
  ASSERT_TRUE(Conf::init());
  EXPECT_EQ(Conf::tunnels().front().pingCheck, GetParam().pingCheck);
  EXPECT_EQ(Conf::tunnels().front().pingAddress, GetParam().pingAddress);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ConfPing,
    testing::Values(
        PingCase{"nothing", "", true, ""},
        PingCase{"both ends", "ifconfig 10.8.0.1 10.8.0.2\n", true, "10.8.0.2"},
        PingCase{"one address", "ifconfig 10.8.0.1\n", true, "10.8.0.1"},
        PingCase{"no address", "ifconfig\n", true, ""},
        PingCase{"more words", " ifconfig\t10.8.0.1  10.8.0.2 extra\r\n", true, "10.8.0.2"},
        PingCase{"second word is a comment", "ifconfig 10.8.0.1 #10.8.0.2\n", true, "10.8.0.1"},
        PingCase{"inline authority", "<ca>\nx\n</ca>\n", false, ""},
        PingCase{"inline authority after the addresses",
                 "ifconfig 10.8.0.1 10.8.0.2\n<ca>\nx\n</ca>\n", false, ""},
        PingCase{"authority in a file", "ca /etc/ca.pem\nifconfig a b\n", true, "b"},
        PingCase{"inline authority commented out", "#<ca>\nifconfig a b\n", true, "b"}));

}  // namespace
}  // namespace tunnel_mngr
