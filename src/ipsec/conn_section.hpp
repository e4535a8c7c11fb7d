#pragma once

#include <json/json.h>

#include <string>
#include <string_view>

namespace tunnel_mngr {

/// Builds one tunnel's part of the service configuration: the main connection, and one
/// sub-connection for each pair of a local and a remote subnet.
///
/// @param tunnel  A normalised record of "ipsecTunnels".
/// @param localAddress  The gateway's WAN address.
/// @param authLines  Ends the main connection as it stands, so it brings its line feeds.
/// @return the text, which begins with an empty line; or an empty string when the record's
///         type is not supported, logged at WARNING.
/// @throws Json::Exception when a value has a type that jsoncpp does not convert. No
///         message of it contains the value.
std::string buildConnSection(const Json::Value& tunnel, const std::string& localAddress,
                             const std::string& authLines);

/// @return one line of a connection, with its indent and line feed.
std::string connSetting(std::string_view key, std::string_view value);

/// @param prefix  Length of the network part in bits; above 32 counts as 0.
/// @return the address of the network that a dotted IPv4 address lies in, or an empty
///         string when it is no such address.
std::string subnetNetworkAddress(const std::string& address, unsigned prefix);

}  // namespace tunnel_mngr
