#pragma once

#include <string>
#include <vector>

namespace bench {

/// Runs a command the shortest way there is, `posix_spawnp` and `waitpid`, and nothing else:
/// what the platform's way is measured against. Words are split at blanks.
void runBare(const std::string& line);

/// The same for a command that prints something.
void runBareUnheard(const std::string& line);

/// The same through `/bin/sh -c`. Its output is not heard.
void runInShell(const std::string& line);

}  // namespace bench
