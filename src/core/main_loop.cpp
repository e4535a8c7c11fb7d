#include "core/main_loop.hpp"

#include "core/management_cycle.hpp"
#include "monitor/fqdn_monitor.hpp"
#include "ovpn/ovpn_tnl.hpp"
#include "platform/logger.hpp"
#include "state/manager_state.hpp"

#include <ctime>
#include <exception>

namespace tunnel_mngr {

namespace {

constexpr unsigned waitMs = 200;
constexpr std::time_t ovpnCheckSeconds = 10;

std::time_t lastOvpnCheck = 0;
bool monitorsStarted = false;

void refresh() {
  dropFqdnMonitors();
  // What fails has been logged; the next refresh builds everything anew in any case.
  static_cast<void>(manageTunnels());
  startFqdnMonitors();
  refreshRequested = 0;
}

void checkOvpnTunnelsWhenDue() {
  const std::time_t now = std::time(nullptr);
  if (now == -1) {
    VEXA_LOG(ERROR, "time(NULL) returned error");
  } else if (now - lastOvpnCheck > ovpnCheckSeconds) {
    lastOvpnCheck = now;
    checkOvpnTunnels();
  }
}

void takeTurn() {
  if (refreshRequested == 0) {
    managerCondition->wait(waitMs);
  }
  if (refreshRequested != 0 && !stopRequested) {
    refresh();
  }
  checkOvpnTunnelsWhenDue();
}

}  // namespace

void startFqdnMonitors() {
  VEXA_LOG(INFO, "Number of FQDN monitors is %i", static_cast<int>(fqdnMonitors.size()));
  for (FqdnMonitor* const monitor : fqdnMonitors) {
    monitor->start();
  }
  monitorsStarted = true;
}

void dropFqdnMonitors() {
  for (FqdnMonitor* const monitor : fqdnMonitors) {
    monitor->stop();
    if (!monitorsStarted) {
      // Left by a cycle that threw. Nobody else knows them, and a configuration that makes
      // every cycle throw must not eat the gateway's memory.
      delete monitor;
    }
  }
  fqdnMonitors.clear();
  monitorsStarted = false;
}

void runMainLoop() {
  while (!stopRequested) {
    managerLock->lock();
    try {
      takeTurn();
    } catch (...) {
      reportException();
      // Neither spins nor keeps the monitors from the lock while every turn throws.
      managerCondition->wait(waitMs);
    }
    managerLock->unlock();
  }
}

void reportException() {
  VEXA_LOG(ERROR, "Exception caught while waiting on signal");
  try {
    throw;
  } catch (const std::exception& exception) {
    VEXA_LOG(DEBUG, "The exception says: %s", exception.what());
  } catch (...) {
    VEXA_LOG(DEBUG, "The exception says nothing");
  }
}

}  // namespace tunnel_mngr
