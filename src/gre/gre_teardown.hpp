#pragma once

#include <json/json.h>

#include <string>
#include <vector>

namespace tunnel_mngr {

/// Lists the GRE tunnels of the kernel, whoever made them, its fallback devices excepted.
///
/// @param tunnels  On success an array of objects with the texts "name", "remoteIp",
///        "localIp" and "ttl".
/// @param names  Gets the same names appended, in the same order.
/// @return false, with both as they were, when `ip tunnel` failed; this has been logged.
bool discoverGreTunnels(Json::Value& tunnels, std::vector<std::string>& names);

/// Takes one tunnel down, deletes it and tells the hook; each is tried whatever became of
/// the one before, and each failure is logged.
///
/// @return true when the hook succeeded.
bool destroyGreTunnel(const std::string& name);

/// Reads one line of `ip tunnel`.
///
/// @param tunnel  The object described above, if the line is that of a GRE tunnel.
/// @return false for fallback devices and for tunnels of another mode.
bool parseGreTunnelLine(const std::string& line, Json::Value& tunnel);

}  // namespace tunnel_mngr
