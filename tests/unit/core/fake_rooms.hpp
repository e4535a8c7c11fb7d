#pragma once

#include <json/json.h>

#include <functional>
#include <string>
#include <vector>

/// Stands in place of the rooms that the core calls. Every call adds its name, with what
/// matters of its arguments, to the trace:
///
///     discoverGreTunnels / destroyGreTunnel NAME / createGreTunnel {"enabled":true,...}
///     Conf::init / startOvpnTunnels / stopOvpnTunnels / checkOvpnTunnels
///     stopIpsec / setupIpsecTunnels 10.0.0.2 [{"name":"i"}]
///     getCurrentWanIp / pullConfigurations
namespace fake {

struct Rooms {
  bool discovers = true;
  std::vector<std::string> existingTunnels;
  bool destroys = true;
  bool readsConf = true;
  std::string wanIp;
  bool pulls = true;
  Json::Value greTunnels{Json::arrayValue};
  Json::Value ipsecTunnels{Json::arrayValue};
  bool creates = true;
  /// Called, after the entry is written, with every entry.
  std::function<void(const std::string& entry)> onCall;
};

/// A test that needs other answers changes them; CoreTest sets them back.
extern Rooms rooms;

}  // namespace fake
