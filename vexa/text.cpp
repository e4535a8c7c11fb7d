#include "platform/text.hpp"

#include <charconv>

namespace VEXA::Text {

namespace {

std::string trimAnyOf(const std::string& text, const char* characters, std::size_t count) {
  const std::size_t first = text.find_first_not_of(characters, 0, count);
  if (first == std::string::npos) {
    return {};
  }
  const std::size_t last = text.find_last_not_of(characters, std::string::npos, count);
  return text.substr(first, last - first + 1);
}

}  // namespace

std::vector<std::string> split(const std::string& text, const std::string& delimiter,
                               std::size_t limit) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  while (!delimiter.empty() && (limit == 0 || fields.size() + 1 < limit)) {
    const std::size_t end = text.find(delimiter, start);
    if (end == std::string::npos) {
      break;
    }
    fields.push_back(text.substr(start, end - start));
    start = end + delimiter.size();
  }
  fields.push_back(text.substr(start));
  return fields;
}

std::string trim(const std::string& text) {
  return trimAnyOf(text, " \t\n\v\f\r", 6);
}

std::string trim(const std::string& text, char character) {
  return trimAnyOf(text, &character, 1);
}

bool parse(int& value, const std::string& text) {
  const char* first = text.data();
  const char* const last = first + text.size();
  // from_chars knows the minus only; behind a plus it must not find one.
  if (first != last && *first == '+') {
    ++first;
    if (first != last && *first == '-') {
      return false;
    }
  }
  int number = 0;
  const auto [end, error] = std::from_chars(first, last, number);
  if (error != std::errc() || end != last) {
    return false;
  }
  value = number;
  return true;
}

std::string format(int value) {
  return std::to_string(value);
}

std::string replace(const std::string& text, const std::string& from, const std::string& to) {
  if (from.empty()) {
    return text;
  }
  std::string result;
  std::size_t start = 0;
  for (std::size_t found = text.find(from); found != std::string::npos;
       found = text.find(from, start)) {
    result.append(text, start, found - start).append(to);
    start = found + from.size();
  }
  return result.append(text, start, std::string::npos);
}

}  // namespace VEXA::Text
