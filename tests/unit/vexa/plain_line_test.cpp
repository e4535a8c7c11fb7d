#include "vexa/plain_line.hpp"

#include <gtest/gtest.h>

namespace {

using Words = std::vector<std::string>;

TEST(PlainLine, SplitsPlainWordsAtBlanks) {
  const std::pair<std::string, Words> rows[] = {
      {"ip tunnel", {"ip", "tunnel"}},
      {"firewall --init", {"firewall", "--init"}},
      {"  ip   link  ", {"ip", "link"}},
      {"/bin/echo a=b,c:d@e%f+g_h.i-j", {"/bin/echo", "a=b,c:d@e%f+g_h.i-j"}},
      {"ip route add 10.0.0.0/24 dev gre1", {"ip", "route", "add", "10.0.0.0/24", "dev", "gre1"}},
      {"./run", {"./run"}},
      {"/bin/echo echo", {"/bin/echo", "echo"}},
  };
  for (const auto& [line, words] : rows) {
    EXPECT_EQ(words, VEXA::plainWords(line)) << line;
  }
}

TEST(PlainLine, LeavesToTheShellWhatOnlyAShellUnderstands) {
  const std::string lines[] = {"ipsec stop 2>&1",
                               "a | b",
                               "a; b",
                               "a && b",
                               "a &",
                               "a 'b'",
                               "a \"b\"",
                               "a $B",
                               "a `b`",
                               "a *",
                               "a ?",
                               "a [b]",
                               "a {b,c}",
                               "a ~",
                               "a #b",
                               "a\\ b",
                               "a\nb",
                               "a\tb",
                               "(a)",
                               "a <b",
                               "a >b",
                               "! a",
                               "a^b",
                               "a\xc3\xa4",
                               std::string("a\0b", 3)};
  for (const std::string& line : lines) {
    EXPECT_EQ(Words(), VEXA::plainWords(line)) << line;
  }
}

TEST(PlainLine, LeavesBuiltinsKeywordsAndAssignmentsToTheShell) {
  const std::string first[] = {
      ".",       ":",        "alias", "bg",       "break",  "case",  "cd",    "chdir",
      "command", "continue", "do",    "done",     "echo",   "elif",  "else",  "esac",
      "eval",    "exec",     "exit",  "export",   "false",  "fc",    "fg",    "fi",
      "for",     "getopts",  "hash",  "if",       "in",     "jobs",  "kill",  "local",
      "printf",  "pwd",      "read",  "readonly", "return", "set",   "shift", "source",
      "test",    "then",     "time",  "times",    "trap",   "true",  "type",  "ulimit",
      "umask",   "unalias",  "unset", "until",    "wait",   "while", "A=b"};
  for (const std::string& word : first) {
    EXPECT_EQ(Words(), VEXA::plainWords(word)) << word;
    EXPECT_EQ(Words(), VEXA::plainWords(" " + word + " x")) << word;
  }
}

TEST(PlainLine, LeavesEmptyLinesToTheShell) {
  EXPECT_EQ(Words(), VEXA::plainWords(""));
  EXPECT_EQ(Words(), VEXA::plainWords("   "));
}

}  // namespace
