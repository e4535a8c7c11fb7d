#pragma once

#include <json/json.h>

#include <string>

/// How a tunnel proves who it is: writes its certificates and secrets, and its connection
/// text with the authentication lines in it.
///
/// Both operations append to the configuration and secrets files, and stop at the first
/// step that fails; what was written before stays. Names, identities and keys go into the
/// files as they stand, nothing is escaped. No secret is ever logged.
/// Both throw Json::Exception when a value has a type that jsoncpp does not convert. Main
/// thread only.
namespace tunnel_mngr {

/// Sets a tunnel up with X.509 certificates and an RSA key.
///
/// @param tunnel  A normalised record of "ipsecTunnels".
/// @param localAddress  The gateway's WAN address.
/// @return true when everything was written; failures have been logged by the writers.
bool setupRsaAuth(const Json::Value& tunnel, const std::string& localAddress);

/// The same with a pre-shared key.
bool setupPskAuth(const Json::Value& tunnel, const std::string& localAddress);

}  // namespace tunnel_mngr
