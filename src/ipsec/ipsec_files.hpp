#pragma once

#include <string>

/// The files of the IPsec service: where they are, how they are written, and the state
/// that every rebuild starts from.
///
/// The directories belong to the gateway and must exist. Main thread only, but for the
/// paths.
namespace tunnel_mngr {

/// The script that the service runs for every security association that comes or goes.
/// Named in each connection, never run by the manager.
inline constexpr char ipsecUpdownHook[] = "/etc/quorvex/hooks/ipsec-tunnel-link-changed";

/// The full paths: the service's configuration and secrets files, and the directories of
/// the certificates and keys of RSA tunnels. Valid until the process exits. Any thread.
const std::string& ipsecConfPath();
const std::string& ipsecSecretsPath();
const std::string& ipsecCaCertsDir();
const std::string& ipsecCertsDir();
const std::string& ipsecPrivateDir();

/// Replaces a file's content, byte for byte; a missing file is created.
///
/// A new file has mode 0644, the secrets file and those of the private directory 0600,
/// whatever the umask. A private key has 0600 before its first byte is written, even when
/// the file was there already. Symbolic links are followed: gateways link these files.
/// @return true when the file could be opened, whatever became of the writing; otherwise
///         false, logged at WARNING with the path.
bool writeFile(const std::string& path, const std::string& content);

/// The same, but adds to the end of the file.
bool appendToFile(const std::string& path, const std::string& content);

/// Sets `out` to the configuration without any tunnel.
void defaultIpsecConf(std::string& out);

/// Empties the three directories (but for hidden files), writes the default configuration
/// and empties the secrets file.
///
/// @return false at the first step that fails, which has then been logged; the later ones
///         are not tried.
bool resetIpsecConfig();

}  // namespace tunnel_mngr
