#include "ipsec/ipsec_manager.hpp"

#include "ipsec/authentication.hpp"
#include "ipsec/ipsec_files.hpp"
#include "platform/logger.hpp"
#include "platform/system.hpp"
#include "state/manager_state.hpp"

#include <sys/stat.h>
#include <unistd.h>

namespace tunnel_mngr {

namespace {

constexpr char certificates[] = "rsasig";
constexpr char presharedKey[] = "secret";
constexpr mode_t readableByAll = 0644;

int run(const std::string& command) {
  VEXA_LOG(TRACE, "%s", command.c_str());
  std::string output;
  return VEXA::System::cmd(command, output);
}

std::string authMethodOf(const Json::Value& tunnel) {
  const Json::Value& method = tunnel["authMethod"];
  return method.isString() ? method.asString() : presharedKey;
}

bool createRsaTunnel(const Json::Value& tunnel, const std::string& localAddress) {
  const bool done = setupRsaAuth(tunnel, localAddress);
  const std::string name = tunnel["name"].asString();
  if (done) {
    VEXA_LOG(DEBUG, "[%s] IPSEC RSASIG tunnel [%s] configured successfully.", managerTag,
             name.c_str());
  } else {
    VEXA_LOG(ERROR, "[%s] Failed to configure IPSEC RSA tunnel [%s].", managerTag, name.c_str());
  }
  return done;
}

bool createPskTunnel(const Json::Value& tunnel, const std::string& localAddress) {
  const bool done = setupPskAuth(tunnel, localAddress);
  const std::string name = tunnel["name"].asString();
  if (done) {
    VEXA_LOG(DEBUG, "[%s] IPSEC PSK tunnel [%s] configured successfully.", managerTag,
             name.c_str());
  } else {
    VEXA_LOG(ERROR, "[%s] Failed to configure IPSEC PSK tunnel [%s].", managerTag, name.c_str());
  }
  return done;
}

bool createTunnel(const Json::Value& tunnel, const std::string& localAddress) {
  return authMethodOf(tunnel) == certificates ? createRsaTunnel(tunnel, localAddress)
                                              : createPskTunnel(tunnel, localAddress);
}

/// Shows both files, the secrets on purpose too. The service runs as root and can do
/// without, so a failure does not matter.
void showToAll() {
  static_cast<void>(::chmod(ipsecConfPath().c_str(), readableByAll));
  static_cast<void>(::chmod(ipsecSecretsPath().c_str(), readableByAll));
}

}  // namespace

void IpsecManager::stopIpsec() {
  VEXA_LOG(DEBUG, "[%s] Stopping IPsec", managerTag);
  const int status = run("ipsec stop 2>&1");
  if (status != 0) {
    VEXA_LOG(ERROR, "[%s] IPsec error executing stop command [%d]", managerTag, status);
  }
}

void IpsecManager::setupIpsecTunnels(const std::string& localAddress, const Json::Value& tunnels) {
  if (!resetIpsecConfig()) {
    VEXA_LOG(ERROR, "[%s] Failed to reset ipsec tunnels configuration to default", managerTag);
    return;
  }
  if (!createIpsecTunnels(tunnels, localAddress)) {
    VEXA_LOG(DEBUG, "[%s] There are no ipsec tunnels to start.", managerTag);
    return;
  }
  VEXA_LOG(DEBUG, "[%s] Starting IPsec", managerTag);
  const int status = run("ipsec restart");
  if (status != 0) {
    VEXA_LOG(ERROR, "[%s] IPsec error executing restart command [%d]", managerTag, status);
  }
  // Gives the service a moment before the cycle goes on; a signal may cut it short.
  static_cast<void>(::sleep(1));
}

bool IpsecManager::createIpsecTunnels(const Json::Value& tunnels, const std::string& localAddress) {
  VEXA_LOG(DEBUG, "Creating IPsec Configuration Files");
  bool created = false;
  // NOLINTNEXTLINE(modernize-loop-convert): that would walk an object, which must throw.
  for (Json::ArrayIndex i = 0; i < tunnels.size(); ++i) {
    const Json::Value& tunnel = tunnels[i];
    if (tunnel["enabled"].asBool() && createTunnel(tunnel, localAddress)) {
      created = true;
    }
  }
  if (created) {
    showToAll();
  }
  return created;
}

IpsecManager& ipsecManager() {
  static IpsecManager manager;
  return manager;
}

}  // namespace tunnel_mngr
