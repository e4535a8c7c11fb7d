#include "platform/text.hpp"

#include <gtest/gtest.h>

#include <climits>

namespace {

using Fields = std::vector<std::string>;

struct SplitRow {
  const char* name;
  std::string text;
  std::string delimiter;
  std::size_t limit;
  Fields fields;
};

class TextSplit : public testing::TestWithParam<SplitRow> {};

TEST_P(TextSplit, GivesTheFields) {
  EXPECT_EQ(GetParam().fields,
            VEXA::Text::split(GetParam().text, GetParam().delimiter, GetParam().limit));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, TextSplit,
    testing::Values(SplitRow{"OneField", "abc", ",", 0, {"abc"}},
                    SplitRow{"EmptyText", "", ",", 0, {""}},
                    SplitRow{"SeveralFields", "a,b,c", ",", 0, {"a", "b", "c"}},
                    SplitRow{"EmptyFieldsEverywhere", ",a,,b,", ",", 0, {"", "a", "", "b", ""}},
                    SplitRow{"LinesWithAFinalLineFeed", "a\nb\n", "\n", 0, {"a", "b", ""}},
                    SplitRow{"LongDelimiter", "a, b,c, d", ", ", 0, {"a", "b,c", "d"}},
                    SplitRow{"DelimitersDoNotOverlap", "a---b", "--", 0, {"a", "-b"}},
                    SplitRow{"LimitKeepsTheRest", "a,b,c", ",", 2, {"a", "b,c"}},
                    SplitRow{"LimitOfOne", "a,b,c", ",", 1, {"a,b,c"}},
                    SplitRow{"LimitAboveTheFields", "a,b", ",", 9, {"a", "b"}},
                    SplitRow{"EmptyDelimiter", "abc", "", 0, {"abc"}},
                    SplitRow{
                        "ZeroBytes", std::string("a\0b", 3), std::string("\0", 1), 0, {"a", "b"}}),
    [](const auto& row) { return row.param.name; });

TEST(Text, TrimStripsWhiteSpaceAtBothEndsOnly) {
  EXPECT_EQ("a b", VEXA::Text::trim(" \t\r\n\v\fa b\f\v\n\r\t "));
  EXPECT_EQ("", VEXA::Text::trim(" \n"));
  EXPECT_EQ("", VEXA::Text::trim(""));
  EXPECT_EQ("a", VEXA::Text::trim("a"));
  EXPECT_EQ("\xc2\xa0x", VEXA::Text::trim("\xc2\xa0x"));
}

TEST(Text, TrimStripsOneCharacterAtBothEndsOnly) {
  EXPECT_EQ("gre0", VEXA::Text::trim("gre0:", ':'));
  EXPECT_EQ("a:b", VEXA::Text::trim("::a:b:", ':'));
  EXPECT_EQ(" a ", VEXA::Text::trim(": a :", ':'));
  EXPECT_EQ("", VEXA::Text::trim(":::", ':'));
  EXPECT_EQ("a", VEXA::Text::trim(std::string("\0a\0", 3), '\0'));
}

TEST(Text, ParseReadsWholeDecimalIntegers) {
  const std::pair<const char*, int> rows[] = {
      {"0", 0},
      {"42", 42},
      {"-1", -1},
      {"+7", 7},
      {"007", 7},
      {"-0", 0},
      {"2147483647", INT_MAX},
      {"-2147483648", INT_MIN},
      {"100", 100},
      {"+0", 0},
  };
  for (const auto& [text, expected] : rows) {
    int value = 5;
    EXPECT_TRUE(VEXA::Text::parse(value, text)) << text;
    EXPECT_EQ(expected, value) << text;
  }
}

TEST(Text, ParseRefusesAllElseAndLeavesTheValue) {
  const std::string rows[] = {"",
                              " ",
                              "abc",
                              "1a",
                              "a1",
                              " 1",
                              "1 ",
                              "1\n",
                              "+",
                              "-",
                              "--1",
                              "+-1",
                              "-+1",
                              "0x1",
                              "2147483648",
                              "-2147483649",
                              "1.0",
                              "1e3",
                              std::string("1\0", 2)};
  for (const std::string& text : rows) {
    int value = 5;
    EXPECT_FALSE(VEXA::Text::parse(value, text)) << text;
    EXPECT_EQ(5, value) << text;
  }
}

TEST(Text, FormatWritesDecimals) {
  EXPECT_EQ("0", VEXA::Text::format(0));
  EXPECT_EQ("-2147483648", VEXA::Text::format(INT_MIN));
  EXPECT_EQ("2147483647", VEXA::Text::format(INT_MAX));
}

TEST(Text, ReplaceReplacesEveryOccurrence) {
  EXPECT_EQ("x-b-x", VEXA::Text::replace("a-b-a", "a", "x"));
  EXPECT_EQ("abc", VEXA::Text::replace("abc", "z", "x"));
  EXPECT_EQ("abc", VEXA::Text::replace("abc", "", "x"));
  EXPECT_EQ("bc", VEXA::Text::replace("abac", "a", ""));
  EXPECT_EQ("", VEXA::Text::replace("", "a", "x"));
}

TEST(Text, ReplaceDoesNotLookAtWhatItHasWritten) {
  EXPECT_EQ("aaaa", VEXA::Text::replace("aa", "a", "aa"));
  EXPECT_EQ("ba", VEXA::Text::replace("aaa", "aa", "b"));
}

}  // namespace
