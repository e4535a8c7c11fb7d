#include "bench/scripted_api.hpp"

#include "api/api_client.hpp"

#include <utility>

namespace bench {

namespace {

Json::Value offered;

}  // namespace

void offerOvpnTunnels(Json::Value tunnels) {
  offered["ovpnTunnels"] = std::move(tunnels);
  offered["syslog"]["logLevel"] = 10;
}

Json::Value ovpnTunnels(std::size_t first, std::size_t count, const std::string& config) {
  Json::Value tunnels(Json::arrayValue);
  for (std::size_t i = first; i < first + count; ++i) {
    Json::Value tunnel;
    tunnel["enabled"] = true;
    tunnel["name"] = std::to_string(i);
    tunnel["config"] = config;
    tunnels.append(std::move(tunnel));
  }
  return tunnels;
}

}  // namespace bench

namespace tunnel_mngr {

// Stands before the client's own, which the linker then does not need.
bool apiGetQuiet(const char* url, Json::Value& result) {
  const char* const key =
      std::string(url).find("syslog") == std::string::npos ? "ovpnTunnels" : "syslog";
  result[key] = std::move(bench::offered[key]);
  return true;
}

}  // namespace tunnel_mngr
