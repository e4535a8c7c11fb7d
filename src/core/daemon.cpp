#include "core/daemon.hpp"

#include "core/main_loop.hpp"
#include "core/management_cycle.hpp"
#include "core/signals.hpp"
#include "core/single_instance.hpp"
#include "platform/logger.hpp"
#include "state/manager_state.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace tunnel_mngr {

namespace {

/// @return false when the cycle threw; this has been logged.
bool runFirstCycle() {
  bool done = true;
  managerLock->lock();
  try {
    // What fails has been logged, and no caller of the program waits for an answer.
    static_cast<void>(manageTunnels());
  } catch (...) {
    reportException();
    done = false;
  }
  managerLock->unlock();
  return done;
}

/// Only the child returns.
void detach() {
  const pid_t child = fork();
  if (child < 0) {
    std::exit(1);
  }
  if (child > 0) {
    std::exit(0);
  }
  umask(0);
  if (setsid() < 0) {
    std::exit(1);
  }
}

}  // namespace

int runOnce() {
  const bool done = runFirstCycle();
  if (!stopRequested) {
    cleanUp();
  }
  return done ? 0 : 1;
}

int runDaemon(WanMonitor& wanMonitor) {
  detach();
  writePidFile();
  installSignalHandlers();
  if (!runFirstCycle()) {
    refreshRequested = 1;
  }
  VEXA_LOG(INFO, "Starting WAN and FQDN monitors");
  wanMonitor.start();
  startFqdnMonitors();
  runMainLoop();
  blockSignals();
  return 0;
}

}  // namespace tunnel_mngr
