#pragma once

#include "core/command_line.hpp"
#include "core/fake_calls.hpp"
#include "core/fake_rooms.hpp"
#include "state/manager_state.hpp"
#include "support/recorded_test.hpp"

#include <cstdio>
#include <cstdlib>

namespace tunnel_mngr {

/// A test of the core: begins and ends as the process does.
class CoreTest : public support::RecordedTest {
 protected:
  CoreTest() { startAnew(); }
  ~CoreTest() override { startAnew(); }

 private:
  static void startAnew() {
    fake::calls = fake::Calls();
    fake::rooms = fake::Rooms();
    daemonize = false;
    stopRequested = false;
    refreshRequested = 0;
    currentWanIp.clear();
    fqdnMonitors.clear();
  }
};

/// Writes the trace to standard error, where a death test compares it, line by line.
inline void printTrace() {
  for (const std::string& entry : fake::takeTrace()) {
    std::fprintf(stderr, "%s\n", entry.c_str());
  }
}

/// The same for a statement that ends in exit().
inline void printTraceAtExit() {
  std::atexit(printTrace);
}

}  // namespace tunnel_mngr
