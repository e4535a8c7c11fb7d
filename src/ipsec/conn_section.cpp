// One tunnel in the service configuration:
//
//     (an empty line)
//     conn site2
//         left=203.0.113.5
//         ...
//         keyexchange=ikev2
//         authby=secret                 the authentication lines
//     (an empty line)
//     conn site2_subnet_0_0
//         also=site2
//         leftsubnet=192.168.1.0/24
//         rightsubnet=192.168.2.0/24
//         auto=route
//
// The indent is one tab. Values are read in the order of the lines, so that a value which
// jsoncpp refuses always fails at the same place.
#include "ipsec/conn_section.hpp"

#include "ipsec/ipsec_files.hpp"
#include "ipsec/proposals.hpp"
#include "platform/logger.hpp"
#include "state/manager_state.hpp"

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tunnel_mngr {

namespace {

using ProposalBuilder = std::string (*)(const std::string& text);
using SubnetLine = std::string (*)(const Json::Value& subnet);

constexpr char anyPeer[] = "Any";

const char* yesOrNo(bool value) {
  return value ? "yes" : "no";
}

std::string typeOf(const Json::Value& tunnel) {
  const Json::Value& type = tunnel["type"];
  return type.isString() ? type.asString() : std::string();
}

std::string peerSettings(const Json::Value& tunnel, const std::string& localAddress) {
  const std::string peer = tunnel["remoteWanIp"].asString();
  return connSetting("left", localAddress) + connSetting("leftupdown", ipsecUpdownHook) +
         connSetting("right", peer == anyPeer ? "%any" : peer);
}

constexpr char startSettings[] =
    "\tauto=start\n"
    "\tdpddelay=60\n"
    "\tdpdtimeout=120\n"
    "\tdpdaction=restart\n";

std::string modeSettings(const Json::Value& tunnel) {
  std::string text = connSetting("compress", yesOrNo(tunnel["compression"].asBool()));
  text += connSetting("aggressive", yesOrNo(tunnel["aggressiveMode"].asBool()));
  return text;
}

bool isEncryptMethod(const std::string& method) {
  return method == "3des" || method == "aes128" || method == "aes192" || method == "aes256";
}

/// The record's own proposal wins. The older "encryptMethod" stands for a cipher alone.
std::string proposalOf(const Json::Value& tunnel, const char* key, ProposalBuilder build) {
  const std::string proposal = tunnel[key].asString();
  if (!proposal.empty()) {
    return build(proposal);
  }
  const std::string method = tunnel["encryptMethod"].asString();
  if (method.empty()) {
    return {};
  }
  if (!isEncryptMethod(method)) {
    VEXA_LOG(ERROR, "[%s] Unsupported encryption method.", managerTag);
    return {};
  }
  return build(method);
}

std::string proposalSettings(const Json::Value& tunnel) {
  std::string text = connSetting("ike", proposalOf(tunnel, "phase1", buildIkeProposal));
  text += connSetting("esp", proposalOf(tunnel, "phase2", buildEspProposal));
  return text;
}

std::string inHours(const Json::Value& value) {
  return std::to_string(value.asUInt()) + "h";
}

std::string lifetimeSettings(const Json::Value& tunnel) {
  std::string text = connSetting("ikelifetime", inHours(tunnel["ikelife"]));
  text += connSetting("keylife", inHours(tunnel["keylife"]));
  const unsigned retries = tunnel["retries"].asUInt();
  text += connSetting("keyingtries", retries == 0 ? "%forever" : std::to_string(retries));
  return text;
}

std::string selectorOf(const std::string& address, unsigned mask) {
  return subnetNetworkAddress(address, mask) + "/" + std::to_string(mask);
}

std::string localSelector(const Json::Value& subnet) {
  const std::string address = subnet["ip"].asString();
  return connSetting("leftsubnet", selectorOf(address, subnet["mask"].asUInt()));
}

/// Only on this side can a subnet be "Any".
std::string remoteSelector(const Json::Value& subnet) {
  const std::string address = subnet["ip"].asString();
  const std::string selector = selectorOf(address, subnet["mask"].asUInt());
  return connSetting("rightsubnet", address == anyPeer ? "%any" : selector);
}

std::vector<std::string> linesOf(const Json::Value& subnets, SubnetLine lineOf) {
  std::vector<std::string> lines;
  // NOLINTNEXTLINE(modernize-loop-convert): that would walk an object, which must throw.
  for (Json::ArrayIndex i = 0; i < subnets.size(); ++i) {
    lines.push_back(lineOf(subnets[i]));
  }
  return lines;
}

/// The bulk of a large configuration: what pairs have in common is made once.
void addSubConnections(std::string& text, const std::string& name, const Json::Value& locals,
                       const Json::Value& remotes) {
  const std::size_t pairs = std::size_t{locals.size()} * remotes.size();
  if (pairs == 0) {
    return;  // Then no subnet is looked at either.
  }
  const std::vector<std::string> lefts = linesOf(locals, localSelector);
  const std::vector<std::string> rights = linesOf(remotes, remoteSelector);
  for (std::size_t i = 0; i < lefts.size(); ++i) {
    const std::string head = "\nconn " + name + "_subnet_" + std::to_string(i) + "_";
    const std::string inherited = "\n" + connSetting("also", name) + lefts[i];
    for (std::size_t j = 0; j < rights.size(); ++j) {
      text.append(head).append(std::to_string(j)).append(inherited).append(rights[j]);
      text.append("\tauto=route\n");
    }
  }
}

}  // namespace

std::string connSetting(std::string_view key, std::string_view value) {
  std::string line;
  line.reserve(key.size() + value.size() + 3);
  line.append("\t").append(key).append("=").append(value).append("\n");
  return line;
}

std::string buildConnSection(const Json::Value& tunnel, const std::string& localAddress,
                             const std::string& authLines) {
  const std::string name = tunnel["name"].asString();
  std::string text = "\nconn " + name + "\n";
  text += peerSettings(tunnel, localAddress);
  text += startSettings;
  text += modeSettings(tunnel);
  const std::string type = typeOf(tunnel);
  if (type != "IKE" && type != "IKEv2") {
    VEXA_LOG(WARNING,
             "[%s] Error in ipsec config generation. IPSec Connection Type not implemented.",
             managerTag);
    return {};
  }
  text += proposalSettings(tunnel);
  text += lifetimeSettings(tunnel);
  text += connSetting("keyexchange", type == "IKE" ? "ikev1" : "ikev2");
  text += authLines;
  addSubConnections(text, name, tunnel["localSubnets"], tunnel["remoteSubnets"]);
  return text;
}

std::string subnetNetworkAddress(const std::string& address, unsigned prefix) {
  in_addr network{};
  if (inet_pton(AF_INET, address.c_str(), &network) != 1) {
    return {};
  }
  // A shift by all 32 bits would be undefined.
  const bool hasMask = prefix >= 1 && prefix <= 32;
  const std::uint32_t mask = hasMask ? ~std::uint32_t{0} << (32 - prefix) : 0;
  network.s_addr &= htonl(mask);
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &network, text, sizeof text) == nullptr ? "" : text;
}

}  // namespace tunnel_mngr
