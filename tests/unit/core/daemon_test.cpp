#include "core/daemon.hpp"

#include "core/core_test.hpp"
#include "core/main_loop.hpp"
#include "core/single_instance.hpp"
#include "monitor/fqdn_monitor.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::ExitedWithCode;

constexpr char caught[] = "ERROR Exception caught while waiting on signal";

std::string noWan() {
  return "";
}

class Daemon : public CoreTest {
 protected:
  Daemon() {
    checkRunningInstance();
    fake::takeTrace();
    fake::traceLocks = true;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  }
  ~Daemon() override {
    cleanUp();
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  }

  /// Runs the daemon in this process until its loop's first wait.
  int runUntilWait() {
    fake::calls.forkScripted = true;
    fake::calls.times = {-1};
    fake::onWait = [](unsigned) { stopRequested = true; };
    const int status = runDaemon(wanMonitor);
    fake::calls.forkScripted = false;
    return status;
  }

  WanMonitor wanMonitor{managerLock, managerCondition, noWan, ""};

 private:
  sigset_t mask;
};

using DaemonDeathTest = Daemon;

// --- one rebuild

TEST_F(Daemon, RunsOneCycleAndGivesItsPlaceUp) {
  EXPECT_EQ(runOnce(), 0);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lock", "INFO Managing tunnels", "discoverGreTunnels", "Conf::init",
                          "stopIpsec", "stopOvpnTunnels", "getCurrentWanIp",
                          "TRACE WAN address is not acquired. Tunnels will not be setup until WAN "
                          "is available.",
                          "unlock", "sem_unlink TUNNEL_MANAGER", "sem_close"));
}

TEST_F(Daemon, SucceedsWithOneCycleThatFailed) {
  fake::rooms.discovers = false;
  EXPECT_EQ(runOnce(), 0);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("lock", "INFO Managing tunnels", "discoverGreTunnels",
                                             "unlock", "sem_unlink TUNNEL_MANAGER", "sem_close"));
}

TEST_F(Daemon, StartsNoMonitorForOneCycle) {
  fake::setPrintLevel(30);
  fake::rooms.wanIp = "10.0.0.2";
  fake::rooms.onCall = [](const std::string& entry) {
    if (entry == "pullConfigurations") {
      fqdnMonitors.push_back(
          new FqdnMonitor(managerLock, managerCondition, "192.0.2.7", "192.0.2.7", 1, "a"));
    }
  };
  EXPECT_EQ(runOnce(), 0);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lock", "INFO Managing tunnels", "discoverGreTunnels", "Conf::init",
                          "stopIpsec", "stopOvpnTunnels", "getCurrentWanIp", "pullConfigurations",
                          "setupIpsecTunnels 10.0.0.2 []", "cmd firewall --init",
                          "startOvpnTunnels", "unlock", "sem_unlink TUNNEL_MANAGER", "sem_close"));
  ASSERT_EQ(fqdnMonitors.size(), 1U);
  delete fqdnMonitors[0];
}

TEST_F(Daemon, FailsWithOneCycleThatThrew) {
  fake::setPrintLevel(10);
  fake::rooms.onCall = [](const std::string&) { throw std::runtime_error("a bad reply"); };
  EXPECT_EQ(runOnce(), 1);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("lock", "discoverGreTunnels", caught, "unlock",
                                             "sem_unlink TUNNEL_MANAGER", "sem_close"));
}

TEST_F(Daemon, CleansUpOnlyOnceAfterOneCycle) {
  stopRequested = true;
  fake::rooms.discovers = false;
  EXPECT_EQ(runOnce(), 0);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lock", "INFO Managing tunnels", "discoverGreTunnels", "unlock"));
}

// --- the daemon

TEST_F(Daemon, DetachesRebuildsAndStartsItsMonitors) {
  fake::rooms.wanIp = "10.0.0.2";
  fake::rooms.onCall = [](const std::string& entry) {
    if (entry == "pullConfigurations") {
      for (const char* name : {"a", "b"}) {
        fqdnMonitors.push_back(
            new FqdnMonitor(managerLock, managerCondition, "192.0.2.7", "192.0.2.7", 1, name));
      }
    }
  };
  EXPECT_EQ(runUntilWait(), 0);
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre(
          "fork", "umask 0", "setsid", "open /var/run/tunnel_mngr.pid truncated 644 close-on-exec",
          "write " + std::to_string(getpid()) + "\n", "close", "signal 1 onSighup",
          "signal 15 onSigterm", "lock", "INFO Managing tunnels", "discoverGreTunnels",
          "Conf::init", "stopIpsec", "stopOvpnTunnels", "getCurrentWanIp", "pullConfigurations",
          "TRACE No GRE Tunnels configured", "setupIpsecTunnels 10.0.0.2 []",
          "TRACE firewall --init", "cmd firewall --init", "startOvpnTunnels", "unlock",
          "INFO Starting WAN and FQDN monitors", "start WAN_MONITOR",
          "INFO Number of FQDN monitors is 2", "start FQDN_MONITOR:a", "start FQDN_MONITOR:b",
          "lock", "wait 200", "ERROR time(NULL) returned error", "unlock"));
  for (const FqdnMonitor* const monitor : fqdnMonitors) {
    delete monitor;
  }
}

TEST_F(Daemon, GoesOnWhenItsFirstCycleFailed) {
  fake::setPrintLevel(30);
  fake::calls.openFails = true;
  fake::rooms.discovers = false;
  EXPECT_EQ(runUntilWait(), 0);
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("fork", "umask 0", "setsid",
                  "open /var/run/tunnel_mngr.pid truncated 644 close-on-exec",
                  "WARNING Unable to write pid to file: /var/run/tunnel_mngr.pid",
                  "signal 1 onSighup", "signal 15 onSigterm", "lock", "INFO Managing tunnels",
                  "discoverGreTunnels", "unlock", "INFO Starting WAN and FQDN monitors",
                  "start WAN_MONITOR", "INFO Number of FQDN monitors is 0", "lock", "wait 200",
                  "ERROR time(NULL) returned error", "unlock"));
}

TEST_F(Daemon, TriesAFirstCycleThatThrewAgainInItsLoop) {
  fake::setPrintLevel(10);
  bool thrown = false;
  fake::rooms.onCall = [&thrown](const std::string& entry) {
    if (entry == "Conf::init" && !thrown) {
      thrown = true;
      throw std::runtime_error("a bad reply");
    }
  };
  EXPECT_EQ(runUntilWait(), 0);
  const std::vector<std::string> trace = fake::takeTrace();
  EXPECT_THAT(std::vector<std::string>(trace.begin() + 8, trace.end()),
              ElementsAre("lock", "discoverGreTunnels", "Conf::init", caught, "unlock",
                          "start WAN_MONITOR",  //
                          "lock", "discoverGreTunnels", "Conf::init", "stopIpsec",
                          "stopOvpnTunnels", "getCurrentWanIp", "ERROR time(NULL) returned error",
                          "unlock",  //
                          "lock", "wait 200", "ERROR time(NULL) returned error", "unlock"));
  EXPECT_EQ(refreshRequested, 0);
}

TEST_F(Daemon, RebuildsOnceMoreForASignalDuringItsFirstCycle) {
  fake::setPrintLevel(10);
  bool raised = false;
  fake::rooms.onCall = [&raised](const std::string& entry) {
    if (entry == "discoverGreTunnels" && !raised) {
      raised = true;
      fake::deliverSignal(SIGHUP);
    }
  };
  fake::rooms.discovers = false;
  EXPECT_EQ(runUntilWait(), 0);
  const std::vector<std::string> trace = fake::takeTrace();
  EXPECT_THAT(std::vector<std::string>(trace.begin() + 8, trace.end()),
              ElementsAre("lock", "discoverGreTunnels", "signal", "unlock", "start WAN_MONITOR",
                          "lock", "discoverGreTunnels", "ERROR time(NULL) returned error", "unlock",
                          "lock", "wait 200", "ERROR time(NULL) returned error", "unlock"));
}

TEST_F(Daemon, EndsWithoutALoopWhenItIsStoppedInItsFirstCycle) {
  fake::setPrintLevel(10);
  fake::rooms.discovers = false;
  fake::rooms.onCall = [](const std::string&) { fake::deliverSignal(SIGTERM); };
  EXPECT_EQ(runUntilWait(), 0);
  const std::vector<std::string> trace = fake::takeTrace();
  EXPECT_THAT(std::vector<std::string>(trace.begin() + 8, trace.end()),
              ElementsAre("lock", "discoverGreTunnels", "sem_unlink TUNNEL_MANAGER", "sem_close",
                          "unlink /var/run/tunnel_mngr.pid", "unlock", "start WAN_MONITOR"));
}

// --- what ends the process

void startDaemon(WanMonitor& wanMonitor) {
  fake::calls.forkScripted = true;
  printTraceAtExit();
  runDaemon(wanMonitor);
}

TEST_F(DaemonDeathTest, EndsInTheParent) {
  fake::calls.forkResult = 4711;
  EXPECT_EXIT(startDaemon(wanMonitor), ExitedWithCode(0), Eq("fork\n"));
}

TEST_F(DaemonDeathTest, FailsWithoutAChild) {
  fake::calls.forkResult = -1;
  EXPECT_EXIT(startDaemon(wanMonitor), ExitedWithCode(1), Eq("fork\n"));
}

TEST_F(DaemonDeathTest, FailsWithoutASession) {
  fake::calls.setsidFails = true;
  EXPECT_EXIT(startDaemon(wanMonitor), ExitedWithCode(1), Eq("fork\numask 0\nsetsid\n"));
}

}  // namespace
}  // namespace tunnel_mngr
