#include "platform/logger.hpp"

#include "captured_error.hpp"
#include "many_threads.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using VEXA::Logger;
using Level = Logger::PrintLevel;

/// Each test logs as "IDENT" to standard error and sees what comes.
class LoggerTest : public testing::Test {
 protected:
  LoggerTest() {
    EXPECT_TRUE(Logger::setup(Logger::STANDARD_ERROR, "IDENT", 0, 0));
    Logger::setPrintLevel(100, true);
  }
  ~LoggerTest() override {
    Logger::setup(Logger::STANDARD_ERROR);
    Logger::setPrintLevel(Level::ERROR_LEVEL, true);
  }

  std::string records() const { return withoutTimes(captured.text()); }

  CapturedError captured;
  const std::string head = "IDENT[" + std::to_string(getpid()) + "]: ";
};

TEST_F(LoggerTest, WritesTimeIdentPidLabelAndText) {
  VEXA_LOG(ERROR, "[%s] code [%d]", "TUNNEL_MNGR", 5);
  EXPECT_EQ(head + "ERROR: [TUNNEL_MNGR] code [5]", records());
}

TEST_F(LoggerTest, WritesTheLabelOfEachLevel) {
  VEXA_LOG(ERROR, "a");
  VEXA_LOG(WARNING, "b");
  VEXA_LOG(INFO, "c");
  VEXA_LOG(DEBUG, "d");
  VEXA_LOG(TRACE, "e");
  EXPECT_EQ(head + "ERROR: a\n" + head + "WARNING: b\n" + head + "INFO: c\n" + head + "DEBUG: d\n" +
                head + "TRACE: e",
            records());
}

TEST_F(LoggerTest, PrintsLevelsUpToThePrintLevelOnly) {
  struct Row {
    int level;
    std::vector<bool> printable;
  };
  const Row rows[] = {
      {0, {false, false, false, false, false}}, {9, {false, false, false, false, false}},
      {10, {true, false, false, false, false}}, {20, {true, true, false, false, false}},
      {30, {true, true, true, false, false}},   {49, {true, true, true, true, false}},
      {50, {true, true, true, true, true}},     {100, {true, true, true, true, true}}};
  for (const Row& row : rows) {
    Logger::setPrintLevel(row.level, true);
    const std::vector<bool> printable{
        Logger::isPrintable(Level::ERROR_LEVEL), Logger::isPrintable(Level::WARNING_LEVEL),
        Logger::isPrintable(Level::INFO_LEVEL), Logger::isPrintable(Level::DEBUG_LEVEL),
        Logger::isPrintable(Level::TRACE_LEVEL)};
    EXPECT_EQ(row.printable, printable) << row.level;
  }
}

TEST_F(LoggerTest, MakesNoTextOfARecordThatIsNotPrintable) {
  Logger::setPrintLevel(Level::INFO_LEVEL, true);
  int made = 0;
  const auto make = [&made] { return ++made; };
  VEXA_LOG(DEBUG, "%d", make());
  EXPECT_EQ(0, made);
  EXPECT_EQ("", records());
}

TEST_F(LoggerTest, KeepsALevelThatWasSetUnlessItShallBeReplaced) {
  Logger::setPrintLevel(30, true);
  Logger::setPrintLevel(50, false);
  EXPECT_FALSE(Logger::isPrintable(50));
  Logger::setPrintLevel(50, true);
  EXPECT_TRUE(Logger::isPrintable(50));
}

TEST_F(LoggerTest, PrintfGenericDoesNotAskForTheLevel) {
  Logger::setPrintLevel(0, true);
  Logger::printfGeneric(Level::TRACE_LEVEL, Level::TRACE_LABEL, "%s", "text");
  EXPECT_EQ(head + "TRACE: text", records());
}

TEST_F(LoggerTest, PrintfWarningDoesNotAskForTheLevel) {
  Logger::setPrintLevel(Level::ERROR_LEVEL, true);
  Logger::printfWarning("[%s] Unable to log to Syslog", "TUNNEL_MNGR");
  EXPECT_EQ(head + "WARNING: [TUNNEL_MNGR] Unable to log to Syslog", records());
}

TEST_F(LoggerTest, DropsOneTrailingLineFeed) {
  VEXA_LOG(INFO, "no");
  VEXA_LOG(INFO, "one\n");
  VEXA_LOG(INFO, "two\n\n");
  VEXA_LOG(INFO, "%s", "\n");
  VEXA_LOG(INFO, "%s", "");
  EXPECT_EQ(head + "INFO: no\n" + head + "INFO: one\n" + head + "INFO: two\\n\n" + head +
                "INFO: \n" + head + "INFO: ",
            records());
}

TEST_F(LoggerTest, LetsNoValueForgeARecord) {
  const std::string forged = "x]\n2026-11-21T08:00:00.123Z IDENT[1]: ERROR: forged\r\x1b[2K";
  VEXA_LOG(INFO, "name [%s]", forged.c_str());
  EXPECT_EQ(head +
                "INFO: name [x]\\n2026-11-21T08:00:00.123Z IDENT[1]: ERROR: "
                "forged\\r\\x1b[2K]",
            records());
}

TEST_F(LoggerTest, WritesLongTextsWholeAndShowsWhereItCuts) {
  const std::string longText(20000, 'x');
  VEXA_LOG(INFO, "%s", longText.c_str());
  EXPECT_EQ(head + "INFO: " + longText, records());
  VEXA_LOG(INFO, "%s", std::string(200000, 'y').c_str());
  VEXA_LOG(INFO, "after");
  const std::string all = records();
  const std::string end = "yyy [...]\n" + head + "INFO: after";
  EXPECT_EQ(end, all.substr(all.size() - end.size()));
  EXPECT_LT(all.size(), 100000U);
}

TEST_F(LoggerTest, KeepsErrno) {
  Logger::setup(Logger::STANDARD_ERROR_AND_SYSLOG);
  errno = EDOM;
  VEXA_LOG(INFO, "text");
  EXPECT_EQ(EDOM, errno);
}

TEST_F(LoggerTest, CutsALongIdent) {
  Logger::setup(Logger::STANDARD_ERROR, std::string(200, 'i'), 0, 0);
  VEXA_LOG(INFO, "text");
  EXPECT_EQ(std::string(63, 'i') + "[" + std::to_string(getpid()) + "]: INFO: text", records());
}

TEST_F(LoggerTest, KeepsTheIdentWhenOnlyTheModeChanges) {
  EXPECT_TRUE(Logger::setup(Logger::STANDARD_ERROR));
  VEXA_LOG(INFO, "text");
  EXPECT_EQ(head + "INFO: text", records());
}

bool somebodyListensAt(const char* path) {
  const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
  const bool connected =
      connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  const bool listens = connected || errno == EPROTOTYPE;
  close(probe);
  return listens;
}

TEST_F(LoggerTest, SetupSaysWhetherSyslogCanBeReached) {
  const bool reachable = somebodyListensAt("/dev/log");
  EXPECT_EQ(reachable, Logger::setup(Logger::SYSLOG));
  EXPECT_EQ(reachable, Logger::setup(Logger::STANDARD_ERROR_AND_SYSLOG, "IDENT", 0, LOG_LOCAL7));
  EXPECT_TRUE(Logger::setup(Logger::STANDARD_ERROR));
}

TEST_F(LoggerTest, LogsToStandardErrorWhetherOrNotSyslogIsThere) {
  Logger::setup(Logger::STANDARD_ERROR_AND_SYSLOG);
  VEXA_LOG(DEBUG, "both");
  Logger::setup(Logger::SYSLOG);
  VEXA_LOG(DEBUG, "syslog only");
  EXPECT_EQ(head + "DEBUG: both", records());
}

TEST_F(LoggerTest, HonoursTheOptionThatAsksForStandardErrorToo) {
  Logger::setup(Logger::SYSLOG, "IDENT", LOG_PERROR, 0);
  VEXA_LOG(DEBUG, "both");
  EXPECT_EQ(head + "DEBUG: both", records());
}

TEST_F(LoggerTest, SurvivesABrokenStandardError) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  dup2(ends[1], STDERR_FILENO);
  close(ends[0]);
  close(ends[1]);
  VEXA_LOG(ERROR, "lost");
  dup2(saved, STDERR_FILENO);
  close(saved);
  VEXA_LOG(ERROR, "passes");
  EXPECT_EQ(head + "WARNING: Log records lost: [1]\n" + head + "ERROR: passes", records());
}

TEST_F(LoggerTest, WritesRecordsOfManyThreadsWhole) {
  constexpr int perThread = 200;
  ManyThreads(4, [](int) {
    for (int record = 0; record < perThread; ++record) {
      VEXA_LOG(INFO, "%s", std::string(100, 'x').c_str());
    }
  }).join();
  std::string expected;
  for (int i = 0; i < 4 * perThread; ++i) {
    expected += (i == 0 ? "" : "\n") + head + "INFO: " + std::string(100, 'x');
  }
  EXPECT_EQ(expected, records());
}

int count(const std::string& text, const std::string& part) {
  int found = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
}

TEST_F(LoggerTest, CanBeUsedBetweenForkAndExecWhileOtherThreadsLog) {
  std::atomic<bool> done{false};
  ManyThreads threads(2, [&done](int) {
    while (!done) {
      VEXA_LOG(INFO, "parent %s", std::string(100, 'p').c_str());
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  Logger::setup(Logger::STANDARD_ERROR_AND_SYSLOG);
  const std::string value(3000, 'c');
  int failed = 0;
  for (int i = 0; i < 100; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);
      VEXA_LOG(INFO, "short");
      VEXA_LOG(INFO, "long %s", value.c_str());
      execl("/bin/true", "true", nullptr);
      _exit(1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    failed += status == 0 ? 0 : 1;
  }
  done = true;
  threads.join();
  EXPECT_EQ(0, failed);
  const std::string all = captured.text();
  EXPECT_EQ(100, count(all, "]: INFO: short\n"));
  EXPECT_EQ(100, count(all, "]: INFO: long " + value + "\n"));
  EXPECT_EQ(0, count(records(), "NO TIME"));
}

}  // namespace
