#include "vexa/plain_line.hpp"

#include <algorithm>
#include <iterator>

namespace VEXA {

namespace {

// Builtins and keywords that are made of plain characters: those of POSIX and dash, and
// what bash and busybox add.
constexpr const char* shellWords[] = {
    ".",       ":",       "alias",  "bg",      "bind",     "break",    "builtin",   "caller",
    "case",    "cd",      "chdir",  "command", "compgen",  "complete", "compopt",   "continue",
    "coproc",  "declare", "dirs",   "disown",  "do",       "done",     "echo",      "elif",
    "else",    "enable",  "esac",   "eval",    "exec",     "exit",     "export",    "false",
    "fc",      "fg",      "fi",     "for",     "function", "getopts",  "hash",      "help",
    "history", "if",      "in",     "jobs",    "kill",     "let",      "local",     "logout",
    "mapfile", "popd",    "printf", "pushd",   "pwd",      "read",     "readarray", "readonly",
    "return",  "select",  "set",    "shift",   "shopt",    "source",   "suspend",   "test",
    "then",    "time",    "times",  "trap",    "true",     "type",     "typeset",   "ulimit",
    "umask",   "unalias", "unset",  "until",   "wait",     "while"};

bool isShellWord(const std::string& word) {
  return std::find(std::begin(shellWords), std::end(shellWords), word) != std::end(shellWords);
}

// No shell gives these a meaning of their own; the blank separates.
constexpr char plainCharacters[] =
    " abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./:=,@%+-";

std::vector<std::string> split(const std::string& line) {
  std::vector<std::string> words;
  std::size_t start = line.find_first_not_of(' ');
  while (start != std::string::npos) {
    const std::size_t end = std::min(line.find(' ', start), line.size());
    words.push_back(line.substr(start, end - start));
    start = line.find_first_not_of(' ', end);
  }
  return words;
}

bool startsProgram(const std::string& word) {
  return word.find('=') == std::string::npos && !isShellWord(word);
}

}  // namespace

std::vector<std::string> plainWords(const std::string& line) {
  if (line.find_first_not_of(plainCharacters) != std::string::npos) {
    return {};
  }
  std::vector<std::string> words = split(line);
  if (!words.empty() && !startsProgram(words.front())) {
    words.clear();
  }
  return words;
}

}  // namespace VEXA
