#include "vexa/log_text.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

using VEXA::LogText;

std::string contentOf(const LogText& text) {
  return {text.data(), text.size()};
}

std::string escaped(const std::string& value) {
  LogText text;
  text.appendEscaped(value.data(), value.size());
  return contentOf(text);
}

TEST(LogText, GrowsWithWhatIsAppended) {
  LogText text;
  EXPECT_EQ("", contentOf(text));
  text.append("a");
  text.append("bcd", 2);
  text.appendFormatted("[%s] %d", "x", 5);
  EXPECT_EQ("abc[x] 5", contentOf(text));
}

TEST(LogText, HoldsTextsOfEverySizeUpToTheLongest) {
  for (const std::size_t size : {2040UL, 2041UL, 2042UL, 2048UL, 4096UL, LogText::longest}) {
    const std::string value(size, 'x');
    LogText appended;
    appended.append(value.c_str());
    EXPECT_EQ(value, contentOf(appended)) << size;
    LogText formatted;
    formatted.appendFormatted("%s", value.c_str());
    EXPECT_EQ(value, contentOf(formatted)) << size;
  }
}

TEST(LogText, GrowsInManySmallSteps) {
  LogText text;
  std::string expected;
  for (int i = 0; i < 9000; ++i) {
    text.appendFormatted("%d,", i);
    expected += std::to_string(i) + ",";
  }
  EXPECT_EQ(expected, contentOf(text));
}

TEST(LogText, ShowsWhereATooLongTextIsCut) {
  const std::string value(LogText::longest + 1, 'x');
  const std::string expected = std::string(LogText::longest, 'x') + " [...]";
  LogText appended;
  appended.append(value.c_str());
  EXPECT_EQ(expected, contentOf(appended));
  LogText formatted;
  formatted.appendFormatted("%s", value.c_str());
  EXPECT_EQ(expected, contentOf(formatted));
}

TEST(LogText, StaysAsItIsOnceCut) {
  LogText text;
  text.append(std::string(LogText::longest + 1, 'x').c_str());
  const std::string before = contentOf(text);
  text.append("more");
  text.appendFormatted("%d", 5);
  text.appendEscaped("\n", 1);
  EXPECT_EQ(before, contentOf(text));
}

TEST(LogText, EscapesControlCharactersOnly) {
  EXPECT_EQ("a\\nb\\r\\tc", escaped("a\nb\r\tc"));
  EXPECT_EQ("\\x00\\x01\\x1b[31m\\x1f\\x7f", escaped(std::string("\0\x01\x1b[31m\x1f\x7f", 9)));
  EXPECT_EQ(" ~\\\xc3\xa4\xff", escaped(" ~\\\xc3\xa4\xff"));
  EXPECT_EQ("\\n\\n", escaped("\n\n"));
  EXPECT_EQ("", escaped(""));
}

}  // namespace
