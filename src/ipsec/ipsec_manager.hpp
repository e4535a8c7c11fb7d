#pragma once

#include <json/json.h>

#include <string>

namespace tunnel_mngr {

/// Stops the gateway's IPsec service, writes its files for all tunnels, and restarts it.
///
/// Holds nothing and remembers nothing: every rebuild starts from the default files, so a
/// tunnel that is no longer configured or enabled is gone after the next restart. Main
/// thread only.
class IpsecManager {
 public:
  /// Stops the service. A failure is logged at ERROR.
  void stopIpsec();

  /// Rewrites the service's files and restarts it when at least one tunnel was written,
  /// else leaves it stopped; then waits for a second. Failures are logged.
  ///
  /// @param localAddress  The gateway's WAN address.
  /// @param tunnels  The normalised records of "ipsecTunnels".
  /// @throws Json::Exception when a value has a type that jsoncpp does not convert; the
  ///         files then hold the tunnels before it, and the service is not restarted.
  void setupIpsecTunnels(const std::string& localAddress, const Json::Value& tunnels);

  /// Writes every enabled tunnel into the files that a reset has left, then makes the
  /// configuration and the secrets readable by all. A failed tunnel is logged at ERROR and
  /// does not stop the others.
  ///
  /// @return true when at least one tunnel was written.
  /// @throws as above.
  bool createIpsecTunnels(const Json::Value& tunnels, const std::string& localAddress);
};

/// @return the one manager of the process, made at the first call. Any thread.
IpsecManager& ipsecManager();

}  // namespace tunnel_mngr
