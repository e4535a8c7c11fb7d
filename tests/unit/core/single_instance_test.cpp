#include "core/single_instance.hpp"

#include "core/core_test.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <string>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::ExitedWithCode;

constexpr char pidFile[] = "/var/run/tunnel_mngr.pid";
constexpr char semOpen[] = "sem_open TUNNEL_MANAGER exclusive owner-only 0";
constexpr char semOpenAgain[] = "sem_open TUNNEL_MANAGER again";
constexpr char semUnlink[] = "sem_unlink TUNNEL_MANAGER";
constexpr char openPidFile[] = "open /var/run/tunnel_mngr.pid truncated 644 close-on-exec";
constexpr char unlinkPidFile[] = "unlink /var/run/tunnel_mngr.pid";

/// How every second start begins.
const std::string secondStart =
    "sem_open TUNNEL_MANAGER exclusive owner-only 0\n"
    "INFO Signaling to process for refresh.\n"
    "readFile /var/run/tunnel_mngr.pid\n";

/// How one ends that could signal nobody.
const std::string gaveUp =
    "WARNING Unable to signal process. Exiting ...\n"
    "sem_unlink TUNNEL_MANAGER\n"
    "unlink /var/run/tunnel_mngr.pid\n";

/// How one goes that finds this, trimmed, in the PID file.
std::string parseFailure(const std::string& text) {
  std::string trace = secondStart;
  trace.append("WARNING Unable to parse PID file [/var/run/tunnel_mngr.pid] result [");
  return trace.append(text).append("]\n").append(gaveUp);
}

class SingleInstance : public CoreTest {
 protected:
  /// A PID file that a test has written is no longer ours after a clean-up.
  ~SingleInstance() override { cleanUp(); }

  /// Makes this process the first instance.
  static void beFirst() {
    checkRunningInstance();
    fake::takeTrace();
  }
};

using SingleInstanceDeathTest = SingleInstance;

// --- starts

TEST_F(SingleInstance, GoesOnWhenItIsTheFirst) {
  checkRunningInstance();
  EXPECT_THAT(fake::takeTrace(), ElementsAre(semOpen, semOpenAgain));
  EXPECT_FALSE(stopRequested);
}

void startSecond() {
  printTraceAtExit();
  checkRunningInstance();
}

TEST_F(SingleInstanceDeathTest, AsksTheRunningInstanceToRefresh) {
  fake::calls.semaphoreExists = true;
  for (const char* content : {"4711\n", "4711", "  4711 \n\n"}) {
    fake::scriptFile(pidFile, 0, content);
    EXPECT_EXIT(startSecond(), ExitedWithCode(0), Eq(secondStart + "kill 4711 1\n"));
  }
}

TEST_F(SingleInstanceDeathTest, RemovesTheMarkerWhenThePidFileIsMissing) {
  fake::calls.semaphoreExists = true;
  EXPECT_EXIT(
      startSecond(), ExitedWithCode(1),
      Eq(secondStart + "WARNING Unable to read PID file [/var/run/tunnel_mngr.pid]\n" + gaveUp));
}

TEST_F(SingleInstanceDeathTest, RemovesTheMarkerWhenThePidFileCannotBeRead) {
  fake::calls.semaphoreExists = true;
  fake::scriptFile(pidFile, EACCES, "");
  EXPECT_EXIT(
      startSecond(), ExitedWithCode(1),
      Eq(secondStart + "WARNING Unable to read PID file [/var/run/tunnel_mngr.pid]\n" + gaveUp));
}

TEST_F(SingleInstanceDeathTest, RemovesTheMarkerWhenThePidFileHoldsNoNumber) {
  fake::calls.semaphoreExists = true;
  const std::pair<const char*, const char*> contents[] = {{"", ""},
                                                          {" \n", ""},
                                                          {" abc\n", "abc"},
                                                          {"47 11\n", "47 11"},
                                                          {"99999999999\n", "99999999999"},
                                                          {"%s\n", "%s"}};
  for (const auto& [content, text] : contents) {
    fake::scriptFile(pidFile, 0, content);
    EXPECT_EXIT(startSecond(), ExitedWithCode(1), Eq(parseFailure(text)));
  }
}

TEST_F(SingleInstanceDeathTest, NeverSignalsAGroupOfProcesses) {
  fake::calls.semaphoreExists = true;
  for (const char* content : {"0", "-1", "-4711"}) {
    fake::scriptFile(pidFile, 0, content);
    EXPECT_EXIT(startSecond(), ExitedWithCode(1), Eq(parseFailure(content)));
  }
}

TEST_F(SingleInstanceDeathTest, RemovesWhatACrashedDaemonLeft) {
  fake::calls.semaphoreExists = true;
  fake::calls.killFails = true;
  fake::scriptFile(pidFile, 0, "4711\n");
  EXPECT_EXIT(startSecond(), ExitedWithCode(1), Eq(secondStart + "kill 4711 1\n" + gaveUp));
}

TEST_F(SingleInstanceDeathTest, RemovesNothingOnceAStopIsRequested) {
  fake::calls.semaphoreExists = true;
  stopRequested = true;
  EXPECT_EXIT(startSecond(), ExitedWithCode(1),
              Eq(secondStart + "WARNING Unable to read PID file [/var/run/tunnel_mngr.pid]\n" +
                 "WARNING Unable to signal process. Exiting ...\n"));
}

TEST_F(SingleInstanceDeathTest, WritesNoWarningAtTheErrorLevel) {
  fake::calls.semaphoreExists = true;
  fake::setPrintLevel(10);
  EXPECT_EXIT(startSecond(), ExitedWithCode(1),
              Eq("sem_open TUNNEL_MANAGER exclusive owner-only 0\n"
                 "readFile /var/run/tunnel_mngr.pid\n"
                 "sem_unlink TUNNEL_MANAGER\n"
                 "unlink /var/run/tunnel_mngr.pid\n"));
}

// --- the PID file

TEST_F(SingleInstance, WritesItsProcessId) {
  writePidFile();
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre(openPidFile, "write " + std::to_string(getpid()) + "\n", "close"));
}

TEST_F(SingleInstance, GoesOnWithoutAPidFile) {
  beFirst();
  fake::calls.openFails = true;
  writePidFile();
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre(openPidFile, "WARNING Unable to write pid to file: /var/run/tunnel_mngr.pid"));
  cleanUp();
  EXPECT_THAT(fake::takeTrace(), ElementsAre(semUnlink, "sem_close"));
}

TEST_F(SingleInstance, TellsAPidFileThatCannotBeFilled) {
  beFirst();
  fake::calls.writeFails = true;
  writePidFile();
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre(openPidFile, "write " + std::to_string(getpid()) + "\n",
                  "WARNING Unable to write pid to file: /var/run/tunnel_mngr.pid", "close"));
  cleanUp();
  EXPECT_THAT(fake::takeTrace(), ElementsAre(semUnlink, "sem_close", unlinkPidFile));
}

// --- the end

TEST_F(SingleInstance, RemovesItsMarkerFirst) {
  beFirst();
  writePidFile();
  fake::takeTrace();
  cleanUp();
  EXPECT_THAT(fake::takeTrace(), ElementsAre(semUnlink, "sem_close", unlinkPidFile));
  EXPECT_TRUE(stopRequested);
}

TEST_F(SingleInstance, RemovesNoPidFileThatItHasNotWritten) {
  beFirst();
  cleanUp();
  EXPECT_THAT(fake::takeTrace(), ElementsAre(semUnlink, "sem_close"));
  EXPECT_TRUE(stopRequested);
}

TEST_F(SingleInstance, RemovesItsPidFileOnlyOnce) {
  beFirst();
  writePidFile();
  cleanUp();
  fake::takeTrace();
  cleanUp();
  EXPECT_THAT(fake::takeTrace(), ElementsAre(semUnlink, "sem_close"));
}

}  // namespace
}  // namespace tunnel_mngr
