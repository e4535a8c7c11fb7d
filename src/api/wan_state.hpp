#pragma once

#include <string>

namespace tunnel_mngr {

/// Asks the API which address the WAN connection in use has: the "ip" of the first record
/// whose "current" is true.
///
/// @return the address, or an empty string when no WAN is up or the API failed; the
///         latter has then been logged, for every caller as the WAN monitor's.
/// @throws Json::Exception when the reply's values have the wrong types.
/// Any thread. Blocks as long as the API does.
std::string getCurrentWanIp();

}  // namespace tunnel_mngr
