#pragma once

#include <sys/types.h>

#include <string>

namespace tunnel_mngr {

/// One supervised tunnel: an `openvpn` process that is a child of the daemon, and what it is
/// started with. Main thread only; copying it would make two owners of one child.
///
/// The child runs on when the object goes; the kernel sends it SIGTERM when the daemon ends.
struct OvpnTnl {
  pid_t pid = 0;  ///< The running child; below 1 when there is none.
  std::string confFile;
  std::string statusFile;
  std::string clientConfigDir;  ///< Must exist before the start; empty for none.
  std::string connectFile;      ///< Says whether the peer answered the last ping.
  std::string pingAddress;      ///< Empty for none.
  bool pingCheck = false;       ///< Whether the periodic check pings the peer.

  OvpnTnl() = default;
  OvpnTnl(const OvpnTnl&) = delete;
  OvpnTnl& operator=(const OvpnTnl&) = delete;

  /// Reaps the child if it has ended, without waiting. There must be a child.
  /// @return false when it has ended; `pid` is then 0.
  bool isRunning();

  /// Sends SIGTERM once a second until the child, if there is one, has ended, however long
  /// that takes; `pid` is then 0.
  void stop();

  /// Stops the child, if there is one, and starts a new one, without waiting for it to come up.
  ///
  /// @return false, logged and with `pid` 0, when no child could be had. Returns false in the
  ///         child too when its client configuration directory cannot be made: that copy of
  ///         the daemon goes on in the caller.
  bool restart();

  /// Pings the peer, if it has an address, and writes "connected" or nothing to the connect
  /// file. Blocks as long as three pings take.
  void ping();
};

/// Stops every tunnel, one after the other, and forgets them. Main thread only, as the two below.
void stopOvpnTunnels();

/// Stops what runs and starts the tunnels of `Conf::tunnels()`, in its order.
void startOvpnTunnels();

/// The periodic check: starts the tunnels whose process has ended again, pings the others.
void checkOvpnTunnels();

}  // namespace tunnel_mngr
