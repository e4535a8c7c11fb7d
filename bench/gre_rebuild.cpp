// What a rebuild of 1,000 GRE tunnels costs beyond its commands: the manager's own functions
// on the real platform library, against the same commands started the shortest way and
// through a shell. The commands do nothing.
#include "bench/bare_command.hpp"
#include "bench/measure.hpp"
#include "gre/gre_creation.hpp"
#include "gre/gre_teardown.hpp"
#include "state/manager_state.hpp"

#include <json/json.h>

#include <algorithm>
#include <array>
#include <fstream>

using namespace tunnel_mngr;

namespace {

constexpr std::size_t tunnelCount = 1000;
constexpr std::size_t sliceSize = 25;
constexpr std::size_t roundCount = 5;

struct Site {
  std::string name;
  Json::Value entry;
  std::vector<std::string> lines;  ///< The commands of teardown and creation, in order.
};

std::string address(const std::string& prefix, std::size_t number) {
  return prefix + std::to_string(number / 250) + "." + std::to_string(number % 250 + 1);
}

Json::Value entryOf(const std::string& name, std::size_t number) {
  Json::Value entry;
  entry["name"] = name;
  entry["remoteIp"] = address("203.0.", number);
  entry["ttl"] = 64;
  entry["tunnelIp"] = address("10.1.", number);
  entry["tunnelMask"] = "30";
  entry["routes"][0]["ip"] = address("10.2.", number);
  entry["routes"][0]["mask"] = 32;
  return entry;
}

std::string hookLine(const std::string& name, const char* direction) {
  return std::string(greHook) + " -n " + name + " -d " + direction;
}

std::vector<std::string> linesOf(const Json::Value& entry) {
  const std::string name = entry["name"].asString();
  const Json::Value& route = entry["routes"][0];
  return {"ip link set " + name + " down",
          "ip tunnel del " + name,
          hookLine(name, "down"),
          greAddCommand(name, entry["remoteIp"].asString(), currentWanIp, "64"),
          greLinkUpCommand(name),
          greAddressCommand(name, entry["tunnelIp"].asString(), entry["tunnelMask"].asString()),
          greRouteCommand(name, route["ip"].asString() + "/32"),
          hookLine(name, "up")};
}

std::vector<Site> makeSites() {
  std::vector<Site> sites;
  for (std::size_t i = 0; i < tunnelCount; ++i) {
    const std::string name = "site" + std::to_string(i);
    const Json::Value entry = entryOf(name, i);
    sites.push_back({name, entry, linesOf(entry)});
  }
  return sites;
}

/// What the command `ip tunnel` shows.
void listInKernel(const std::vector<Site>& sites) {
  std::ofstream list("/run/gre-tunnels");
  for (const Site& site : sites) {
    list << site.name << ": gre/ip remote " << site.entry["remoteIp"].asString() << " local "
         << currentWanIp << " ttl 64\n";
  }
}

/// One way to rebuild: what it does once, and what it does for each tunnel.
struct Way {
  void (*discover)();
  void (*rebuild)(const Site& site);
};

void discoverByManager() {
  Json::Value tunnels;
  std::vector<std::string> names;
  bench::require(discoverGreTunnels(tunnels, names) && names.size() == tunnelCount,
                 "the tunnels were not discovered");
}

void rebuildByManager(const Site& site) {
  bench::require(destroyGreTunnel(site.name) && createGreTunnel(site.entry),
                 "a tunnel was not rebuilt");
}

void discoverBare() {
  bench::runBareUnheard("ip tunnel");
}

void rebuildBare(const Site& site) {
  std::for_each(site.lines.begin(), site.lines.end(), bench::runBare);
}

void discoverInShell() {
  bench::runInShell("ip tunnel");
}

void rebuildInShell(const Site& site) {
  std::for_each(site.lines.begin(), site.lines.end(), bench::runInShell);
}

constexpr std::array<Way, 3> ways{{{discoverByManager, rebuildByManager},
                                   {discoverBare, rebuildBare},
                                   {discoverInShell, rebuildInShell}}};

using Seconds = std::array<double, ways.size()>;

void measureSlice(const std::vector<Site>& sites, std::size_t first, Seconds& spent) {
  const std::size_t last = std::min(first + sliceSize, sites.size());
  for (std::size_t turn = 0; turn < ways.size(); ++turn) {
    // Each way comes first, and last, equally often.
    const std::size_t way = (turn + first / sliceSize) % ways.size();
    spent[way] += bench::secondsOf([&] {
      for (std::size_t i = first; i < last; ++i) {
        ways[way].rebuild(sites[i]);
      }
    });
  }
}

/// One complete rebuild each way, in slices that take turns.
Seconds measureRound(const std::vector<Site>& sites) {
  Seconds spent{};
  for (std::size_t way = 0; way < ways.size(); ++way) {
    spent[way] += bench::secondsOf(ways[way].discover);
  }
  for (std::size_t first = 0; first < sites.size(); first += sliceSize) {
    measureSlice(sites, first, spent);
  }
  return spent;
}

}  // namespace

int main() {
  currentWanIp = "198.51.100.2";
  const std::vector<Site> sites = makeSites();
  listInKernel(sites);
  std::vector<double> toBare;
  std::vector<double> toShell;
  for (std::size_t round = 0; round < roundCount; ++round) {
    const Seconds spent = measureRound(sites);
    toBare.push_back(spent[0] / spent[1]);
    toShell.push_back(spent[0] / spent[2]);
  }
  bench::report("GRE: rebuild of 1,000 tunnels / bare posix_spawn loop", bench::median(toBare),
                "<= 1.10");
  bench::report("GRE: rebuild of 1,000 tunnels / the same lines through sh -c",
                bench::median(toShell), "< 0.50");
  return 0;
}
