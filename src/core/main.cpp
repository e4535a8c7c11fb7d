#include "api/wan_state.hpp"
#include "core/command_line.hpp"
#include "core/daemon.hpp"
#include "core/single_instance.hpp"
#include "monitor/wan_monitor.hpp"
#include "platform/auto_ptr.hpp"
#include "platform/logger.hpp"
#include "state/manager_state.hpp"

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <exception>
#include <string>

namespace tunnel_mngr {

namespace {

/// Lives as long as the process; its end stops the monitor's thread.
VEXA::AutoPtr<WanMonitor> wanMonitor;

/// A program that was started with closed descriptors would open files and sockets in their
/// place, and its records would go there.
void provideStandardDescriptors() {
  int opened = 0;
  while (opened >= 0 && opened <= STDERR_FILENO) {
    opened = open("/dev/null", O_RDWR);
  }
  close(opened);
}

/// One heap for all threads: a thousand monitors that mostly sleep need none of their own.
void limitHeaps() {
  mallopt(M_ARENA_MAX, 1);
}

void setUpLogging() {
  VEXA::Logger::setPrintLevel(VEXA::Logger::PrintLevel::ERROR_LEVEL, true);
  if (!VEXA::Logger::setup(VEXA::Logger::STANDARD_ERROR_AND_SYSLOG, managerTag, 0, 0)) {
    VEXA::Logger::setup(VEXA::Logger::STANDARD_ERROR);
    VEXA::Logger::printfWarning("[%s] Unable to log to Syslog", managerTag);
  }
}

/// A reply of the wrong shape must not keep the daemon from starting.
std::string seedWanIp() {
  try {
    return getCurrentWanIp();
  } catch (const std::exception& exception) {
    VEXA_LOG(ERROR, "[WAN_MONITOR] Could not read WAN information: %s", exception.what());
    return "";
  }
}

void createWanMonitor() {
  wanMonitor.reset(new WanMonitor(managerLock, managerCondition, &getCurrentWanIp, seedWanIp()));
}

}  // namespace

}  // namespace tunnel_mngr

int main(int argc, char* argv[]) {
  using namespace tunnel_mngr;
  provideStandardDescriptors();
  limitHeaps();
  setUpLogging();
  parseCommandLine(argc, argv);
  checkRunningInstance();
  createWanMonitor();
  return daemonize ? runDaemon(*wanMonitor) : runOnce();
}
