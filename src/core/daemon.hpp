#pragma once

#include "monitor/wan_monitor.hpp"

namespace tunnel_mngr {

/// Runs one management cycle and gives the place of the running instance up.
/// @return the program's exit status: 1 when the cycle threw, which is logged, else 0.
int runOnce();

/// Detaches, rebuilds all tunnels, starts the monitors and stays until SIGTERM. The parent
/// process ends in here; so does a process that cannot detach, with 1.
/// @return the program's exit status.
int runDaemon(WanMonitor& wanMonitor);

}  // namespace tunnel_mngr
