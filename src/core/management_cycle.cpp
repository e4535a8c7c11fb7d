#include "core/management_cycle.hpp"

#include "api/tunnel_records.hpp"
#include "api/wan_state.hpp"
#include "gre/gre_creation.hpp"
#include "gre/gre_teardown.hpp"
#include "ipsec/ipsec_manager.hpp"
#include "ovpn/conf.hpp"
#include "ovpn/ovpn_tnl.hpp"
#include "platform/logger.hpp"
#include "platform/system.hpp"
#include "state/manager_state.hpp"

#include <json/json.h>

#include <string>
#include <vector>

namespace tunnel_mngr {

namespace {

bool destroyExistingGreTunnels() {
  Json::Value tunnels(Json::arrayValue);
  std::vector<std::string> names;
  if (!discoverGreTunnels(tunnels, names)) {
    return false;
  }
  for (const std::string& name : names) {
    // A tunnel that cannot be removed has been logged; its creation will tell, too.
    static_cast<void>(destroyGreTunnel(name));
  }
  return true;
}

bool tearDownAll() {
  if (!destroyExistingGreTunnels()) {
    return false;
  }
  if (!Conf::init()) {
    VEXA_LOG(ERROR, "[%s] Failed read config", managerTag);
    return false;
  }
  ipsecManager().stopIpsec();
  stopOvpnTunnels();
  return true;
}

void createGreTunnels(const Json::Value& tunnels) {
  const Json::ArrayIndex count = tunnels.size();
  if (count == 0) {
    VEXA_LOG(TRACE, "No GRE Tunnels configured");
    return;
  }
  for (Json::ArrayIndex i = 0; i < count; ++i) {
    const Json::Value& tunnel = tunnels[i];
    if (tunnel["enabled"].asBool()) {
      // One failed tunnel, already logged, does not stop the others.
      static_cast<void>(createGreTunnel(tunnel));
    } else {
      VEXA_LOG(TRACE, "Tunnel [%s] is not enabled", tunnel["name"].asString().c_str());
    }
  }
}

bool initialiseFirewall() {
  const std::string line = "firewall --init";
  VEXA_LOG(TRACE, "%s", line.c_str());
  std::string output;
  const int status = VEXA::System::cmd(line, output);
  if (status != 0) {
    VEXA_LOG(ERROR, "Error executing firewall --init command [%d]", status);
  }
  return status == 0;
}

bool setUpAll() {
  Json::Value greTunnels(Json::arrayValue);
  Json::Value ipsecTunnels(Json::arrayValue);
  if (!pullConfigurations(greTunnels, ipsecTunnels)) {
    return false;
  }
  createGreTunnels(greTunnels);
  ipsecManager().setupIpsecTunnels(currentWanIp, ipsecTunnels);
  if (!initialiseFirewall()) {
    return false;
  }
  startOvpnTunnels();
  return true;
}

}  // namespace

bool manageTunnels() {
  VEXA_LOG(INFO, "Managing tunnels");
  if (!tearDownAll()) {
    return false;
  }
  currentWanIp = getCurrentWanIp();
  if (currentWanIp.empty()) {
    VEXA_LOG(TRACE,
             "WAN address is not acquired. Tunnels will not be setup until WAN is available.");
    return true;
  }
  return setUpAll();
}

}  // namespace tunnel_mngr
