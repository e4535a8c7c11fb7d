#pragma once

#include "core/core_test.hpp"
#include "core/main_loop.hpp"
#include "monitor/fqdn_monitor.hpp"

#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace tunnel_mngr {

/// The loop remembers its last check for the life of the process: each test begins later.
inline std::time_t testStart = 1700000000;

class MainLoop : public CoreTest {
 protected:
  MainLoop() {
    fake::traceLocks = true;
    testStart += 100000;
    now = testStart;
    fake::calls.times = {now};
  }
  ~MainLoop() override {
    dropFqdnMonitors();
    for (const FqdnMonitor* const monitor : startedMonitors) {
      delete monitor;
    }
  }

  /// Ends the loop in this one of its waits, the first being 1, and does before it what the
  /// test wants to happen in each wait.
  void runUntilWait(int last, const std::function<void(int)>& duringWait = nullptr) {
    int waits = 0;
    fake::onWait = [&waits, last, &duringWait](unsigned) {
      ++waits;
      if (waits >= last) {
        stopRequested = true;
      }
      if (duringWait) {
        duringWait(waits);
      }
    };
    runMainLoop();
    fake::onWait = nullptr;
  }

  /// Sets the clock, in seconds after the test's begin.
  void setClock(int seconds) { fake::calls.times = {now + seconds}; }

  /// Makes every pull add one monitor for each of these tunnels.
  void pullMonitors(const std::vector<std::string>& names) {
    fake::rooms.wanIp = "10.0.0.2";
    fake::rooms.onCall = [this, names](const std::string& entry) {
      if (entry == "pullConfigurations") {
        addMonitors(names);
      }
    };
  }

  void addMonitors(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      fqdnMonitors.push_back(
          new FqdnMonitor(managerLock, managerCondition, "192.0.2.7", "192.0.2.7", 1, name));
    }
  }

  /// The monitors that the loop has started stay the test's to delete.
  void keepStarted() {
    startedMonitors.insert(startedMonitors.end(), fqdnMonitors.begin(), fqdnMonitors.end());
  }

  std::time_t now;
  std::vector<FqdnMonitor*> startedMonitors;
};

}  // namespace tunnel_mngr
