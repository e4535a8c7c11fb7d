#pragma once

#include <string>

namespace tunnel_mngr {

/// Finds the IPv4 address of a peer.
///
/// @param host  Host name or dotted address; a dotted address comes back as it is,
///        without a look-up.
/// @return The dotted address, or an empty string when there is none; the reason has
///         then been logged.
/// Safe from any thread. Blocks as long as the system's resolver does.
std::string resolveHost(const std::string& host);

}  // namespace tunnel_mngr
