#pragma once

#include <json/json.h>

namespace tunnel_mngr {

/// Reads the GRE and IPsec records from the API and makes them ready for use: blanks in
/// "name" become "_", and the peer ("remoteIp", "remoteWanIp") becomes its address, empty
/// when it does not resolve. Appends one monitor for every enabled tunnel to
/// `fqdnMonitors`, GRE before IPsec; they are not started here.
///
/// @return false when the API failed; nothing has changed then.
/// @throws Json::Exception when a value has a type that jsoncpp does not convert.
/// Main thread only. Blocks as long as the API and the resolver do.
bool pullConfigurations(Json::Value& greTunnels, Json::Value& ipsecTunnels);

}  // namespace tunnel_mngr
