#include "gre/gre_creation.hpp"

#include "platform/logger.hpp"
#include "platform/system.hpp"
#include "platform/text.hpp"
#include "state/manager_state.hpp"

namespace tunnel_mngr {

namespace {

int runCommand(const std::string& line) {
  VEXA_LOG(TRACE, "%s", line.c_str());
  std::string output;
  return VEXA::System::cmd(line, output);
}

std::string ttlText(const Json::Value& ttl) {
  return ttl.isString() ? ttl.asString() : VEXA::Text::format(ttl.asInt());
}

bool addInterface(const std::string& name, const Json::Value& entry) {
  const std::string remote = entry["remoteIp"].asString();
  const std::string ttl = ttlText(entry["ttl"]);
  VEXA_LOG(INFO, "Creating GRE tunnel: [%s] local[%s] remote[%s] ttl[%s]", name.c_str(),
           currentWanIp.c_str(), remote.c_str(), ttl.c_str());
  int status = runCommand(greAddCommand(name, remote, currentWanIp, ttl));
  if (status != 0) {
    VEXA_LOG(ERROR, "GRE tunnel: [%s] error executing tunnel add command [%d]", name.c_str(),
             status);
    return false;
  }
  status = runCommand(greLinkUpCommand(name));
  if (status != 0) {
    VEXA_LOG(ERROR, "GRE tunnel: [%s] error executing link set command [%d]", name.c_str(), status);
    return false;
  }
  return true;
}

bool addAddress(const std::string& name, const std::string& ip, const std::string& mask) {
  if (ip.empty() || mask.empty()) {
    return true;
  }
  const int status = runCommand(greAddressCommand(name, ip, mask));
  if (status != 0) {
    VEXA_LOG(ERROR, "GRE tunnel: [%s] error executing address add command [%d]", name.c_str(),
             status);
    return false;
  }
  return true;
}

/// A route that fails must not take the tunnel with it.
void addRoute(const std::string& name, const Json::Value& route) {
  if (!route.isMember("ip") || !route.isMember("mask")) {
    return;
  }
  const std::string destination = route["ip"].asString() + "/" + jsonNumberText(route["mask"]);
  VEXA_LOG(INFO, "Adding route: %s => %s", name.c_str(), destination.c_str());
  const int status = runCommand(greRouteCommand(name, destination));
  if (status != 0) {
    VEXA_LOG(ERROR, "GRE tunnel: [%s] error executing route add command [%d]", name.c_str(),
             status);
  }
}

bool tellHook(const std::string& name) {
  std::string output;
  const int status = VEXA::System::execute(greHook, {"-n", name, "-d", "up"}, output);
  if (status != 0) {
    VEXA_LOG(ERROR, "GRE tunnel: [%s] error executing link-changed hook up [%d]", name.c_str(),
             status);
    return false;
  }
  return true;
}

}  // namespace

bool createGreTunnel(const Json::Value& entry) {
  const std::string name = entry["name"].asString();
  const std::string tunnelIp = entry["tunnelIp"].asString();
  const std::string tunnelMask = entry["tunnelMask"].asString();
  if (!addInterface(name, entry) || !addAddress(name, tunnelIp, tunnelMask)) {
    return false;
  }
  const Json::Value& routes = entry["routes"];
  for (Json::ArrayIndex i = 0; i < routes.size(); ++i) {
    addRoute(name, routes[i]);
  }
  return tellHook(name);
}

std::string jsonNumberText(const Json::Value& value) {
  if (value.isString()) {
    return value.asString();
  }
  if (value.isNumeric()) {
    return VEXA::Text::format(value.asInt());
  }
  VEXA_LOG(WARNING, "Unable to parse number *%s*", value.toStyledString().c_str());
  return "";
}

std::string greAddCommand(const std::string& name, const std::string& remote,
                          const std::string& local, const std::string& ttl) {
  return "ip tunnel add " + name + " mode gre remote " + remote + " local " + local + " ttl " + ttl;
}

std::string greLinkUpCommand(const std::string& name) {
  return "ip link set " + name + " up";
}

std::string greAddressCommand(const std::string& name, const std::string& ip,
                              const std::string& mask) {
  return "ip addr add " + ip + "/" + mask + " dev " + name;
}

std::string greRouteCommand(const std::string& name, const std::string& destination) {
  return "ip route add " + destination + " dev " + name;
}

}  // namespace tunnel_mngr
