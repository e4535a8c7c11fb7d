#include "ovpn/ovpn_child.hpp"

#include "ovpn/ovpn_tnl.hpp"
#include "platform/logger.hpp"
#include "platform/system.hpp"
#include "state/manager_state.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace tunnel_mngr {

namespace {

constexpr unsigned firstOwnDescriptor = 3;

/// The daemon creates its files with explicit modes and an open mask. What a child creates
/// must not be writable by everybody: directories of client configurations, for instance.
constexpr mode_t childUmask = 022;

/// Lets the kernel end this process with the daemon.
void endWithDaemon(pid_t daemonPid) {
  const int result = prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (result != 0) {
    VEXA_LOG(ERROR, "[%s][OVPN] failed setup notify 'perent terminated' in OvpnTnl restart",
             managerTag);
    _exit(result);
  }
  // A daemon that ended before the call above is told of by nobody.
  if (getppid() != daemonPid) {
    _exit(128 + SIGTERM);
  }
}

bool isMissingDirectory(const std::string& path) {
  DIR* const directory = opendir(path.c_str());
  if (directory == nullptr) {
    return errno == ENOENT;
  }
  closedir(directory);
  return false;
}

bool provideDirectory(const std::string& path) {
  // A directory that is there but cannot be read is openvpn's to complain about.
  if (path.empty() || !isMissingDirectory(path)) {
    return true;
  }
  const std::string command = "mkdir -p " + path;
  VEXA_LOG(TRACE, "%s", command.c_str());
  std::string output;
  const int status = VEXA::System::cmd(command, output);
  if (status != 0) {
    VEXA_LOG(ERROR, "[%s][OVPN] error make config directory command [%d]", managerTag, status);
    return false;
  }
  VEXA_LOG(ERROR, "[%s][OVPN] %s didn't exist. it has been created", managerTag, path.c_str());
  return true;
}

/// For kernels that cannot do it in one call.
void closeListedDescriptorsOnExec() {
  DIR* const descriptors = opendir("/proc/self/fd");
  if (descriptors == nullptr) {
    return;  // What the daemon opens itself is close-on-exec anyway.
  }
  while (const dirent* const entry = readdir(descriptors)) {
    const unsigned long number = std::strtoul(entry->d_name, nullptr, 10);  // "." counts as 0
    if (number >= firstOwnDescriptor) {
      fcntl(static_cast<int>(number), F_SETFD, FD_CLOEXEC);
    }
  }
  closedir(descriptors);
}

void closeDescriptorsOnExec() {
  if (close_range(firstOwnDescriptor, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
    closeListedDescriptorsOnExec();
  }
}

/// The daemon's handlers go before any signal may arrive. exec would keep ignored signals
/// ignored, and a thread of the daemon may have been ignoring SIGPIPE at the fork.
void useDefaultSignals() {
  for (int number = 1; number < NSIG; ++number) {
    signal(number, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace

bool becomeOpenvpn(const OvpnTnl& tunnel, pid_t daemonPid) {
  endWithDaemon(daemonPid);
  const mode_t daemonUmask = umask(childUmask);
  if (!provideDirectory(tunnel.clientConfigDir)) {
    umask(daemonUmask);
    return false;
  }
  closeDescriptorsOnExec();
  useDefaultSignals();
  const int result =
      execlp("openvpn", "openvpn", "--config", tunnel.confFile.c_str(), "--status",
             tunnel.statusFile.c_str(), "1", "--syslog", "openvpn", static_cast<char*>(nullptr));
  VEXA_LOG(ERROR, "[%s][OVPN] failed exec openvpn", managerTag);
  _exit(result);
}

}  // namespace tunnel_mngr
