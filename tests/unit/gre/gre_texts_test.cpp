#include "fake/fake_platform.hpp"
#include "gre/gre_creation.hpp"
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

// --- numbers

class GreNumberText : public support::RecordedTest {};

TEST_F(GreNumberText, TakesAStringAsItIs) {
  for (const char* text : {"24", "", " 24 ", "abc", "007"}) {
    EXPECT_EQ(jsonNumberText(Json::Value(text)), text);
  }
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(GreNumberText, WritesANumberInDecimal) {
  for (const auto& [text, expected] :
       std::vector<std::pair<std::string, std::string>>{{"24", "24"},
                                                        {"0", "0"},
                                                        {"-5", "-5"},
                                                        {"2147483647", "2147483647"},
                                                        {"-2147483648", "-2147483648"},
                                                        {"24.0", "24"},
                                                        {"24.9", "24"},
                                                        {"-0.5", "0"}}) {
    EXPECT_EQ(jsonNumberText(json("[" + text + "]")[0]), expected) << text;
  }
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(GreNumberText, WarnsOfAnythingElse) {
  for (const auto& [text, styled] :
       std::vector<std::pair<std::string, std::string>>{{"null", "null\n"},
                                                        {"true", "true\n"},
                                                        {"false", "false\n"},
                                                        {"[]", "[]\n"},
                                                        {"{}", "{}\n"},
                                                        {R"({"a": 1})", "{\n\t\"a\" : 1\n}\n"}}) {
    EXPECT_EQ(jsonNumberText(json("[" + text + "]")[0]), "") << text;
    EXPECT_THAT(fake::takeTrace(), ElementsAre("WARNING Unable to parse number *" + styled + "*"));
  }
}

TEST_F(GreNumberText, SaysNothingWhenWarningsAreNotPrintable) {
  fake::setPrintLevel(19);
  EXPECT_EQ(jsonNumberText(Json::Value()), "");
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(GreNumberText, ThrowsOnANumberThatFitsNoInt) {
  for (const char* text : {"2147483648", "-2147483649", "1e30"}) {
    EXPECT_THROW(jsonNumberText(json(std::string("[") + text + "]")[0]), Json::Exception) << text;
  }
}

// --- the command lines

TEST(GreCommandLines, AreMadeOfTheirValuesAsTheyStand) {
  EXPECT_EQ(greAddCommand("a", "192.0.2.7", "10.0.0.2", "64"),
            "ip tunnel add a mode gre remote 192.0.2.7 local 10.0.0.2 ttl 64");
  EXPECT_EQ(greLinkUpCommand("a"), "ip link set a up");
  EXPECT_EQ(greAddressCommand("a", "172.16.0.1", "30"), "ip addr add 172.16.0.1/30 dev a");
  EXPECT_EQ(greRouteCommand("a", "10.1.0.0/16"), "ip route add 10.1.0.0/16 dev a");
}

TEST(GreCommandLines, KeepTheirBlanksAroundEmptyValues) {
  EXPECT_EQ(greAddCommand("", "", "", ""), "ip tunnel add  mode gre remote  local  ttl ");
  EXPECT_EQ(greLinkUpCommand(""), "ip link set  up");
  EXPECT_EQ(greAddressCommand("", "", ""), "ip addr add / dev ");
  EXPECT_EQ(greRouteCommand("", "/"), "ip route add / dev ");
}

}  // namespace
}  // namespace tunnel_mngr
