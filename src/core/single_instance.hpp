#pragma once

namespace tunnel_mngr {

/// Makes sure that this is the first instance. A second one asks the first to refresh and
/// ends here: with 0 when that worked; else with 1, after removing what a crashed daemon may
/// have left, so that the next start succeeds.
void checkRunningInstance();

/// Writes this process's id for later instances to find. When that fails the daemon goes on
/// without, and a WARNING says so.
void writePidFile();

/// Gives the place of the running instance up: its marker and, if it is ours, the PID file;
/// and asks the main loop to end. May be called more than once, also by a signal handler.
void cleanUp();

}  // namespace tunnel_mngr
