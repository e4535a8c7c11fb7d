#pragma once

namespace tunnel_mngr {

/// Whether the program goes on as a daemon; set by `--daemonize`.
extern bool daemonize;

/// Reads the command line into `daemonize` and the logger's print level.
///
/// Unknown options are ignored, after getopt's own message, and stray arguments are named on
/// standard error. Ends the process for `--help` (0), for a print level outside 0 to 100 (1),
/// and aborts it when getopt answers what nobody asked for.
void parseCommandLine(int argc, char* argv[]);

}  // namespace tunnel_mngr
