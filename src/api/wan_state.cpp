#include "api/wan_state.hpp"

#include "api/api_client.hpp"
#include "platform/logger.hpp"

#include <json/json.h>

namespace tunnel_mngr {

std::string getCurrentWanIp() {
  Json::Value reply;
  if (!apiGet(wansUrl, reply)) {
    VEXA_LOG(ERROR, "[WAN_MONITOR] Could not obtain WAN information");
    return "";
  }
  const Json::Value& wans = reply;
  for (Json::ArrayIndex i = 0; i < wans.size(); ++i) {
    if (wans[i]["current"].asBool()) {
      return wans[i]["ip"].asString();
    }
  }
  return "";
}

}  // namespace tunnel_mngr
