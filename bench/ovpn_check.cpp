// One periodic check over 1,000 live OpenVPN children, against the system calls that it cannot
// do without: asking the kernel for each child, and starting the pings.
#include "bench/bare_command.hpp"
#include "bench/measure.hpp"
#include "bench/scripted_api.hpp"
#include "ovpn/conf.hpp"
#include "ovpn/ovpn_tnl.hpp"
#include "platform/logger.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iterator>

using namespace tunnel_mngr;

namespace {

constexpr std::size_t few = 100;
constexpr std::size_t usual = 1000;
constexpr std::size_t roundCount = 5;
constexpr std::size_t checkCount = 200;
constexpr std::size_t pingRoundCount = 50;
constexpr char tlsConfig[] = "dev tun\n<ca>\n</ca>\n";
constexpr char pingedConfig[] = "dev tun\nifconfig 10.8.0.1 10.8.0.2\n";

/// Seconds.
struct Cost {
  double check;
  double bare;
};

std::vector<pid_t> ownChildren() {
  const std::string self = std::to_string(getpid());
  std::ifstream list("/proc/self/task/" + self + "/children");
  return {std::istream_iterator<pid_t>(list), std::istream_iterator<pid_t>()};
}

std::vector<pid_t> startChildren(std::size_t count, const char* config) {
  bench::offerOvpnTunnels(bench::ovpnTunnels(0, count, config));
  bench::require(Conf::init(), "the configurations were not accepted");
  startOvpnTunnels();
  sleep(1);  // Until all are at rest.
  std::vector<pid_t> children = ownChildren();
  bench::require(children.size() == count, "not all children live");
  return children;
}

/// @return the costs of each child.
Cost measureWatch(std::size_t count) {
  const std::vector<pid_t> children = startChildren(count, tlsConfig);
  std::vector<double> checks;
  std::vector<double> bares;
  for (std::size_t i = 0; i < checkCount; ++i) {
    checks.push_back(bench::secondsOf(checkOvpnTunnels));
    bares.push_back(bench::secondsOf([&] {
      for (const pid_t child : children) {
        bench::require(waitpid(child, nullptr, WNOHANG) == 0, "a child has ended");
      }
    }));
  }
  const auto each = static_cast<double>(count);
  return {bench::median(checks) / each, bench::median(bares) / each};
}

Cost measurePings(std::size_t count) {
  startChildren(count, pingedConfig);
  Cost cost{};
  for (std::size_t i = 0; i < pingRoundCount; ++i) {
    cost.check += bench::secondsOf(checkOvpnTunnels);
    cost.bare += bench::secondsOf([&] {
      for (std::size_t child = 0; child < count; ++child) {
        bench::runBare("ping -c 3 10.8.0.2");
      }
    });
  }
  return cost;
}

/// Measures in a process of its own: the children end with it, at once and all together.
Cost apart(Cost (*measure)(std::size_t), std::size_t count) {
  std::array<int, 2> ends{};
  bench::require(pipe(ends.data()) == 0, "no pipe");
  const pid_t pid = fork();
  bench::require(pid >= 0, "no process");
  if (pid == 0) {
    const Cost cost = measure(count);
    bench::require(write(ends[1], &cost, sizeof cost) == sizeof cost, "no result");
    _exit(0);
  }
  close(ends[1]);
  Cost cost{};
  bench::require(read(ends[0], &cost, sizeof cost) == sizeof cost, "no result");
  close(ends[0]);
  waitpid(pid, nullptr, 0);
  return cost;
}

void reportWatch() {
  std::vector<double> ratios;
  std::vector<double> growths;
  std::vector<double> costs;
  for (std::size_t round = 0; round < roundCount; ++round) {
    const Cost small = apart(measureWatch, few);
    const Cost large = apart(measureWatch, usual);
    ratios.push_back(large.check / large.bare);
    growths.push_back(large.check / small.check);
    costs.push_back(large.check);
  }
  bench::report("OpenVPN: check of 1,000 live children / bare waitpid loop", bench::median(ratios),
                "<= 1.50");
  bench::report("OpenVPN: check of 1,000 live children, each / of 100 each", bench::median(growths),
                "<= 1.50");
  bench::report("OpenVPN: check of a live child, microseconds", bench::median(costs) * 1e6, "-");
}

/// Few children at a time, so that both ways meet the same moments.
void reportPings() {
  const Cost cost = apart(measurePings, few);
  bench::report("OpenVPN: check with pings of 100 / bare posix_spawn loop", cost.check / cost.bare,
                "<= 1.25");
}

}  // namespace

int main() {
  VEXA::Logger::setPrintLevel(0, true);
  reportWatch();
  reportPings();
  return 0;
}
