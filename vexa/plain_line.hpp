#pragma once

#include <string>
#include <vector>

namespace VEXA {

/// Splits a command line that means the same without a shell: only plain words, of which
/// the first is no assignment and no builtin or keyword of the usual shells.
/// @return its words; none when the line needs a shell.
std::vector<std::string> plainWords(const std::string& line);

}  // namespace VEXA
