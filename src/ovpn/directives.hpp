#pragma once

#include <string>

namespace tunnel_mngr {

// The little of OpenVPN's configuration language that the manager understands. A line ends
// at "\n"; its words are separated by white space (a carriage return is white space too);
// the first word is the directive's name, the others are its value:
//
//     # a comment
//     dev tun
//       ifconfig 10.8.0.1   10.8.0.2   ; a comment after the value
//     <ca>

/// Looks up the first line whose first word is `key`.
///
/// @param value  The line's other words, joined by single blanks; a word that begins with
///        ";" or "#" ends them. Empty when there is no such line.
/// @return true when there is such a line, with or without a value.
bool findDirective(const std::string& text, const std::string& key, std::string& value);

/// Replaces every line whose first word is `key` by its indentation, `key`, a blank and
/// `value`, or appends such a line when there is none. Every line ends with "\n" afterwards;
/// the others keep their bytes.
void setDirective(std::string& text, const std::string& key, const std::string& value);

/// @return the value of OpenVPN's "verb" for the gateway's syslog level.
std::string verbosityForLogLevel(unsigned level);

}  // namespace tunnel_mngr
