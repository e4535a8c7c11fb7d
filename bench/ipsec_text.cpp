// Building the IPsec service's files for many tunnels with 4 x 4 subnets each: the text
// against jsoncpp's parsing of the same configuration, and how the cost grows.
#include "bench/measure.hpp"
#include "ipsec/conn_section.hpp"
#include "ipsec/ipsec_files.hpp"
#include "ipsec/ipsec_manager.hpp"
#include "platform/logger.hpp"

#include <json/json.h>

#include <sys/stat.h>

#include <map>
#include <memory>

using namespace tunnel_mngr;

namespace {

constexpr std::size_t few = 100;
constexpr std::size_t usual = 1000;
constexpr std::size_t many = 10000;
constexpr std::size_t roundCount = 9;
constexpr unsigned subnetCount = 4;
constexpr char wanAddress[] = "198.51.100.2";

Json::Value subnets(const std::string& prefix) {
  Json::Value list(Json::arrayValue);
  for (unsigned i = 0; i < subnetCount; ++i) {
    Json::Value subnet;
    subnet["ip"] = prefix + std::to_string(i) + ".77";
    subnet["mask"] = 24;
    list.append(subnet);
  }
  return list;
}

Json::Value tunnelRecord(std::size_t number) {
  Json::Value tunnel;
  tunnel["name"] = "site" + std::to_string(number);
  tunnel["enabled"] = true;
  tunnel["type"] = number % 2 == 0 ? "IKEv2" : "IKE";
  tunnel["authMethod"] = "secret";
  tunnel["remoteWanIp"] = "203.0.113." + std::to_string(number % 250 + 1);
  tunnel["psk"] = "a secret of a usual length";
  tunnel["uid"] = true;
  tunnel["localId"] = "gateway.example";
  tunnel["remoteId"] = "peer" + std::to_string(number) + ".example";
  tunnel["compression"] = false;
  tunnel["aggressiveMode"] = false;
  // The proposals that leave nearly all open make the longest text.
  tunnel["phase1"] = number % 4 < 2 ? "aes256" : "aes256-sha256;modp2048";
  tunnel["phase2"] = number % 4 < 2 ? "aes256" : "aes256-sha256;modp2048";
  tunnel["ikelife"] = 8;
  tunnel["keylife"] = 1;
  tunnel["retries"] = 0;
  tunnel["checkPeriod"] = 5;
  tunnel["localSubnets"] = subnets("192.168.");
  tunnel["remoteSubnets"] = subnets("10.20.");
  return tunnel;
}

/// So many tunnels, beginning with a number.
Json::Value tunnelRecords(std::size_t first, std::size_t count) {
  Json::Value tunnels(Json::arrayValue);
  for (std::size_t i = first; i < first + count; ++i) {
    tunnels.append(tunnelRecord(i));
  }
  return tunnels;
}

std::string replyWith(const Json::Value& tunnels) {
  Json::Value reply;
  reply["code"] = 200;
  reply["result"]["greTunnels"] = Json::Value(Json::arrayValue);
  reply["result"]["ipsecTunnels"] = tunnels;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, reply);
}

double parseSeconds(const std::string& reply) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  return bench::secondsOf([&] {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    const char* const begin = reply.data();
    bench::require(reader->parse(begin, begin + reply.size(), &root, nullptr), "bad JSON");
  });
}

double textSeconds(const Json::Value& tunnels) {
  const std::string authLines = connSetting("authby", "secret") +
                                connSetting("leftid", "\"gateway.example\"") +
                                connSetting("rightid", "\"peer.example\"");
  return bench::secondsOf([&] {
    for (const Json::Value& tunnel : tunnels) {
      bench::require(!buildConnSection(tunnel, wanAddress, authLines).empty(), "no text");
    }
  });
}

double filesSeconds(const Json::Value& tunnels) {
  std::string conf;
  defaultIpsecConf(conf);
  bench::require(writeFile(ipsecConfPath(), conf) && writeFile(ipsecSecretsPath(), ""),
                 "the files cannot be written");
  return bench::secondsOf([&] {
    bench::require(ipsecManager().createIpsecTunnels(tunnels, wanAddress), "no tunnel was written");
  });
}

void compareWithParsing(const Json::Value& tunnels) {
  const std::string reply = replyWith(tunnels);
  std::vector<double> textRatios;
  std::vector<double> filesRatios;
  for (std::size_t round = 0; round < roundCount; ++round) {
    const double parsing = parseSeconds(reply);
    textRatios.push_back(textSeconds(tunnels) / parsing);
    filesRatios.push_back(filesSeconds(tunnels) / parsing);
  }
  bench::report("IPsec: text of 1,000 tunnels, 4 x 4 subnets / parsing their JSON",
                bench::median(textRatios), "< 1.00");
  bench::report("IPsec: text and files of 1,000 tunnels / parsing their JSON",
                bench::median(filesRatios), "-");
}

/// Many tunnels in lists of a length.
std::vector<Json::Value> listsOf(std::size_t length) {
  std::vector<Json::Value> lists;
  for (std::size_t first = 0; first < many; first += length) {
    lists.push_back(tunnelRecords(first, length));
  }
  return lists;
}

using Measure = double (*)(const Json::Value& tunnels);

double growth(const std::map<std::size_t, std::vector<Json::Value>>& lists, Measure measure) {
  return bench::growth(few, many, [&](std::size_t length) {
    double seconds = 0;
    for (const Json::Value& tunnels : lists.at(length)) {
      seconds += measure(tunnels);
    }
    return seconds;
  });
}

}  // namespace

int main() {
  VEXA::Logger::setPrintLevel(0, true);
  mkdir("/var/run/ipsec", 0755);
  compareWithParsing(tunnelRecords(0, usual));
  const std::map<std::size_t, std::vector<Json::Value>> lists{{few, listsOf(few)},
                                                              {many, listsOf(many)}};
  bench::report("IPsec: text of 10,000 tunnels in one list / in lists of 100",
                growth(lists, textSeconds), "<= 1.25");
  bench::report("IPsec: text and files of 10,000 tunnels in one list / in lists of 100",
                growth(lists, filesSeconds), "<= 1.25");
  return 0;
}
