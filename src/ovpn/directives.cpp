#include "ovpn/directives.hpp"

#include <algorithm>
#include <string_view>

namespace tunnel_mngr {

namespace {

/// White space as in the C locale: the blank, and tab to carriage return.
constexpr bool isWhiteSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

/// Takes the first line off the text and returns it without its end.
std::string_view takeLine(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

/// Takes the first word off the line; empty when there is none.
std::string_view takeWord(std::string_view& line) {
  const auto begin = std::find_if_not(line.begin(), line.end(), isWhiteSpace);
  const auto end = std::find_if(begin, line.end(), isWhiteSpace);
  const auto start = static_cast<std::size_t>(begin - line.begin());
  const auto length = static_cast<std::size_t>(end - begin);
  const std::string_view word = line.substr(start, length);
  line.remove_prefix(start + length);
  return word;
}

/// The same, with the line ending where a comment begins.
std::string_view takeWordBeforeComment(std::string_view& line) {
  const std::string_view word = takeWord(line);
  const bool comment = !word.empty() && (word.front() == ';' || word.front() == '#');
  return comment ? std::string_view() : word;
}

std::string joinWordsBeforeComment(std::string_view line) {
  std::string joined;
  std::string_view word = takeWordBeforeComment(line);
  while (!word.empty()) {
    joined.append(joined.empty() ? "" : " ").append(word);
    word = takeWordBeforeComment(line);
  }
  return joined;
}

std::string_view indentation(std::string_view line) {
  return line.substr(0, std::min(line.find_first_not_of(" \t"), line.size()));
}

}  // namespace

bool findDirective(const std::string& text, const std::string& key, std::string& value) {
  value.clear();
  std::string_view rest = text;
  while (!rest.empty()) {
    std::string_view line = takeLine(rest);
    const std::string_view name = takeWordBeforeComment(line);
    if (!name.empty() && name == key) {
      value = joinWordsBeforeComment(line);
      return true;
    }
  }
  return false;
}

void setDirective(std::string& text, const std::string& key, const std::string& value) {
  const std::string directive = key + " " + value;
  std::string changed;
  changed.reserve(text.size() + directive.size() + 2);
  bool found = false;
  std::string_view rest = text;
  while (!rest.empty()) {
    const std::string_view line = takeLine(rest);
    std::string_view words = line;
    const std::string_view name = takeWord(words);
    if (!name.empty() && name == key) {
      changed.append(indentation(line)).append(directive);
      found = true;
    } else {
      changed.append(line);
    }
    changed += '\n';
  }
  if (!found) {
    changed.append(directive) += '\n';
  }
  text = std::move(changed);
}

std::string verbosityForLogLevel(unsigned level) {
  if (level < 10) {
    return "2";
  }
  if (level < 20) {
    return "3";
  }
  if (level < 30) {
    return "4";
  }
  return level < 50 ? "6" : "7";
}

}  // namespace tunnel_mngr
