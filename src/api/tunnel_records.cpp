#include "api/tunnel_records.hpp"

#include "api/api_client.hpp"
#include "monitor/fqdn_monitor.hpp"
#include "monitor/resolver.hpp"
#include "platform/logger.hpp"
#include "platform/text.hpp"
#include "state/manager_state.hpp"

#include <cstdint>
#include <string>

namespace tunnel_mngr {

namespace {

/// What differs between the records of the two lists.
struct RecordKind {
  const char* label;
  const char* peerKey;
};

constexpr RecordKind greKind{"GRE", "remoteIp"};
constexpr RecordKind ipsecKind{"ipsec", "remoteWanIp"};

/// A period of no minutes would make the monitor spin.
std::uint16_t checkPeriodMinutes(const Json::Value& record) {
  const auto minutes = static_cast<std::uint16_t>(record["checkPeriod"].asUInt() & 0xFFFFU);
  return minutes == 0 ? std::uint16_t{1} : minutes;
}

void normaliseRecord(Json::Value& record, const RecordKind& kind) {
  const Json::Value& given = record;
  const std::string name = VEXA::Text::replace(given["name"].asString(), " ", "_");
  record["name"] = name;
  const std::string peer = given[kind.peerKey].asString();
  const std::string address = resolveHost(peer);
  if (given["enabled"].asBool()) {
    const std::uint16_t period = checkPeriodMinutes(given);
    VEXA_LOG(INFO, "%s tunnel [%s][%s] period %i", kind.label, peer.c_str(), address.c_str(),
             int{period});
    fqdnMonitors.push_back(
        new FqdnMonitor(managerLock, managerCondition, peer, address, period, name));
  } else {
    VEXA_LOG(INFO, "%s tunnel [%s] disabled", kind.label, name.c_str());
  }
  record[kind.peerKey] = address;
}

void normaliseRecords(Json::Value& records, const RecordKind& kind) {
  for (Json::ArrayIndex i = 0; i < records.size(); ++i) {
    normaliseRecord(records[i], kind);
  }
}

}  // namespace

bool pullConfigurations(Json::Value& greTunnels, Json::Value& ipsecTunnels) {
  Json::Value root;
  VEXA_LOG(TRACE, "Pulling Current Configurations");
  if (!apiGet(tunnelsUrl, root)) {
    return false;
  }
  greTunnels = root["greTunnels"];
  ipsecTunnels = root["ipsecTunnels"];
  normaliseRecords(greTunnels, greKind);
  normaliseRecords(ipsecTunnels, ipsecKind);
  return true;
}

}  // namespace tunnel_mngr
