// Reading and rewriting OpenVPN configurations of 8 KiB each: whether the cost grows only with
// their number, and how it compares with writing the same files and doing nothing else.
#include "bench/measure.hpp"
#include "bench/scripted_api.hpp"
#include "ovpn/conf.hpp"
#include "platform/logger.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <utility>

using namespace tunnel_mngr;

namespace {

constexpr std::size_t roundCount = 7;
constexpr std::size_t few = 100;
constexpr std::size_t usual = 1000;
constexpr std::size_t many = 10000;

/// A TLS tunnel's configuration with its certificates inline, 8 KiB long.
std::string longConfig() {
  std::string text =
      "# site to site\nclient\nproto udp\nremote vpn.example 1194\n  dev tun ; the device\n"
      "nobind\npersist-key\npersist-tun\nremote-cert-tls server\ncipher AES-256-GCM\n"
      "keepalive 10 60\nverb 3\n<ca>\n-----BEGIN CERTIFICATE-----\n";
  while (text.size() < 8192 - 100) {
    text += std::string(64, 'M') + "\n";
  }
  return text + "-----END CERTIFICATE-----\n</ca>\n";
}

double readSeconds(Json::Value tunnels) {
  bench::offerOvpnTunnels(std::move(tunnels));
  const double seconds = bench::secondsOf(
      [] { bench::require(Conf::init(), "the configurations were not accepted"); });
  bench::require(!Conf::tunnels().empty(), "no configuration was written");
  return seconds;
}

bool writeFile(const std::string& path, const std::string& text) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const ssize_t written = write(file, text.data(), text.size());
  return close(file) == 0 && written == static_cast<ssize_t>(text.size());
}

/// The same files written with the text at hand.
double writeSeconds(std::size_t count, const std::string& text) {
  return bench::secondsOf([&] {
    for (std::size_t i = 0; i < count; ++i) {
      bench::require(writeFile("/var/run/openvpn_" + std::to_string(i) + ".conf", text),
                     "a file was not written");
    }
  });
}

using MakeList = Json::Value (*)(std::size_t first, std::size_t count);

/// What many tunnels cost in one list, in terms of lists of a length.
double growth(std::size_t shortLength, MakeList makeList) {
  return bench::growth(shortLength, many, [&](std::size_t length) {
    std::vector<Json::Value> lists;
    for (std::size_t first = 0; first < many; first += length) {
      lists.push_back(makeList(first, length));
    }
    double seconds = 0;
    for (Json::Value& tunnels : lists) {
      seconds += readSeconds(std::move(tunnels));
    }
    return seconds;
  });
}

Json::Value longOnes(std::size_t first, std::size_t count) {
  return bench::ovpnTunnels(first, count, longConfig());
}

/// Every name twice: each second half is nothing but the check.
Json::Value everyNameTwice(std::size_t first, std::size_t count) {
  Json::Value tunnels = bench::ovpnTunnels(first, count / 2, "dev tun\n");
  for (const Json::Value& tunnel : Json::Value(tunnels)) {
    tunnels.append(tunnel);
  }
  return tunnels;
}

void measureGrowth() {
  bench::report("OpenVPN: 10,000 configurations of 8 KiB in one list / in lists of 100",
                growth(few, longOnes), "<= 1.25");
  bench::report("OpenVPN: 10,000 configurations of 8 KiB in one list / in lists of 1,000",
                growth(usual, longOnes), "<= 1.25");
  bench::report("OpenVPN: 10,000 short ones, all names twice, in one list / in lists of 100",
                growth(few, everyNameTwice), "<= 1.25");
}

void measureAgainstWriting() {
  const std::string config = longConfig();
  std::vector<double> ratios;
  for (std::size_t round = 0; round < roundCount; ++round) {
    const double reading = readSeconds(longOnes(0, usual));
    ratios.push_back(reading / writeSeconds(usual, config));
  }
  bench::report("OpenVPN: reading and rewriting 1,000 of 8 KiB / writing the files alone",
                bench::median(ratios), "-");
}

}  // namespace

int main() {
  VEXA::Logger::setPrintLevel(0, true);
  readSeconds(longOnes(0, many));  // The files exist from now on.
  measureGrowth();
  measureAgainstWriting();
  return 0;
}
