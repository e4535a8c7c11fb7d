#include "ovpn/ovpn_child.hpp"

#include "fake/fake_platform.hpp"
#include "ovpn/ovpn_tnl.hpp"
#include "ovpn/run_directory.hpp"
#include "ovpn/scripted_calls.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;

const std::vector<std::string> theExec = {
    "closes descriptors", "default signals", "mask none",
    "exec openvpn [openvpn] [--config] [/var/run/a b.conf] [--status] [/var/run/a b.status] [1] "
    "[--syslog] [openvpn]"};

std::vector<std::string> thenExec(std::vector<std::string> first) {
  first.insert(first.end(), theExec.begin(), theExec.end());
  return first;
}

class OvpnChildTest : public testing::Test {
 protected:
  OvpnChildTest() {
    calls::scriptProcesses();
    calls::setParent(7);
    tunnel.confFile = "/var/run/a b.conf";
    tunnel.statusFile = "/var/run/a b.status";
  }

  std::vector<std::string> traceOfChild() {
    return calls::playChild([this] { return becomeOpenvpn(tunnel, 7); });
  }

  RunDirectory run;
  OvpnTnl tunnel;
};

TEST_F(OvpnChildTest, ExecutesOpenvpnWithEightArgumentsAndTheDefaultSignals) {
  EXPECT_EQ(traceOfChild(), thenExec({"prctl 1 15"}));
}

TEST_F(OvpnChildTest, LooksForItsDescriptorsOnAKernelThatCannotMarkThemAtOnce) {
  calls::answer("close_range", -1, ENOSYS);
  EXPECT_THAT(traceOfChild(),
              ElementsAre("prctl 1 15", "closes descriptors", "opendir /proc/self/fd", theExec[1],
                          theExec[2], theExec[3]));
}

TEST_F(OvpnChildTest, GoesOnWhenItCannotLookForItsDescriptors) {
  calls::answer("close_range", -1, ENOSYS);
  calls::answer("opendir", -1, ENOENT);
  EXPECT_THAT(traceOfChild(),
              ElementsAre("prctl 1 15", "closes descriptors", "opendir /proc/self/fd", theExec[1],
                          theExec[2], theExec[3]));
}

TEST_F(OvpnChildTest, EndsWhenItCannotBeToldOfTheDaemonsEnd) {
  calls::answer("prctl", -1, EINVAL);
  EXPECT_THAT(traceOfChild(),
              ElementsAre("prctl 1 15",
                          "ERROR [TUNNEL_MNGR][OVPN] failed setup notify 'perent terminated' in "
                          "OvpnTnl restart",
                          "_exit 255"));
}

TEST_F(OvpnChildTest, EndsWhenTheDaemonHasEndedAlready) {
  calls::setParent(1);
  EXPECT_THAT(traceOfChild(), ElementsAre("prctl 1 15", "_exit 143"));
}

TEST_F(OvpnChildTest, EndsWhenThereIsNoOpenvpn) {
  calls::answer("exec", -1, ENOENT);
  std::vector<std::string> expected = thenExec({"prctl 1 15"});
  expected.insert(expected.end(), {"ERROR [TUNNEL_MNGR][OVPN] failed exec openvpn", "_exit 255"});
  EXPECT_EQ(traceOfChild(), expected);
}

TEST_F(OvpnChildTest, MakesNoClientConfigurationDirectoryThatExists) {
  tunnel.clientConfigDir = "/ccd";
  EXPECT_EQ(traceOfChild(), thenExec({"prctl 1 15", "opendir /ccd"}));
}

TEST_F(OvpnChildTest, MakesAMissingClientConfigurationDirectory) {
  tunnel.clientConfigDir = "/ccd of a";
  calls::answer("opendir", -1, ENOENT);
  EXPECT_EQ(traceOfChild(),
            thenExec({"prctl 1 15", "opendir /ccd of a", "TRACE mkdir -p /ccd of a",
                      "cmd mkdir -p /ccd of a",
                      "ERROR [TUNNEL_MNGR][OVPN] /ccd of a didn't exist. it has been created"}));
}

TEST_F(OvpnChildTest, ReturnsWithoutTouchingSignalsWhenTheDirectoryCannotBeMade) {
  tunnel.clientConfigDir = "/ccd";
  calls::answer("opendir", -1, ENOENT);
  fake::script("mkdir -p /ccd", 127);
  EXPECT_THAT(traceOfChild(),
              ElementsAre("prctl 1 15", "opendir /ccd", "TRACE mkdir -p /ccd", "cmd mkdir -p /ccd",
                          "ERROR [TUNNEL_MNGR][OVPN] error make config directory command [127]",
                          "returned false"));
}

TEST_F(OvpnChildTest, IgnoresADirectoryThatCannotBeOpenedForAnotherReason) {
  tunnel.clientConfigDir = "/ccd";
  for (const int error : {EACCES, ENOTDIR, EMFILE}) {
    calls::reset();
    calls::scriptProcesses();
    calls::setParent(7);
    calls::answer("opendir", -1, error);
    EXPECT_EQ(traceOfChild(), thenExec({"prctl 1 15", "opendir /ccd"})) << error;
  }
}

}  // namespace
}  // namespace tunnel_mngr
