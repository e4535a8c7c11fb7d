#include "core/core_test.hpp"
#include "core/program_arguments.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

/// The program's main, which this test program has under another name.
int programMain(int argc, char* argv[]);

namespace tunnel_mngr {
namespace {

using testing::Eq;
using testing::ExitedWithCode;

constexpr char shortCycle[] =
    "discoverGreTunnels\n"
    "Conf::init\n"
    "stopIpsec\n"
    "stopOvpnTunnels\n"
    "getCurrentWanIp\n";

constexpr char loggingSetUp[] =
    "setPrintLevel 10 true\n"
    "setup 3 TUNNEL_MNGR 0 0\n";

constexpr char first[] =
    "sem_open TUNNEL_MANAGER exclusive owner-only 0\n"
    "sem_open TUNNEL_MANAGER again\n";
constexpr char cleanedUp[] =
    "sem_unlink TUNNEL_MANAGER\n"
    "sem_close\n";

/// Runs the program in a process of its own and shows the trace on standard error.
void run(const std::vector<std::string>& arguments) {
  ProgramArguments given(arguments);
  const int status = programMain(given.count(), given.values());
  printTrace();
  std::_Exit(status);
}

using MainDeathTest = CoreTest;

TEST_F(MainDeathTest, RunsOneCycleWithoutOptions) {
  EXPECT_EXIT(run({}), ExitedWithCode(0),
              Eq(std::string(loggingSetUp) + first + "getCurrentWanIp\n" + shortCycle + cleanedUp));
}

TEST_F(MainDeathTest, SucceedsWhateverBecomesOfTheCycle) {
  fake::rooms.discovers = false;
  EXPECT_EXIT(
      run({}), ExitedWithCode(0),
      Eq(std::string(loggingSetUp) + first + "getCurrentWanIp\ndiscoverGreTunnels\n" + cleanedUp));
}

TEST_F(MainDeathTest, LogsWithoutSyslogWhenThereIsNone) {
  fake::scriptSetup({false, true});
  EXPECT_EXIT(run({}), ExitedWithCode(0),
              Eq(std::string(loggingSetUp) + "setup 1\n" +
                 "WARNING [TUNNEL_MNGR] Unable to log to Syslog\n" + first + "getCurrentWanIp\n" +
                 shortCycle + cleanedUp));
}

TEST_F(MainDeathTest, ReadsTheCommandLineBeforeItLooksForAnotherInstance) {
  fake::rooms.discovers = false;
  EXPECT_EXIT(run({"-p", "30"}), ExitedWithCode(0),
              Eq(std::string(loggingSetUp) + "setPrintLevel 30 true\n" + first +
                 "getCurrentWanIp\nINFO Managing tunnels\ndiscoverGreTunnels\n" + cleanedUp));
}

void runToExit(const std::vector<std::string>& arguments) {
  printTraceAtExit();
  run(arguments);
}

TEST_F(MainDeathTest, QueriesNothingWhenAnotherInstanceRuns) {
  fake::calls.semaphoreExists = true;
  fake::scriptFile("/var/run/tunnel_mngr.pid", 0, "4711\n");
  EXPECT_EXIT(runToExit({}), ExitedWithCode(0),
              Eq(std::string(loggingSetUp) + "sem_open TUNNEL_MANAGER exclusive owner-only 0\n" +
                 "readFile /var/run/tunnel_mngr.pid\n" + "kill 4711 1\n"));
}

TEST_F(MainDeathTest, FailsWithOneCycleThatThrew) {
  fake::rooms.onCall = [](const std::string& entry) {
    if (entry == "Conf::init") {
      throw std::runtime_error("a bad reply");
    }
  };
  EXPECT_EXIT(
      run({}), ExitedWithCode(1),
      Eq(std::string(loggingSetUp) + first + "getCurrentWanIp\ndiscoverGreTunnels\nConf::init\n" +
         "ERROR Exception caught while waiting on signal\n" + cleanedUp));
}

TEST_F(MainDeathTest, TakesAWanQueryThatThrowsAsNoAddress) {
  bool thrown = false;
  fake::rooms.discovers = false;
  fake::rooms.onCall = [&thrown](const std::string& entry) {
    if (entry == "getCurrentWanIp" && !thrown) {
      thrown = true;
      throw std::runtime_error("a bad reply");
    }
  };
  EXPECT_EXIT(run({"-p", "0"}), ExitedWithCode(0),
              Eq(std::string(loggingSetUp) + "setPrintLevel 0 true\n" + first +
                 "getCurrentWanIp\ndiscoverGreTunnels\n" + cleanedUp));
}

TEST_F(MainDeathTest, StaysAsADaemonUntilItIsStopped) {
  fake::calls.openFails = true;
  fake::calls.times = {-1};
  fake::rooms.discovers = false;
  fake::onWait = [](unsigned) { stopRequested = true; };
  EXPECT_EXIT(
      {
        fake::calls.forkScripted = true;
        run({"-d", "-p", "20"});
      },
      ExitedWithCode(0),
      Eq(std::string(loggingSetUp) + "setPrintLevel 20 true\n" + first + "getCurrentWanIp\n" +
         "fork\n"
         "umask 0\n"
         "setsid\n"
         "open /var/run/tunnel_mngr.pid truncated 644 close-on-exec\n"
         "WARNING Unable to write pid to file: /var/run/tunnel_mngr.pid\n"
         "signal 1 onSighup\n"
         "signal 15 onSigterm\n"
         "discoverGreTunnels\n"
         "start WAN_MONITOR\n"
         "wait 200\n"
         "ERROR time(NULL) returned error\n"));
}

}  // namespace
}  // namespace tunnel_mngr
