#include "ovpn/run_file.hpp"

#include "fake/fake_platform.hpp"
#include "ovpn/run_directory.hpp"
#include "ovpn/scripted_calls.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;

class RunFileTest : public testing::Test {
 protected:
  RunDirectory run;
};

TEST_F(RunFileTest, CreatesTheFileWithItsModeUnderAnyUmask) {
  for (const mode_t mask : {0000U, 0077U, 0777U}) {
    umask(mask);
    const std::string path = "/var/run/file" + std::to_string(mask);
    EXPECT_EQ(writeRunFile(path, 0644, "text"), WriteResult::done);
    EXPECT_EQ(run.read(path), "text");
    EXPECT_EQ(run.mode(path), 0644U) << mask;
  }
  umask(0);
}

TEST_F(RunFileTest, OpensForWritingCloseOnExecAndNotThroughALink) {
  EXPECT_EQ(writeRunFile("/var/run/file", 0600, ""), WriteResult::done);
  EXPECT_THAT(calls::openFlags(),
              ElementsAre(O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW));
}

TEST_F(RunFileTest, EmptiesAndNarrowsAnExistingFile) {
  run.create("/var/run/file", "something longer", 0666);
  EXPECT_EQ(writeRunFile("/var/run/file", 0600, ""), WriteResult::done);
  EXPECT_EQ(run.read("/var/run/file"), "");
  EXPECT_EQ(run.mode("/var/run/file"), 0600U);
}

TEST_F(RunFileTest, RefusesASymbolicLinkAndLeavesItsTarget) {
  run.create("/var/run/target", "precious", 0644);
  ASSERT_EQ(symlink(run.path("/var/run/target").c_str(), run.path("/var/run/file").c_str()), 0);
  EXPECT_EQ(writeRunFile("/var/run/file", 0600, "text"), WriteResult::notOpened);
  EXPECT_EQ(run.read("/var/run/target"), "precious");
}

TEST_F(RunFileTest, LogsAModeThatCannotBeSetAndGoesOn) {
  calls::answer("fchmod", -1, EPERM);
  EXPECT_EQ(writeRunFile("/var/run/file", 0600, "text"), WriteResult::done);
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("open /var/run/file 0600", "chmod 0600",
                          "ERROR [TUNNEL_MNGR][OVPN] could not set the mode of /var/run/file",
                          "write 4", "close"));
}

TEST_F(RunFileTest, WritesOnceAndLeavesWhatWasTaken) {
  calls::answer("write", 3);
  EXPECT_EQ(writeRunFile("/var/run/file", 0600, "text"), WriteResult::notWritten);
  EXPECT_EQ(run.read("/var/run/file"), "tex");
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("open /var/run/file 0600", "chmod 0600", "write 4", "close"));
}

TEST_F(RunFileTest, ReportsAWriteThatFails) {
  calls::answer("write", -1, ENOSPC);
  EXPECT_EQ(writeRunFile("/var/run/file", 0600, "text"), WriteResult::notWritten);
}

TEST_F(RunFileTest, ReportsADirectoryThatIsMissing) {
  EXPECT_EQ(writeRunFile("/var/run/missing/file", 0600, "text"), WriteResult::notOpened);
}

}  // namespace
}  // namespace tunnel_mngr
