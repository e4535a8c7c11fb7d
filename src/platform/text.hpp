#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Text helpers. Text is bytes: nothing here knows of encodings.
namespace VEXA::Text {

/// Splits at every delimiter and keeps empty fields, the last one included.
/// @param limit  Most fields to return, the last one holding the rest; 0 is no limit.
/// @return at least one field. An empty delimiter splits nothing.
std::vector<std::string> split(const std::string& text, const std::string& delimiter,
                               std::size_t limit);

/// @return the text without white space at both ends.
std::string trim(const std::string& text);

/// @return the text without that character at both ends.
std::string trim(const std::string& text, char character);

/// Reads a whole decimal integer with an optional sign.
/// @return false, with `value` as it was, for anything else or what does not fit an int.
bool parse(int& value, const std::string& text);

/// @return the number as decimal text.
std::string format(int value);

/// @return the text with every occurrence of `from` replaced; an empty `from` replaces nothing.
std::string replace(const std::string& text, const std::string& from, const std::string& to);

}  // namespace VEXA::Text
