#include "ovpn/directives.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <vector>

namespace tunnel_mngr {
namespace {

struct FindCase {
  const char* special;
  const char* text;
  const char* key;
  bool found;
  const char* value;
};

void PrintTo(const FindCase& row, std::ostream* out) {
  *out << row.special;
}

class FindDirective : public testing::TestWithParam<FindCase> {};

TEST_P(FindDirective, ReadsTheValueOfTheFirstLineWithTheKey) {
  std::string value = "left from before";
  EXPECT_EQ(findDirective(GetParam().text, GetParam().key, value), GetParam().found);
  EXPECT_EQ(value, GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, FindDirective,
    testing::Values(FindCase{"empty text", "", "dev", false, ""},
                    FindCase{"only empty lines", "\n\n \n", "dev", false, ""},
                    FindCase{"one word", "dev tun\n", "dev", true, "tun"},
                    FindCase{"no final newline", "client\ndev tun", "dev", true, "tun"},
                    FindCase{"blanks become one, the comment goes",
                             "\t ifconfig 10.8.0.1    10.8.0.2\t# the far end\n", "ifconfig", true,
                             "10.8.0.1 10.8.0.2"},
                    FindCase{"semicolon comment", "dev tun ;x\n", "dev", true, "tun"},
                    FindCase{"comment glued to a word stays", "dev tun#x\n", "dev", true, "tun#x"},
                    FindCase{"comment at once after the key", "dev # tun\n", "dev", true, ""},
                    FindCase{"nothing after the key", "<ca>\n", "<ca>", true, ""},
                    FindCase{"carriage return is white space", "<ca>\r\n", "<ca>", true, ""},
                    FindCase{"carriage return after the value", "dev tun\r\n", "dev", true, "tun"},
                    FindCase{"first of two", "dev tap\ndev tun\n", "dev", true, "tap"},
                    FindCase{"first of two is empty", "dev\ndev tun\n", "dev", true, ""},
                    FindCase{"commented-out line", "#dev tap\n; dev tap\ndev tun\n", "dev", true,
                             "tun"},
                    FindCase{"only commented out", "#dev tap\n", "dev", false, ""},
                    FindCase{"a comment mark is no key", "#dev tap\n", "#dev", false, ""},
                    FindCase{"longer word", "device tun\n", "dev", false, ""},
                    FindCase{"shorter word", "de tun\n", "dev", false, ""},
                    FindCase{"other case", "Dev tun\n", "dev", false, ""},
                    FindCase{"key is the second word", "x dev tun\n", "dev", false, ""},
                    FindCase{"an empty key matches no empty line", "\n", "", false, ""}));

struct SetCase {
  const char* special;
  const char* text;
  const char* changed;
};

void PrintTo(const SetCase& row, std::ostream* out) {
  *out << row.special;
}

class SetDirective : public testing::TestWithParam<SetCase> {};

TEST_P(SetDirective, RewritesEveryLineWithTheKey) {
  std::string text = GetParam().text;
  setDirective(text, "verb", "4");
  EXPECT_EQ(text, GetParam().changed);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, SetDirective,
    testing::Values(
        SetCase{"empty text", "", "verb 4\n"}, SetCase{"appended", "client\n", "client\nverb 4\n"},
        SetCase{"appended after a last line without newline", "client", "client\nverb 4\n"},
        SetCase{"replaced", "verb 9\n", "verb 4\n"},
        SetCase{"replaced without newline", "verb 9", "verb 4\n"},
        SetCase{"every line", "verb 9\nclient\nverb 1 2 3\n", "verb 4\nclient\nverb 4\n"},
        SetCase{"indentation stays", " \t verb 9\n", " \t verb 4\n"},
        SetCase{"other white space is no indentation", "\vverb 9\n \f verb 9\n",
                "verb 4\n verb 4\n"},
        SetCase{"comment after the value goes", "verb 9 # more\n", "verb 4\n"},
        SetCase{"carriage return of the line goes", "client\r\nverb 9\r\n", "client\r\nverb 4\n"},
        SetCase{"commented-out line stays", "#verb 9\n# verb 9\n", "#verb 9\n# verb 9\nverb 4\n"},
        SetCase{"empty lines stay", "\n\nverb 9\n\n \n", "\n\nverb 4\n\n \n"},
        SetCase{"longer word", "verbose\n", "verbose\nverb 4\n"}));

TEST(SetDirectiveKey, MayBeginLikeAComment) {
  std::string text = "#verb 9\n";
  setDirective(text, "#verb", "4");
  EXPECT_EQ(text, "#verb 4\n");
}

TEST(SetDirectiveKey, MatchesNoEmptyLineWhenItIsEmpty) {
  std::string text = "\n";
  setDirective(text, "", "4");
  EXPECT_EQ(text, "\n 4\n");
}

TEST(VerbosityForLogLevel, GrowsInStepsWithoutFive) {
  const std::vector<std::pair<unsigned, const char*>> table = {
      {0, "2"},  {9, "2"},  {10, "3"}, {19, "3"}, {20, "4"},  {29, "4"},
      {30, "6"}, {49, "6"}, {50, "7"}, {51, "7"}, {~0U, "7"},
  };
  for (const auto& [level, verbosity] : table) {
    EXPECT_EQ(verbosityForLogLevel(level), verbosity) << level;
  }
}

// A second implementation, with the standard library's streams and without any thought
// for speed.
namespace naive {

std::vector<std::string> linesOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::vector<std::string> wordsOf(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) {
    words.push_back(word);
  }
  return words;
}

bool findDirective(const std::string& text, const std::string& key, std::string& value) {
  value = "";
  for (const std::string& line : linesOf(text)) {
    std::vector<std::string> words;
    for (const std::string& word : wordsOf(line)) {
      if (word[0] == ';' || word[0] == '#') {
        break;
      }
      words.push_back(word);
    }
    if (words.empty() || words[0] != key) {
      continue;
    }
    for (std::size_t index = 1; index < words.size(); ++index) {
      value += (index > 1 ? " " : "") + words[index];
    }
    return true;
  }
  return false;
}

std::string setDirective(const std::string& text, const std::string& key,
                         const std::string& value) {
  const std::string directive = key + " " + value + "\n";
  std::string changed;
  bool found = false;
  for (const std::string& line : linesOf(text)) {
    const std::vector<std::string> words = wordsOf(line);
    if (words.empty() || words[0] != key) {
      changed += line + "\n";
      continue;
    }
    found = true;
    std::size_t indent = 0;
    while (line[indent] == ' ' || line[indent] == '\t') {
      ++indent;
    }
    changed.append(line, 0, indent).append(directive);
  }
  return found ? changed : changed + directive;
}

}  // namespace naive

/// Random configuration texts: known directives among odd white space, comments, bytes
/// outside ASCII and, rarely, very long words.
class Texts {
 public:
  explicit Texts(unsigned seed) : random(seed) {}

  std::string text() {
    static const std::vector<std::string> ends = {"\n", "\n", "\n", "\r\n", "\n\n", ""};
    std::string made;
    for (unsigned lines = below(12); lines > 0; --lines) {
      made += line() + pick(ends);
    }
    return made;
  }

  std::string key() {
    static const std::vector<std::string> keys = {"dev", "verb", "<ca>", "ifconfig", "#dev", "x"};
    return pick(keys);
  }

  std::string value() { return below(4) == 0 ? "" : pick(words); }

 private:
  std::string line() {
    static const std::vector<std::string> blanks = {" ", " ", " ", "\t", "  \t ", "\v", "\f", "\r"};
    std::string made = below(3) == 0 ? pick(blanks) : "";
    for (unsigned count = below(6); count > 0; --count) {
      made += pick(words) + (below(8) == 0 ? "" : pick(blanks));
    }
    return below(200) == 0 ? made + std::string(100000, 'l') : made;
  }

  unsigned below(unsigned bound) { return static_cast<unsigned>(random() % bound); }

  const std::string& pick(const std::vector<std::string>& from) {
    return from[below(static_cast<unsigned>(from.size()))];
  }

  std::mt19937 random;
  const std::vector<std::string> words = {
      "dev",  "verb", "<ca>", "ifconfig", "dev",      "#dev", "#",
      ";",    ";x",   "a#b",  "10.8.0.1", "10.8.0.2", "tun",  "\xC3\xA9\xA0\x85",
      "DEV",  "devx", "x",    "</ca>",    "\x01",     "3",    std::string("n\0l", 3),
      "\xFF", "#verb"};
};

class DirectiveProperties : public testing::TestWithParam<unsigned> {};

constexpr int roundsPerSeed = 4000;

TEST_P(DirectiveProperties, FindAgreesWithTheNaiveReading) {
  Texts texts(GetParam());
  for (int round = 0; round < roundsPerSeed; ++round) {
    const std::string text = texts.text();
    const std::string key = texts.key();
    std::string value;
    std::string expected;
    ASSERT_EQ(findDirective(text, key, value), naive::findDirective(text, key, expected)) << text;
    ASSERT_EQ(value, expected) << text;
  }
}

TEST_P(DirectiveProperties, SetAgreesWithTheNaiveWriting) {
  Texts texts(GetParam());
  for (int round = 0; round < roundsPerSeed; ++round) {
    const std::string text = texts.text();
    const std::string key = texts.key();
    const std::string value = texts.value();
    std::string changed = text;
    setDirective(changed, key, value);
    ASSERT_EQ(changed, naive::setDirective(text, key, value)) << text;
  }
}

TEST_P(DirectiveProperties, WhatIsSetIsFoundAndSettingItAgainChangesNothing) {
  Texts texts(GetParam());
  for (int round = 0; round < roundsPerSeed; ++round) {
    std::string text = texts.text();
    setDirective(text, "dev", "tunoffice");
    std::string value;
    ASSERT_TRUE(findDirective(text, "dev", value)) << text;
    ASSERT_EQ(value, "tunoffice") << text;
    std::string again = text;
    setDirective(again, "dev", "tunoffice");
    ASSERT_EQ(again, text);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, DirectiveProperties, testing::Values(1U, 20U, 300U));

}  // namespace
}  // namespace tunnel_mngr
