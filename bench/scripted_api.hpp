#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>

/// Answers the OpenVPN room's requests without a gateway, in next to no time.
namespace bench {

/// The tunnels that the next `Conf::init()` gets; handed over, not copied.
void offerOvpnTunnels(Json::Value tunnels);

/// @return so many enabled records with the configuration text, called by their numbers.
Json::Value ovpnTunnels(std::size_t first, std::size_t count, const std::string& config);

}  // namespace bench
