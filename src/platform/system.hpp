#pragma once

#include <string>
#include <vector>

namespace VEXA::System {

/// Runs a command with the meaning of `/bin/sh -c line` and waits for its end, but not
/// for what it has left in the background.
///
/// The command reads /dev/null, inherits standard error and no other descriptor, and
/// has the default signal mask and handlers. Safe with other threads and children.
/// @param output  Replaced by what the command wrote to standard output.
/// @return its exit status (0 to 255), 128 + N after a death by signal N, 127 when
///         nothing could be started.
int cmd(const std::string& line, std::string& output);

/// The same for one program and its arguments, without a shell. A program without a
/// slash is looked up in PATH.
int execute(const std::string& program, const std::vector<std::string>& arguments,
            std::string& output);

/// Reads a whole file. @return 0, or the errno of what failed; `out` is then empty.
int readFile(const std::string& path, std::string& out);

}  // namespace VEXA::System
