#pragma once

#include <list>
#include <string>

namespace tunnel_mngr {

/// One enabled tunnel whose configuration file has been written.
struct OvpnConfEntry {
  std::string name;
  std::string confFile;
  std::string statusFile;       ///< Where `openvpn` writes its own status.
  std::string connectFile;      ///< Where the manager notes whether the peer answers.
  std::string clientConfigDir;  ///< Must exist before `openvpn` starts; empty for none.
  std::string pingAddress;      ///< The peer's address inside the tunnel; empty for none.
  bool pingCheck = false;       ///< The configuration has no inline certificate authority.
};

/// The OpenVPN tunnels of the gateway's configuration. Main thread only.
class Conf {
 public:
  /// Reads the tunnels from the API and writes one configuration file for each enabled one:
  /// the user's text with the device name made the tunnel's own ("dev") and the verbosity
  /// that of the gateway's log ("verb"). Starts and stops nothing; files of tunnels that
  /// are no longer configured stay.
  ///
  /// @return true when the API gave both answers, whatever became of single tunnels: one
  ///         that cannot be accepted is logged and left out. False when the API failed,
  ///         which is not logged here and leaves no tunnels, or when a value has a type
  ///         that jsoncpp does not convert, which is logged and leaves the tunnels before it.
  /// Blocks as long as the API does.
  static bool init();

  /// @return the tunnels that the last init() accepted, in the API's order; valid until the next.
  static const std::list<OvpnConfEntry>& tunnels();

 private:
  static std::list<OvpnConfEntry> entries;
};

}  // namespace tunnel_mngr
