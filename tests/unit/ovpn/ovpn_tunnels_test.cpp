// The supervised tunnels together: start, stop and the periodic check.

#include "fake/fake_platform.hpp"
#include "ovpn/conf.hpp"
#include "ovpn/ovpn_tnl.hpp"
#include "ovpn/run_directory.hpp"
#include "ovpn/scripted_api.hpp"
#include "ovpn/scripted_calls.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char twoTunnels[] =
    R"([{"enabled":true,"name":"a","config":"ifconfig 10.8.0.1 10.8.0.2"},
        {"enabled":true,"name":"b","config":"<ca>\nifconfig 10.9.0.1 10.9.0.2"}])";

class OvpnTunnels : public testing::Test {
 protected:
  OvpnTunnels() { calls::scriptProcesses(); }

  ~OvpnTunnels() override {
    forgetTunnels();
    scripted_api::answerTunnels("[]");
    Conf::init();
  }

  void configure(const std::string& jsonList) {
    scripted_api::answerTunnels(jsonList);
    ASSERT_TRUE(Conf::init());
    fake::takeTrace();
  }

  void start(const std::string& jsonList) {
    configure(jsonList);
    startOvpnTunnels();
    fake::takeTrace();
  }

  /// Whatever a test has left runs no longer.
  static void forgetTunnels() {
    for (int child = 0; child < 2000; ++child) {
      calls::answer("waitpid", -1, ECHILD);
    }
    stopOvpnTunnels();
  }

  RunDirectory run;
};

TEST_F(OvpnTunnels, AreNoneForAnEmptyConfiguration) {
  configure("[]");
  startOvpnTunnels();
  checkOvpnTunnels();
  stopOvpnTunnels();
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(OvpnTunnels, StartInTheOrderOfTheConfiguration) {
  configure(twoTunnels);
  calls::answer("fork", 42);
  calls::answer("fork", 43);
  startOvpnTunnels();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("mask all", "fork", "mask as before", "mask all",
                                             "fork", "mask as before"));
  calls::answer("waitpid", 42);
  calls::answer("waitpid", 43);
  stopOvpnTunnels();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("kill 42 15", "waitpid 42", "kill 43 15", "waitpid 43"));
}

TEST_F(OvpnTunnels, StartOpenvpnWithTheValuesOfTheConfiguration) {
  configure(R"([{"enabled":true,"name":"a","config":"client-config-dir /ccd"}])");
  calls::answer("fork", 0);
  EXPECT_THAT(calls::playChild([] {
                startOvpnTunnels();
                return true;
              }),
              ElementsAre("mask all", "fork", "prctl 1 15", "opendir /ccd", "closes descriptors",
                          "default signals", "mask none",
                          "exec openvpn [openvpn] [--config] [/var/run/openvpn_a.conf] "
                          "[--status] [/var/run/openvpn_a.status] [1] [--syslog] [openvpn]"));
}

TEST_F(OvpnTunnels, StopOneAfterTheOtherAndAreForgotten) {
  start(twoTunnels);
  calls::answer("waitpid", 0);
  calls::answer("waitpid", 100);
  calls::answer("waitpid", 101);
  stopOvpnTunnels();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("kill 100 15", "waitpid 100", "sleep 1", "kill 100 15",
                                             "waitpid 100", "kill 101 15", "waitpid 101"));
  checkOvpnTunnels();
  stopOvpnTunnels();
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(OvpnTunnels, StopWhatRunsBeforeTheyStartAgain) {
  start(twoTunnels);
  configure(R"([{"enabled":true,"name":"c"}])");
  calls::answer("waitpid", 100);
  calls::answer("waitpid", 101);
  startOvpnTunnels();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("kill 100 15", "waitpid 100", "kill 101 15",
                                             "waitpid 101", "mask all", "fork", "mask as before"));
}

TEST_F(OvpnTunnels, GoOnAfterOneThatCannotBeStarted) {
  configure(twoTunnels);
  calls::answer("fork", -1, EAGAIN);
  startOvpnTunnels();
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("mask all", "fork", "ERROR [TUNNEL_MNGR][OVPN] failed fork in OvpnTnl restart",
                  "mask as before", "mask all", "fork", "mask as before"));
}

TEST_F(OvpnTunnels, TryAFailedStartAgainAtEveryCheck) {
  configure(R"([{"enabled":true,"name":"a"}])");
  for (int failure = 0; failure < 3; ++failure) {
    calls::answer("fork", -1, EAGAIN);
  }
  startOvpnTunnels();
  checkOvpnTunnels();
  checkOvpnTunnels();
  fake::takeTrace();
  checkOvpnTunnels();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("mask all", "fork", "mask as before"));
  checkOvpnTunnels();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("waitpid 100"));
}

TEST_F(OvpnTunnels, AreStartedAgainByTheCheckThatReapsThem) {
  start(twoTunnels);
  calls::answer("waitpid", 0);
  calls::answer("waitpid", 101);
  fake::setPrintLevel(0);
  checkOvpnTunnels();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("waitpid 100", "cmd ping -c 3 10.8.0.2",
                          "open /var/run/connect_a.status 0644", "chmod 0644", "write 9", "close",
                          "waitpid 101", "mask all", "fork", "mask as before"));
  checkOvpnTunnels();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("waitpid 100", "cmd ping -c 3 10.8.0.2",
                                             "open /var/run/connect_a.status 0644", "chmod 0644",
                                             "write 9", "close", "waitpid 102"));
}

TEST_F(OvpnTunnels, AreNotRestartedByAFailedPing) {
  start(R"([{"enabled":true,"name":"a","config":"ifconfig 10.8.0.1 10.8.0.2"}])");
  fake::script("ping -c 3 10.8.0.2", 1);
  checkOvpnTunnels();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("waitpid 100", "ERROR [TUNNEL_MNGR][OVPN] ping 10.8.0.2",
                          "TRACE ping -c 3 10.8.0.2", "cmd ping -c 3 10.8.0.2",
                          "open /var/run/connect_a.status 0644", "chmod 0644", "close"));
}

TEST_F(OvpnTunnels, ArePingedOnlyWithAnAddress) {
  start(R"([{"enabled":true,"name":"a"}])");
  checkOvpnTunnels();
  EXPECT_THAT(fake::takeTrace(), ElementsAre("waitpid 100"));
  EXPECT_FALSE(run.exists("/var/run/connect_a.status"));
}

TEST_F(OvpnTunnels, GoOnInTheCopyOfTheDaemonWhoseDirectoryCannotBeMade) {
  configure(
      R"([{"enabled":true,"name":"a","config":"client-config-dir /ccd"},
          {"enabled":true,"name":"b"}])");
  fake::script("mkdir -p /ccd", 1);
  calls::answer("fork", 0);
  calls::answer("fork", 43);
  calls::answer("fork", 44);
  calls::answer("opendir", -1, ENOENT);
  EXPECT_THAT(calls::playChild([] {
                startOvpnTunnels();
                fake::record("and later");
                checkOvpnTunnels();
                return true;
              }),
              ElementsAre("mask all", "fork", "prctl 1 15", "opendir /ccd", "TRACE mkdir -p /ccd",
                          "cmd mkdir -p /ccd",
                          "ERROR [TUNNEL_MNGR][OVPN] error make config directory command [1]",
                          "mask as before", "mask all", "fork", "mask as before", "and later",
                          "mask all", "fork", "mask as before", "waitpid 43", "returned true"));
}

TEST_F(OvpnTunnels, AreCheckedInAThousandWithOneCallEach) {
  std::string list;
  for (int number = 0; number < 1000; ++number) {
    list += std::string(number == 0 ? "" : ",") + R"({"enabled":true,"name":")" +
            std::to_string(number) + R"("})";
  }
  start("[" + list + "]");
  checkOvpnTunnels();
  const std::vector<std::string> trace = fake::takeTrace();
  ASSERT_EQ(trace.size(), 1000U);
  EXPECT_EQ(trace.back(), "waitpid 1099");
}

}  // namespace
}  // namespace tunnel_mngr
