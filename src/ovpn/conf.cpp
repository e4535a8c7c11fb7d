#include "ovpn/conf.hpp"

#include "api/api_client.hpp"
#include "ovpn/directives.hpp"
#include "ovpn/run_file.hpp"
#include "platform/logger.hpp"
#include "state/manager_state.hpp"

#include <json/json.h>

#include <unordered_set>
#include <utility>

namespace tunnel_mngr {

namespace {

constexpr char ovpnTunnelsUrl[] = "http://localhost/api?fields=ovpnTunnels";
constexpr char syslogUrl[] = "http://localhost/api?fields=syslog";

/// The kernel takes no longer interface names.
constexpr std::size_t longestDeviceName = 15;

/// The file may carry inline keys.
constexpr mode_t confFileMode = 0600;

/// The remote end of a point-to-point link ("ifconfig LOCAL REMOTE"), or what there is.
std::string pingAddressOf(const std::string& config) {
  std::string addresses;
  findDirective(config, "ifconfig", addresses);
  const std::size_t blank = addresses.find(' ');
  if (blank == std::string::npos) {
    return addresses;
  }
  const std::size_t remote = blank + 1;
  return addresses.substr(remote, addresses.find(' ', remote) - remote);
}

OvpnConfEntry entryOf(const std::string& name, const std::string& config) {
  OvpnConfEntry entry;
  entry.name = name;
  entry.confFile = "/var/run/openvpn_" + name + ".conf";
  entry.statusFile = "/var/run/openvpn_" + name + ".status";
  entry.connectFile = "/var/run/connect_" + name + ".status";
  findDirective(config, "client-config-dir", entry.clientConfigDir);
  std::string ignored;
  entry.pingCheck = !findDirective(config, "<ca>", ignored);
  if (entry.pingCheck) {
    entry.pingAddress = pingAddressOf(config);
  }
  return entry;
}

/// The user's configuration as `openvpn` is to read it.
std::string confText(const std::string& name, const std::string& config, unsigned logLevel) {
  std::string text = config;
  std::string device;
  if (findDirective(text, "dev", device)) {
    setDirective(text, "dev", (device + name).substr(0, longestDeviceName));
  }
  setDirective(text, "verb", verbosityForLogLevel(logLevel));
  return text;
}

bool writeConfFile(const OvpnConfEntry& entry, const std::string& text) {
  switch (writeRunFile(entry.confFile, confFileMode, text)) {
    case WriteResult::done:
      return true;
    case WriteResult::notOpened:
      VEXA_LOG(ERROR, "[%s][OVPN] faild create file for tunnel %s conf: %s", managerTag,
               entry.name.c_str(), entry.confFile.c_str());
      break;
    case WriteResult::notWritten:
      VEXA_LOG(ERROR, "[%s][OVPN] faild write file for tunnel %s conf: %s", managerTag,
               entry.name.c_str(), entry.confFile.c_str());
      break;
  }
  return false;
}

void acceptTunnels(const Json::Value& tunnels, const Json::Value& syslog,
                   std::list<OvpnConfEntry>& entries) {
  std::unordered_set<std::string> names;
  for (const Json::Value& tunnel : tunnels) {
    if (!tunnel["enabled"].asBool()) {
      continue;
    }
    const std::string name = tunnel["name"].asString();
    if (names.count(name) > 0) {
      VEXA_LOG(ERROR, "[%s][OVPN] duplicated openvpn name: %s", managerTag, name.c_str());
      continue;
    }
    const std::string config = tunnel["config"].asString();
    OvpnConfEntry entry = entryOf(name, config);
    if (writeConfFile(entry, confText(name, config, syslog["logLevel"].asUInt()))) {
      entries.push_back(std::move(entry));
      names.insert(name);
    }
  }
}

bool readTunnels(std::list<OvpnConfEntry>& entries) {
  Json::Value tunnels;
  Json::Value syslog;
  if (!apiGetQuiet(ovpnTunnelsUrl, tunnels) || !apiGetQuiet(syslogUrl, syslog)) {
    return false;
  }
  acceptTunnels(std::as_const(tunnels)["ovpnTunnels"], std::as_const(syslog)["syslog"], entries);
  return true;
}

}  // namespace

std::list<OvpnConfEntry> Conf::entries;

bool Conf::init() {
  try {
    entries.clear();
    return readTunnels(entries);
  } catch (...) {
    VEXA_LOG(ERROR, "[%s][OVPN] Conf::init catch exception", managerTag);
    return false;
  }
}

const std::list<OvpnConfEntry>& Conf::tunnels() {
  return entries;
}

}  // namespace tunnel_mngr
