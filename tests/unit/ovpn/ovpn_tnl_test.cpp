#include "ovpn/ovpn_tnl.hpp"

#include "fake/fake_platform.hpp"
#include "ovpn/run_directory.hpp"
#include "ovpn/scripted_calls.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class OvpnTnlTest : public testing::Test {
 protected:
  OvpnTnlTest() {
    calls::scriptProcesses();
    tunnel.pid = 42;
    tunnel.confFile = "/var/run/openvpn_a.conf";
    tunnel.statusFile = "/var/run/openvpn_a.status";
    tunnel.connectFile = "/var/run/connect_a.status";
    tunnel.pingAddress = "10.8.0.2";
  }

  RunDirectory run;
  OvpnTnl tunnel;
};

TEST_F(OvpnTnlTest, IsRunningWhileThereIsNothingToReap) {
  EXPECT_TRUE(tunnel.isRunning());
  EXPECT_EQ(tunnel.pid, 42);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("waitpid 42"));
}

TEST_F(OvpnTnlTest, IsNotRunningOnceReaped) {
  calls::answer("waitpid", 42);
  EXPECT_FALSE(tunnel.isRunning());
  EXPECT_EQ(tunnel.pid, 0);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("waitpid 42"));
}

TEST_F(OvpnTnlTest, AsksAgainWhenInterrupted) {
  calls::answer("waitpid", -1, EINTR);
  calls::answer("waitpid", -1, EINTR);
  EXPECT_TRUE(tunnel.isRunning());
  EXPECT_THAT(fake::takeTrace(), ElementsAre("waitpid 42", "waitpid 42", "waitpid 42"));
}

TEST_F(OvpnTnlTest, IsNotRunningWhenThereIsNoSuchChild) {
  calls::answer("waitpid", -1, ECHILD);
  EXPECT_FALSE(tunnel.isRunning());
  EXPECT_EQ(tunnel.pid, 0);
}

TEST_F(OvpnTnlTest, CountsAsRunningAfterAnyOtherError) {
  calls::answer("waitpid", -1, EINVAL);
  EXPECT_TRUE(tunnel.isRunning());
  EXPECT_EQ(tunnel.pid, 42);
}

TEST_F(OvpnTnlTest, StopSendsNoSignalWithoutAChild) {
  for (const int none : {0, -1, -42}) {
    tunnel.pid = none;
    tunnel.stop();
    EXPECT_EQ(tunnel.pid, none);
  }
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(OvpnTnlTest, StopReapsAChildThatEndsAtOnce) {
  calls::answer("waitpid", 42);
  tunnel.stop();
  EXPECT_EQ(tunnel.pid, 0);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("kill 42 15", "waitpid 42"));
}

TEST_F(OvpnTnlTest, StopSignalsOncePerSecondAndNeverKills) {
  for (int pass = 0; pass < 1000; ++pass) {
    calls::answer("waitpid", 0);
  }
  calls::answer("waitpid", 42);
  tunnel.stop();

  std::vector<std::string> expected;
  for (int pass = 0; pass < 1000; ++pass) {
    expected.insert(expected.end(), {"kill 42 15", "waitpid 42", "sleep 1"});
  }
  expected.insert(expected.end(), {"kill 42 15", "waitpid 42"});
  EXPECT_EQ(fake::takeTrace(), expected);
  EXPECT_EQ(tunnel.pid, 0);
}

TEST_F(OvpnTnlTest, StopSignalsAgainWithoutSleepWhenInterrupted) {
  calls::answer("waitpid", -1, EINTR);
  calls::answer("waitpid", 42);
  tunnel.stop();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("kill 42 15", "waitpid 42", "kill 42 15", "waitpid 42"));
}

TEST_F(OvpnTnlTest, StopEndsWhenThereIsNoSuchChild) {
  calls::answer("kill", -1, ESRCH);
  calls::answer("waitpid", -1, ECHILD);
  tunnel.stop();
  EXPECT_EQ(tunnel.pid, 0);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("kill 42 15", "waitpid 42"));
}

TEST_F(OvpnTnlTest, StopSleepsAfterAnyOtherError) {
  calls::answer("waitpid", -1, EINVAL);
  calls::answer("waitpid", 42);
  tunnel.stop();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("kill 42 15", "waitpid 42", "sleep 1", "kill 42 15", "waitpid 42"));
}

TEST_F(OvpnTnlTest, RestartForksWithAllSignalsBlockedAndDoesNotWait) {
  tunnel.pid = 0;
  calls::answer("fork", 77);
  EXPECT_TRUE(tunnel.restart());
  EXPECT_EQ(tunnel.pid, 77);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("mask all", "fork", "mask as before"));
}

TEST_F(OvpnTnlTest, RestartStopsTheOldChildFirst) {
  calls::answer("waitpid", 42);
  calls::answer("fork", 77);
  EXPECT_TRUE(tunnel.restart());
  EXPECT_EQ(tunnel.pid, 77);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("kill 42 15", "waitpid 42", "mask all", "fork", "mask as before"));
}

TEST_F(OvpnTnlTest, RestartReportsAFailedFork) {
  tunnel.pid = 0;
  calls::answer("fork", -1, EAGAIN);
  EXPECT_FALSE(tunnel.restart());
  EXPECT_EQ(tunnel.pid, 0);
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("mask all", "fork", "ERROR [TUNNEL_MNGR][OVPN] failed fork in OvpnTnl restart",
                  "mask as before"));
}

TEST_F(OvpnTnlTest, TheChildOfRestartBecomesOpenvpn) {
  tunnel.pid = 0;
  calls::answer("fork", 0);
  EXPECT_THAT(calls::playChild([this] { return tunnel.restart(); }),
              ElementsAre("mask all", "fork", "prctl 1 15", "closes descriptors", "default signals",
                          "mask none",
                          "exec openvpn [openvpn] [--config] [/var/run/openvpn_a.conf] "
                          "[--status] [/var/run/openvpn_a.status] [1] [--syslog] [openvpn]"));
}

TEST_F(OvpnTnlTest, TheChildOfRestartReturnsWhenItsDirectoryCannotBeMade) {
  tunnel.pid = 0;
  tunnel.clientConfigDir = "/ccd";
  calls::answer("fork", 0);
  calls::answer("opendir", -1, ENOENT);
  fake::script("mkdir -p /ccd", 1);
  EXPECT_THAT(calls::playChild([this] { return tunnel.restart() || tunnel.pid != 0; }),
              ElementsAre("mask all", "fork", "prctl 1 15", "opendir /ccd", "TRACE mkdir -p /ccd",
                          "cmd mkdir -p /ccd",
                          "ERROR [TUNNEL_MNGR][OVPN] error make config directory command [1]",
                          "mask as before", "returned false"));
}

TEST_F(OvpnTnlTest, PingNotesThatThePeerAnswers) {
  tunnel.ping();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("ERROR [TUNNEL_MNGR][OVPN] ping 10.8.0.2", "TRACE ping -c 3 10.8.0.2",
                          "cmd ping -c 3 10.8.0.2", "open /var/run/connect_a.status 0644",
                          "chmod 0644", "write 9", "close"));
  EXPECT_EQ(run.read("/var/run/connect_a.status"), "connected");
  EXPECT_EQ(run.mode("/var/run/connect_a.status"), 0644U);
}

TEST_F(OvpnTnlTest, PingEmptiesTheConnectFileWhenThePeerIsSilent) {
  run.create("/var/run/connect_a.status", "connected", 0644);
  fake::script("ping -c 3 10.8.0.2", 1);
  tunnel.ping();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("ERROR [TUNNEL_MNGR][OVPN] ping 10.8.0.2", "TRACE ping -c 3 10.8.0.2",
                          "cmd ping -c 3 10.8.0.2", "open /var/run/connect_a.status 0644",
                          "chmod 0644", "close"));
  EXPECT_TRUE(run.exists("/var/run/connect_a.status"));
  EXPECT_EQ(run.read("/var/run/connect_a.status"), "");
}

TEST_F(OvpnTnlTest, PingDoesNothingWithoutAnAddress) {
  tunnel.pingAddress.clear();
  tunnel.ping();
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
  EXPECT_FALSE(run.exists("/var/run/connect_a.status"));
}

TEST_F(OvpnTnlTest, PingSkipsAConnectFileThatCannotBeOpened) {
  calls::answer("open", -1, EACCES);
  tunnel.ping();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("ERROR [TUNNEL_MNGR][OVPN] ping 10.8.0.2", "TRACE ping -c 3 10.8.0.2",
                          "cmd ping -c 3 10.8.0.2", "open /var/run/connect_a.status 0644",
                          "ERROR [TUNNEL_MNGR][OVPN] could not open connect file "
                          "/var/run/connect_a.status"));
}

TEST_F(OvpnTnlTest, PingReportsAConnectFileThatCannotBeWritten) {
  calls::answer("write", -1, ENOSPC);
  tunnel.ping();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("ERROR [TUNNEL_MNGR][OVPN] ping 10.8.0.2", "TRACE ping -c 3 10.8.0.2",
                          "cmd ping -c 3 10.8.0.2", "open /var/run/connect_a.status 0644",
                          "chmod 0644", "write 9", "close",
                          "ERROR [TUNNEL_MNGR][OVPN] could not write connect file "
                          "/var/run/connect_a.status"));
}

TEST_F(OvpnTnlTest, LeavesItsChildAloneWhenItGoes) {
  auto gone = std::make_unique<OvpnTnl>();
  gone->pid = 42;
  gone.reset();
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

}  // namespace
}  // namespace tunnel_mngr
