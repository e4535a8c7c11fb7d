#pragma once

#include <sys/types.h>

namespace tunnel_mngr {

struct OvpnTnl;

/// Turns the calling process, a child that was just forked with all signals blocked, into
/// the tunnel's `openvpn`.
///
/// Returns only, with false, when the tunnel's client configuration directory does not exist
/// and cannot be made; signal mask and handlers are then as they were at the call. Any other
/// failure ends the process. `openvpn` starts with the default signal handling, no signal
/// blocked and the descriptors 0, 1 and 2, and gets SIGTERM when the daemon ends.
///
/// Takes no lock, so that it is safe in the child of a process with threads.
/// @param daemonPid  The process that forked.
bool becomeOpenvpn(const OvpnTnl& tunnel, pid_t daemonPid);

}  // namespace tunnel_mngr
