#include "api/tunnel_records.hpp"

#include "api/fake_curl.hpp"
#include "fake/fake_platform.hpp"
#include "monitor/fqdn_monitor.hpp"
#include "monitor/resolver.hpp"
#include "state/manager_state.hpp"
#include "support/json_text.hpp"
#include "support/recorded_test.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace {

/// What the names resolve to; others do not.
std::map<std::string, std::string> addresses;
bool traceResolver = true;

}  // namespace

namespace tunnel_mngr {

// In place of the resolver.
std::string resolveHost(const std::string& host) {
  if (traceResolver) {
    fake::record("resolve " + host);
  }
  const auto found = addresses.find(host);
  return found == addresses.end() ? "" : found->second;
}

namespace {

using support::json;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char pulling[] = "TRACE Pulling Current Configurations";
constexpr char request[] = "get http://localhost/api?fields=greTunnels,ipsecTunnels";

class TunnelRecords : public support::RecordedTest {
 protected:
  TunnelRecords() {
    fake::resetCurl();
    addresses = {
        {"a.example", "192.0.2.1"}, {"b.example", "192.0.2.2"}, {"192.0.2.7", "192.0.2.7"}};
    traceResolver = true;
  }
  ~TunnelRecords() override {
    fake::resetCurl();
    dropMonitors();
  }

  static void dropMonitors() {
    for (const FqdnMonitor* const monitor : fqdnMonitors) {
      delete monitor;
    }
    fqdnMonitors.clear();
  }

  static void scriptTunnels(const std::string& gre, const std::string& ipsec) {
    fake::resetCurl();
    fake::scriptReply(
        {R"({"code": 200, "result": {"greTunnels": )", gre, R"(, "ipsecTunnels": )", ipsec, "}}"});
  }

  bool pull(const std::string& gre, const std::string& ipsec) {
    scriptTunnels(gre, ipsec);
    return pullConfigurations(greTunnels, ipsecTunnels);
  }

  /// What one monitor watches, from its own records: host, addresses and tunnel name.
  static std::string watched(FqdnMonitor& monitor, const std::string& host) {
    traceResolver = false;
    fake::takeTrace();
    addresses[host] = "198.51.100.1";
    EXPECT_TRUE(monitor.checkAddress());
    traceResolver = true;
    return fake::takeTrace().at(0);
  }

  Json::Value greTunnels{Json::arrayValue};
  Json::Value ipsecTunnels{Json::arrayValue};
};

// --- the request

TEST_F(TunnelRecords, ReadsBothListsInOneRequest) {
  EXPECT_TRUE(pull(R"([{"name": "g", "remoteIp": "a.example", "enabled": true, "checkPeriod": 5}])",
                   R"([{"name": "i", "remoteWanIp": "b.example", "enabled": true,
                        "checkPeriod": 7}])"));
  EXPECT_EQ(greTunnels, json(R"([{"name": "g", "remoteIp": "192.0.2.1", "enabled": true,
                                  "checkPeriod": 5}])"));
  EXPECT_EQ(ipsecTunnels, json(R"([{"name": "i", "remoteWanIp": "192.0.2.2", "enabled": true,
                                    "checkPeriod": 7}])"));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(pulling, request, "resolve a.example",
                          "INFO GRE tunnel [a.example][192.0.2.1] period 5", "resolve b.example",
                          "INFO ipsec tunnel [b.example][192.0.2.2] period 7"));
}

TEST_F(TunnelRecords, LeavesEverythingAloneWhenTheApiFails) {
  greTunnels.append("kept");
  ipsecTunnels.append("kept too");
  fake::failTransfers(CURLE_COULDNT_CONNECT);
  EXPECT_FALSE(pullConfigurations(greTunnels, ipsecTunnels));
  EXPECT_EQ(greTunnels, json(R"(["kept"])"));
  EXPECT_EQ(ipsecTunnels, json(R"(["kept too"])"));
  EXPECT_THAT(fqdnMonitors, IsEmpty());
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(pulling, request, "ERROR curl_easy_perform() failed: no connection"));
}

TEST_F(TunnelRecords, LeavesEverythingAloneWhenTheApiAnswersAnError) {
  greTunnels.append("kept");
  fake::scriptReply(R"({"code": 503, "result": {"greTunnels": [{"name": "g", "enabled": true}]}})");
  EXPECT_FALSE(pullConfigurations(greTunnels, ipsecTunnels));
  EXPECT_EQ(greTunnels, json(R"(["kept"])"));
  EXPECT_THAT(fqdnMonitors, IsEmpty());
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(pulling, request, "ERROR api returned error code [503]"));
}

TEST_F(TunnelRecords, ReplacesWhatTheListsHeld) {
  greTunnels.append("old");
  ipsecTunnels.append("old");
  EXPECT_TRUE(pull("[]", "[]"));
  EXPECT_EQ(greTunnels, json("[]"));
  EXPECT_EQ(ipsecTunnels, json("[]"));
  EXPECT_THAT(fake::takeTrace(), ElementsAre(pulling, request));
}

TEST_F(TunnelRecords, TakesAMissingListAsEmpty) {
  fake::scriptReply(R"({"code": 200, "result": {"greTunnels": [
      {"name": "g", "remoteIp": "a.example", "enabled": true}]}})");
  EXPECT_TRUE(pullConfigurations(greTunnels, ipsecTunnels));
  EXPECT_TRUE(ipsecTunnels.isNull());
  EXPECT_EQ(ipsecTunnels.size(), 0U);
  EXPECT_EQ(fqdnMonitors.size(), 1U);
  EXPECT_THAT(fake::takeTrace(), ElementsAre(pulling, request, "resolve a.example",
                                             "INFO GRE tunnel [a.example][192.0.2.1] period 1"));
}

TEST_F(TunnelRecords, TakesAReplyWithoutResultAsTwoEmptyLists) {
  fake::scriptReply(R"({"code": 200})");
  EXPECT_TRUE(pullConfigurations(greTunnels, ipsecTunnels));
  EXPECT_TRUE(greTunnels.isNull());
  EXPECT_TRUE(ipsecTunnels.isNull());
  EXPECT_THAT(fqdnMonitors, IsEmpty());
}

// --- names and peers

struct NameCase {
  const char* title;
  const char* record;
  const char* name;
};

const NameCase nameCases[] = {
    {"ThreeWords", R"({"name": "my first tunnel"})", "my_first_tunnel"},
    {"OneWord", R"({"name": "tunnel"})", "tunnel"},
    {"BlanksAtTheEnds", R"({"name": " a  "})", "_a__"},
    {"OnlyABlank", R"({"name": " "})", "_"},
    {"OtherWhiteSpace", R"({"name": "a\tb"})", "a\tb"},
    {"Empty", R"({"name": ""})", ""},
    {"Missing", "{}", ""},
    {"Number", R"({"name": 7})", "7"},
};

class TunnelRecordsName : public TunnelRecords, public testing::WithParamInterface<NameCase> {};

TEST_P(TunnelRecordsName, ComesBackWithoutBlanks) {
  const std::string list = "[" + std::string(GetParam().record) + "]";
  EXPECT_TRUE(pull(list, list));
  EXPECT_EQ(greTunnels[0]["name"], Json::Value(GetParam().name));
  EXPECT_EQ(ipsecTunnels[0]["name"], Json::Value(GetParam().name));
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre(pulling, request, "resolve ",
                  "INFO GRE tunnel [" + std::string(GetParam().name) + "] disabled", "resolve ",
                  "INFO ipsec tunnel [" + std::string(GetParam().name) + "] disabled"));
}

INSTANTIATE_TEST_SUITE_P(Table, TunnelRecordsName, testing::ValuesIn(nameCases),
                         [](const auto& row) { return std::string(row.param.title); });

TEST_F(TunnelRecords, ResolvesThePeerOfADisabledTunnelButDoesNotWatchIt) {
  EXPECT_TRUE(pull(R"([{"name": "g", "remoteIp": "a.example", "enabled": false}])",
                   R"([{"name": "i", "remoteWanIp": "b.example"}])"));
  EXPECT_EQ(greTunnels[0]["remoteIp"], Json::Value("192.0.2.1"));
  EXPECT_EQ(ipsecTunnels[0]["remoteWanIp"], Json::Value("192.0.2.2"));
  EXPECT_THAT(fqdnMonitors, IsEmpty());
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(pulling, request, "resolve a.example", "INFO GRE tunnel [g] disabled",
                          "resolve b.example", "INFO ipsec tunnel [i] disabled"));
}

TEST_F(TunnelRecords, WatchesAPeerThatDoesNotResolve) {
  EXPECT_TRUE(pull(R"([{"name": "g", "remoteIp": "x.example", "enabled": true}])",
                   R"([{"name": "i", "remoteWanIp": "y.example", "enabled": true}])"));
  EXPECT_EQ(greTunnels[0]["remoteIp"], Json::Value(""));
  EXPECT_EQ(ipsecTunnels[0]["remoteWanIp"], Json::Value(""));
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre(pulling, request, "resolve x.example", "INFO GRE tunnel [x.example][] period 1",
                  "resolve y.example", "INFO ipsec tunnel [y.example][] period 1"));
  ASSERT_EQ(fqdnMonitors.size(), 2U);
  EXPECT_EQ(watched(*fqdnMonitors[0], "x.example"),
            "INFO [FQDN_MONITOR] tunnel:g The host [x.example] has resolved to a new ip address. "
            "[]=>[198.51.100.1]\n");
}

TEST_F(TunnelRecords, WatchesADottedAddressToo) {
  EXPECT_TRUE(pull(R"([{"name": "g", "remoteIp": "192.0.2.7", "enabled": true}])", "[]"));
  EXPECT_EQ(greTunnels[0]["remoteIp"], Json::Value("192.0.2.7"));
  EXPECT_EQ(fqdnMonitors.size(), 1U);
  EXPECT_EQ(fake::takeTrace().back(), "INFO GRE tunnel [192.0.2.7][192.0.2.7] period 1");
}

TEST_F(TunnelRecords, ResolvesAPeerCalledAnyLikeEveryOther) {
  EXPECT_TRUE(pull("[]", R"([{"name": "i", "remoteWanIp": "Any", "enabled": true}])"));
  EXPECT_EQ(ipsecTunnels[0]["remoteWanIp"], Json::Value(""));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(pulling, request, "resolve Any", "INFO ipsec tunnel [Any][] period 1"));
}

TEST_F(TunnelRecords, WritesTheAddressOfAMissingPeer) {
  EXPECT_TRUE(pull(R"([{"name": "g"}])", R"([{"name": "i", "remoteIp": "a.example"}])"));
  EXPECT_EQ(greTunnels[0]["remoteIp"], Json::Value(""));
  EXPECT_EQ(ipsecTunnels[0]["remoteWanIp"], Json::Value(""));
  EXPECT_EQ(ipsecTunnels[0]["remoteIp"], Json::Value("a.example"));
}

TEST_F(TunnelRecords, KeepsTheOtherKeysOfARecord) {
  EXPECT_TRUE(pull(R"([{"name": "g", "remoteIp": "a.example", "ttl": 64, "routes": [{}]}])", "[]"));
  EXPECT_EQ(greTunnels,
            json(R"([{"name": "g", "remoteIp": "192.0.2.1", "ttl": 64, "routes": [{}]}])"));
}

TEST_F(TunnelRecords, WritesOnlyFailuresAtTheErrorLevel) {
  fake::setPrintLevel(10);
  EXPECT_TRUE(pull(R"([{"name": "g", "remoteIp": "a.example", "enabled": true}])", "[{}]"));
  EXPECT_THAT(fake::takeTrace(), ElementsAre(request, "resolve a.example", "resolve "));
}

// --- monitors

TEST_F(TunnelRecords, WatchesGreTunnelsBeforeIpsecTunnels) {
  EXPECT_TRUE(pull(
      R"([{"name": "g 1", "remoteIp": "a.example", "enabled": true},
          {"name": "g2", "remoteIp": "a.example", "enabled": true}])",
      R"([{"name": "i1", "remoteWanIp": "b.example", "enabled": true}])"));
  fake::takeTrace();
  for (FqdnMonitor* const monitor : fqdnMonitors) {
    monitor->start();
  }
  EXPECT_THAT(fake::takeTrace(), ElementsAre("start FQDN_MONITOR:g_1", "start FQDN_MONITOR:g2",
                                             "start FQDN_MONITOR:i1"));
}

TEST_F(TunnelRecords, StartsNoMonitor) {
  EXPECT_TRUE(pull(R"([{"name": "g", "remoteIp": "a.example", "enabled": true}])", "[]"));
  EXPECT_THAT(fake::takeTrace(), testing::Not(testing::Contains("start FQDN_MONITOR:g")));
}

TEST_F(TunnelRecords, AddsToTheMonitorsThatAreThere) {
  EXPECT_TRUE(pull(R"([{"name": "g", "remoteIp": "a.example", "enabled": true}])", "[]"));
  const std::vector<FqdnMonitor*> before = fqdnMonitors;
  EXPECT_TRUE(pull("[]", R"([{"name": "i", "remoteWanIp": "b.example", "enabled": true}])"));
  ASSERT_EQ(fqdnMonitors.size(), 2U);
  EXPECT_EQ(fqdnMonitors[0], before[0]);
}

TEST_F(TunnelRecords, TellsTheMonitorThePeerAsConfiguredAndItsAddress) {
  EXPECT_TRUE(pull(R"([{"name": "my tunnel", "remoteIp": "a.example", "enabled": true}])", "[]"));
  ASSERT_EQ(fqdnMonitors.size(), 1U);
  EXPECT_EQ(watched(*fqdnMonitors[0], "a.example"),
            "INFO [FQDN_MONITOR] tunnel:my_tunnel The host [a.example] has resolved to a new ip "
            "address. [192.0.2.1]=>[198.51.100.1]\n");
}

TEST_F(TunnelRecords, SharesTheManagersLockWithEveryMonitor) {
  const unsigned locks = managerLock.useCount();
  const unsigned conditions = managerCondition.useCount();
  EXPECT_TRUE(pull(R"([{"enabled": true}, {"enabled": true}, {"enabled": false}])", "[]"));
  EXPECT_EQ(managerLock.useCount(), locks + 2);
  EXPECT_EQ(managerCondition.useCount(), conditions + 2);
  dropMonitors();
  EXPECT_EQ(managerLock.useCount(), locks);
  EXPECT_EQ(managerCondition.useCount(), conditions);
}

TEST_F(TunnelRecords, ReadsAThousandTunnelsOfEachKind) {
  std::string list = "[";
  for (int i = 0; i < 1000; ++i) {
    list += R"({"name": "t)" + std::to_string(i) + R"(", "enabled": true},)";
  }
  list.back() = ']';
  EXPECT_TRUE(pull(list, list));
  EXPECT_EQ(fqdnMonitors.size(), 2000U);
}

struct PeriodCase {
  const char* title;
  const char* record;
  int minutes;
};

const PeriodCase periodCases[] = {
    {"Zero", R"({"enabled": true, "checkPeriod": 0})", 1},
    {"Missing", R"({"enabled": true})", 1},
    {"Null", R"({"enabled": true, "checkPeriod": null})", 1},
    {"One", R"({"enabled": true, "checkPeriod": 1})", 1},
    {"ThreeHundred", R"({"enabled": true, "checkPeriod": 300})", 300},
    {"TheLargest", R"({"enabled": true, "checkPeriod": 65535})", 65535},
    {"TheLargestAndOne", R"({"enabled": true, "checkPeriod": 65536})", 1},
    {"TheLargestAndTwo", R"({"enabled": true, "checkPeriod": 65537})", 1},
    {"TheLargestAndThree", R"({"enabled": true, "checkPeriod": 65538})", 2},
    {"AllBits", R"({"enabled": true, "checkPeriod": 4294967295})", 65535},
    {"AFraction", R"({"enabled": true, "checkPeriod": 2.9})", 2},
};

class TunnelRecordsPeriod : public TunnelRecords, public testing::WithParamInterface<PeriodCase> {};

TEST_P(TunnelRecordsPeriod, IsHandedOverInMinutes) {
  const std::string list = "[" + std::string(GetParam().record) + "]";
  const std::string minutes = std::to_string(GetParam().minutes);
  EXPECT_TRUE(pull(list, list));
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(pulling, request, "resolve ", "INFO GRE tunnel [][] period " + minutes,
                          "resolve ", "INFO ipsec tunnel [][] period " + minutes));
  for (FqdnMonitor* const monitor : fqdnMonitors) {
    fake::onSleep = [monitor](unsigned) { monitor->stop(); };
    monitor->run();
    EXPECT_EQ(fake::takeTrace().at(0), "sleep " + std::to_string(60000LL * GetParam().minutes));
  }
}

INSTANTIATE_TEST_SUITE_P(Table, TunnelRecordsPeriod, testing::ValuesIn(periodCases),
                         [](const auto& row) { return std::string(row.param.title); });

// --- values that do not convert

TEST_F(TunnelRecords, ThrowsOnValuesThatDoNotConvert) {
  for (const char* record :
       {R"({"name": []})", R"({"remoteIp": {}, "remoteWanIp": {}})", R"({"enabled": "true"})",
        R"({"enabled": []})", R"({"enabled": true, "checkPeriod": "5"})",
        R"({"enabled": true, "checkPeriod": -1})",
        R"({"enabled": true, "checkPeriod": 4294967296})",
        R"({"enabled": true, "checkPeriod": []})", "7", "\"a\"", "[]", "true"}) {
    const std::string list = "[" + std::string(record) + "]";
    EXPECT_THROW(pull(list, "[]"), Json::Exception) << record;
    EXPECT_THROW(pull("[]", list), Json::Exception) << record;
    EXPECT_THAT(fqdnMonitors, IsEmpty()) << record;
  }
}

TEST_F(TunnelRecords, ReadsNoPeriodOfADisabledTunnel) {
  EXPECT_TRUE(pull(R"([{"name": "g", "checkPeriod": "x"}])", "[]"));
  EXPECT_EQ(fake::takeTrace().back(), "INFO GRE tunnel [g] disabled");
}

TEST_F(TunnelRecords, ThrowsOnAResultThatIsNoObject) {
  for (const char* result : {"[]", "7", "\"a\"", "true"}) {
    fake::resetCurl();
    fake::scriptReply({R"({"code": 200, "result": )", result, "}"});
    EXPECT_THROW(pullConfigurations(greTunnels, ipsecTunnels), Json::Exception) << result;
  }
}

TEST_F(TunnelRecords, ThrowsOnAnObjectInPlaceOfAList) {
  EXPECT_THROW(pull(R"({"a": {}})", "[]"), Json::Exception);
  EXPECT_THROW(pull("[]", R"({"a": {}})"), Json::Exception);
}

}  // namespace
}  // namespace tunnel_mngr
