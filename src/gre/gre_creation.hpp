#pragma once

#include <json/json.h>

#include <string>

namespace tunnel_mngr {

/// The script that is told of every GRE link that goes up or down.
inline constexpr char greHook[] = "/etc/quorvex/hooks/gre-tunnel-link-changed";

/// Creates one GRE tunnel: interface, link, inner address, routes, and the hook's "up".
///
/// @param entry  A normalised record of "greTunnels". `currentWanIp` is the local address.
/// @return true when everything but the routes succeeded. The first other failure ends the
///         creation and leaves what is there to the next cycle; each failure is logged.
/// @throws Json::Exception when a value has a type that jsoncpp does not convert.
bool createGreTunnel(const Json::Value& entry);

/// Reads a number that the API may give as a number or as a string.
///
/// @return a string as it is, a number as the decimal text of its integer value; for
///         anything else an empty string, logged at WARNING.
std::string jsonNumberText(const Json::Value& value);

// The command lines, from the values they are made of.
std::string greAddCommand(const std::string& name, const std::string& remote,
                          const std::string& local, const std::string& ttl);
std::string greLinkUpCommand(const std::string& name);
std::string greAddressCommand(const std::string& name, const std::string& ip,
                              const std::string& mask);
std::string greRouteCommand(const std::string& name, const std::string& destination);

}  // namespace tunnel_mngr
