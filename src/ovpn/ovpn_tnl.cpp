#include "ovpn/ovpn_tnl.hpp"

#include "ovpn/conf.hpp"
#include "ovpn/ovpn_child.hpp"
#include "ovpn/run_file.hpp"
#include "platform/logger.hpp"
#include "platform/system.hpp"
#include "state/manager_state.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <list>

namespace tunnel_mngr {

namespace {

constexpr char pingCount[] = "3";
constexpr mode_t connectFileMode = 0644;

/// The supervised tunnels, in the configuration's order. Freed at exit without touching the
/// children.
std::list<OvpnTnl> tunnels;

/// Blocks all signals for its lifetime.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
  }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

 private:
  sigset_t before{};
};

void writeConnectFile(const std::string& path, bool connected) {
  switch (writeRunFile(path, connectFileMode, connected ? "connected" : "")) {
    case WriteResult::done:
      break;
    case WriteResult::notOpened:
      VEXA_LOG(ERROR, "[%s][OVPN] could not open connect file %s", managerTag, path.c_str());
      break;
    case WriteResult::notWritten:
      VEXA_LOG(ERROR, "[%s][OVPN] could not write connect file %s", managerTag, path.c_str());
      break;
  }
}

}  // namespace

bool OvpnTnl::isRunning() {
  pid_t ended = waitpid(pid, nullptr, WNOHANG);
  while (ended < 0 && errno == EINTR) {
    ended = waitpid(pid, nullptr, WNOHANG);
  }
  if (ended > 0 || (ended < 0 && errno == ECHILD)) {
    pid = 0;
    return false;
  }
  return true;
}

void OvpnTnl::stop() {
  while (pid > 0) {
    kill(pid, SIGTERM);
    const pid_t ended = waitpid(pid, nullptr, WNOHANG);
    if (ended > 0 || (ended < 0 && errno == ECHILD)) {
      pid = 0;
    } else if (ended == 0 || errno != EINTR) {
      sleep(1);
    }
  }
}

bool OvpnTnl::restart() {
  if (pid > 0) {
    stop();
  }
  const pid_t daemonPid = getpid();
  // No handler of the daemon may run in the child: that of SIGTERM would remove the daemon's
  // PID file.
  const BlockedSignals blocked;
  pid = fork();
  if (pid < 0) {
    VEXA_LOG(ERROR, "[%s][OVPN] failed fork in OvpnTnl restart", managerTag);
    pid = 0;
    return false;
  }
  return pid > 0 || becomeOpenvpn(*this, daemonPid);
}

void OvpnTnl::ping() {
  if (pingAddress.empty()) {
    return;
  }
  VEXA_LOG(ERROR, "[%s][OVPN] ping %s", managerTag, pingAddress.c_str());
  const std::string command = std::string("ping -c ") + pingCount + " " + pingAddress;
  VEXA_LOG(TRACE, "%s", command.c_str());
  std::string output;
  writeConnectFile(connectFile, VEXA::System::cmd(command, output) == 0);
}

void stopOvpnTunnels() {
  for (OvpnTnl& tunnel : tunnels) {
    tunnel.stop();
  }
  tunnels.clear();
}

void startOvpnTunnels() {
  stopOvpnTunnels();
  for (const OvpnConfEntry& entry : Conf::tunnels()) {
    OvpnTnl& tunnel = tunnels.emplace_back();
    tunnel.confFile = entry.confFile;
    tunnel.statusFile = entry.statusFile;
    tunnel.clientConfigDir = entry.clientConfigDir;
    tunnel.connectFile = entry.connectFile;
    tunnel.pingAddress = entry.pingAddress;
    tunnel.pingCheck = entry.pingCheck;
  }
  for (OvpnTnl& tunnel : tunnels) {
    tunnel.restart();
  }
}

void checkOvpnTunnels() {
  for (OvpnTnl& tunnel : tunnels) {
    if (tunnel.pid < 1 || !tunnel.isRunning()) {
      tunnel.restart();
    } else if (tunnel.pingCheck) {
      tunnel.ping();
    }
  }
}

}  // namespace tunnel_mngr
