// With the platform's real threads: how the monitor ends while its thread is just beginning.

#include "monitor/wan_monitor.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

namespace tunnel_mngr {
namespace {

std::string unchanged() {
  return "10.0.0.2";
}

TEST(WanMonitorEnd, IsSafeWhileTheThreadIsJustBeginning) {
  for (int repetition = 0; repetition < 10000; ++repetition) {
    auto monitor =
        std::make_unique<WanMonitor>(managerLock, managerCondition, unchanged, "10.0.0.2");
    monitor->start();
    // Every moment of the thread's beginning is to be met.
    for (int step = 0; step < repetition % 40; ++step) {
      std::this_thread::yield();
    }
    monitor.reset();
  }
  EXPECT_EQ(managerLock.useCount(), 1U);
  EXPECT_EQ(managerCondition.useCount(), 1U);
}

}  // namespace
}  // namespace tunnel_mngr
