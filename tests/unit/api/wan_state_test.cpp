#include "api/wan_state.hpp"

#include "api/fake_curl.hpp"
#include "fake/fake_platform.hpp"
#include "support/recorded_test.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;

constexpr char request[] = "get http://localhost/api/waninfo/wans";
constexpr char failure[] = "ERROR [WAN_MONITOR] Could not obtain WAN information";

class WanState : public support::RecordedTest {
 protected:
  WanState() { fake::resetCurl(); }
  ~WanState() override { fake::resetCurl(); }

  static void scriptWans(const std::string& wans) {
    fake::resetCurl();
    fake::scriptReply({R"({"code": 200, "result": )", wans, "}"});
  }
};

struct WanCase {
  const char* title;
  const char* wans;
  const char* address;
};

const WanCase wanCases[] = {
    {"OneCurrent", R"([{"current": true, "ip": "10.0.0.2"}])", "10.0.0.2"},
    {"TheSecondCurrent",
     R"([{"current": false, "ip": "10.0.0.1"}, {"current": true, "ip": "10.0.0.2"}])", "10.0.0.2"},
    {"TwoCurrent", R"([{"current": true, "ip": "10.0.0.1"}, {"current": true, "ip": "10.0.0.2"}])",
     "10.0.0.1"},
    {"TheFirstCurrentWithoutAddress",
     R"([{"current": true, "ip": ""}, {"current": true, "ip": "10.0.0.2"}])", ""},
    {"NoneCurrent", R"([{"current": false, "ip": "10.0.0.1"}, {"ip": "10.0.0.2"}])", ""},
    {"EmptyAddress", R"([{"current": true, "ip": ""}])", ""},
    {"MissingAddress", R"([{"current": true}])", ""},
    {"NullAddress", R"([{"current": true, "ip": null}])", ""},
    {"NullCurrent", R"([{"current": null, "ip": "10.0.0.1"}])", ""},
    {"OneAsTrue", R"([{"current": 1, "ip": "10.0.0.1"}])", "10.0.0.1"},
    {"ZeroAsFalse", R"([{"current": 0, "ip": "10.0.0.1"}])", ""},
    {"OtherKeys", R"([{"up": true, "name": [], "current": true, "ip": "10.0.0.2"}])", "10.0.0.2"},
    {"EmptyRecord", R"([{}, {"current": true, "ip": "10.0.0.2"}])", "10.0.0.2"},
    {"LaterRecordsAreNotRead", R"([{"current": true, "ip": "10.0.0.2"}, {"current": "x"}, 7])",
     "10.0.0.2"},
    {"AddressesOfOthersAreNotRead",
     R"([{"current": false, "ip": []}, {"current": true, "ip": "10.0.0.2"}])", "10.0.0.2"},
    {"EmptyList", "[]", ""},
    {"NoList", "null", ""},
};

class WanStateReply : public WanState, public testing::WithParamInterface<WanCase> {};

TEST_P(WanStateReply, GivesTheAddressOfTheFirstCurrentRecord) {
  scriptWans(GetParam().wans);
  EXPECT_EQ(getCurrentWanIp(), GetParam().address);
  EXPECT_THAT(fake::takeTrace(), ElementsAre(request));
}

INSTANTIATE_TEST_SUITE_P(Table, WanStateReply, testing::ValuesIn(wanCases),
                         [](const auto& row) { return std::string(row.param.title); });

TEST_F(WanState, HasNoAddressWhenTheApiIsUnreachable) {
  fake::failTransfers(CURLE_COULDNT_CONNECT);
  EXPECT_EQ(getCurrentWanIp(), "");
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(request, "ERROR curl_easy_perform() failed: no connection", failure));
}

TEST_F(WanState, HasNoAddressWhenTheReplyIsNoJson) {
  fake::scriptReply("none");
  EXPECT_EQ(getCurrentWanIp(), "");
  EXPECT_THAT(fake::takeTrace(), ElementsAre(request, "ERROR api returned bad json", failure));
}

TEST_F(WanState, ReportsAnApiErrorOnceForEachCall) {
  fake::scriptReply(R"({"code": 500, "result": [{"current": true, "ip": "10.0.0.2"}]})");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(getCurrentWanIp(), "");
    EXPECT_THAT(fake::takeTrace(),
                ElementsAre(request, "ERROR api returned error code [500]", failure));
  }
}

TEST_F(WanState, ThrowsOnValuesThatDoNotConvert) {
  for (const char* wans :
       {R"([{"current": "true", "ip": "10.0.0.2"}])", R"([{"current": [], "ip": "10.0.0.2"}])",
        R"([{"current": true, "ip": []}])", R"([{"current": true, "ip": {}}])", "[7]",
        R"(["10.0.0.2"])", "[[]]"}) {
    scriptWans(wans);
    EXPECT_THROW(getCurrentWanIp(), Json::Exception) << wans;
  }
}

}  // namespace
}  // namespace tunnel_mngr
