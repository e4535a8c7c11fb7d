#include "gre/gre_teardown.hpp"

#include "gre/gre_creation.hpp"
#include "platform/logger.hpp"
#include "platform/system.hpp"
#include "platform/text.hpp"

#include <sstream>

// A line of `ip tunnel` and its words:
//
//     site2: gre/ip remote 203.0.113.2 local 198.51.100.2 ttl 64
//     1      2      3      4           5     6            7   8

namespace tunnel_mngr {

namespace {

constexpr char greMode[] = "gre/ip";
constexpr std::size_t shortLine = 9;

bool isFallbackDevice(const std::string& name) {
  return name == "tunl0" || name == "gre0";
}

/// Runs one step of the teardown and goes on whatever becomes of it.
void tryCommand(const std::string& name, const std::string& line, const char* step) {
  VEXA_LOG(TRACE, "%s", line.c_str());
  std::string output;
  const int status = VEXA::System::cmd(line, output);
  if (status != 0) {
    VEXA_LOG(ERROR, "GRE tunnel: [%s] error executing %s command [%d]", name.c_str(), step, status);
  }
}

}  // namespace

bool parseGreTunnelLine(const std::string& line, Json::Value& tunnel) {
  std::istringstream words(line);
  std::string name;
  std::string mode;
  std::string ignored;
  std::string remote;
  std::string local;
  std::string ttl;
  words >> name >> mode >> ignored >> remote >> ignored >> local >> ignored >> ttl;
  name = VEXA::Text::trim(name, ':');
  if (isFallbackDevice(name) || mode != greMode) {
    return false;
  }
  tunnel["name"] = name;
  tunnel["remoteIp"] = remote;
  tunnel["localIp"] = local;
  tunnel["ttl"] = ttl;
  return true;
}

bool discoverGreTunnels(Json::Value& tunnels, std::vector<std::string>& names) {
  const std::string line = "ip tunnel";
  VEXA_LOG(TRACE, "%s", line.c_str());
  std::string output;
  const int status = VEXA::System::cmd(line, output);
  if (status != 0) {
    VEXA_LOG(ERROR, "GRE error executing ip tunnel command [%d]", status);
    return false;
  }
  tunnels = Json::Value(Json::arrayValue);
  VEXA_LOG(TRACE, "Parsing current GRE tunnels");
  for (const std::string& text : VEXA::Text::split(output, "\n", 0)) {
    if (text.size() <= shortLine) {
      continue;
    }
    VEXA_LOG(TRACE, "Line: [%s]", text.c_str());
    Json::Value tunnel;
    if (parseGreTunnelLine(text, tunnel)) {
      names.push_back(tunnel["name"].asString());
      tunnels.append(std::move(tunnel));
    }
  }
  return true;
}

bool destroyGreTunnel(const std::string& name) {
  VEXA_LOG(INFO, "Destroying tunnel: %s", name.c_str());
  tryCommand(name, "ip link set " + name + " down", "unlink");
  tryCommand(name, "ip tunnel del " + name, "tunnel destroy");
  std::string output;
  const int status = VEXA::System::execute(greHook, {"-n", name, "-d", "down"}, output);
  if (status != 0) {
    VEXA_LOG(ERROR, "GRE tunnel: [%s] error executing link-changed hook down [%d]", name.c_str(),
             status);
    return false;
  }
  return true;
}

}  // namespace tunnel_mngr
