#include "core/command_line.hpp"

#include "core/core_test.hpp"
#include "core/program_arguments.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::ExitedWithCode;
using testing::IsEmpty;

constexpr char usage[] =
    "Usage: tunnel_mngr --h\n"
    "\tEstablishes GRE Tunnels based on current configurations\n"
    "\t--printlvl (p)  : sets the printlvl [0-100]\n"
    "\t--daemonize (d) : initializes then waits on SIGUP signal\n"
    "\t--help (h)      : returns this message\n";

void parse(const std::vector<std::string>& arguments) {
  ProgramArguments given(arguments);
  parseCommandLine(given.count(), given.values());
}

/// The same where the process ends: both outputs and then the trace go to standard error.
void parseAndEnd(const std::vector<std::string>& arguments) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  printTraceAtExit();
  parse(arguments);
}

class CommandLine : public CoreTest {
 protected:
  /// @return what was written to standard error.
  static std::string parsed(const std::vector<std::string>& arguments) {
    testing::internal::CaptureStderr();
    parse(arguments);
    return testing::internal::GetCapturedStderr();
  }
};

TEST_F(CommandLine, AsksForNothingWhenItIsEmpty) {
  EXPECT_EQ(parsed({}), "");
  EXPECT_FALSE(daemonize);
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(CommandLine, AsksForADaemon) {
  for (const char* option : {"-d", "--daemonize", "--d"}) {
    daemonize = false;
    EXPECT_EQ(parsed({option}), "");
    EXPECT_TRUE(daemonize) << option;
  }
}

TEST_F(CommandLine, SetsThePrintLevel) {
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"-p", "50"}, {"-p50"}, {"--printlvl", "50"}, {"--printlvl=50"}, {"--print", "50"}}) {
    EXPECT_EQ(parsed(arguments), "");
    EXPECT_THAT(fake::takeTrace(), ElementsAre("setPrintLevel 50 true"));
  }
}

TEST_F(CommandLine, AcceptsPrintLevelsFromZeroToAHundred) {
  parse({"-p", "0"});
  EXPECT_THAT(fake::takeTrace(), ElementsAre("setPrintLevel 0 true"));
  parse({"-p", "100"});
  EXPECT_THAT(fake::takeTrace(), ElementsAre("setPrintLevel 100 true"));
}

TEST_F(CommandLine, LetsALaterPrintLevelReplaceAnEarlierOne) {
  parse({"-p", "50", "-d", "-p", "20"});
  EXPECT_TRUE(daemonize);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("setPrintLevel 50 true", "setPrintLevel 20 true"));
}

TEST_F(CommandLine, ReadsOptionsInOneWord) {
  parse({"-dp7"});
  EXPECT_TRUE(daemonize);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("setPrintLevel 7 true"));
}

// --- what goes on

TEST_F(CommandLine, IgnoresAnUnknownOptionAfterItsMessage) {
  EXPECT_EQ(parsed({"-x", "-d"}), "tunnel_mngr: invalid option -- 'x'\n");
  EXPECT_TRUE(daemonize);
}

TEST_F(CommandLine, IgnoresAnUnknownLongOptionAfterItsMessage) {
  EXPECT_EQ(parsed({"--verbose", "-d"}), "tunnel_mngr: unrecognized option '--verbose'\n");
  EXPECT_TRUE(daemonize);
}

TEST_F(CommandLine, IgnoresAMissingPrintLevelAfterItsMessage) {
  EXPECT_EQ(parsed({"-p"}), "tunnel_mngr: option requires an argument -- 'p'\n");
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(CommandLine, NamesStrayArguments) {
  EXPECT_EQ(parsed({"one", "two"}), "non-option ARGV-elements: \none two \n");
}

TEST_F(CommandLine, NamesStrayArgumentsAmongOptions) {
  EXPECT_EQ(parsed({"one", "-d", "two", "-p", "5"}), "non-option ARGV-elements: \none two \n");
  EXPECT_TRUE(daemonize);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("setPrintLevel 5 true"));
}

TEST_F(CommandLine, TakesOptionsAfterADoubleDashAsStray) {
  EXPECT_EQ(parsed({"--", "-d"}), "non-option ARGV-elements: \n-d \n");
  EXPECT_FALSE(daemonize);
}

TEST_F(CommandLine, TakesPercentSignsAsText) {
  EXPECT_EQ(parsed({"%s%n"}), "non-option ARGV-elements: \n%s%n \n");
}

// --- what ends the process

using CommandLineDeathTest = CommandLine;

TEST_F(CommandLineDeathTest, PrintsItsUsage) {
  EXPECT_EXIT(parseAndEnd({"-h"}), ExitedWithCode(0), Eq(usage));
  EXPECT_EXIT(parseAndEnd({"--help"}), ExitedWithCode(0), Eq(usage));
}

TEST_F(CommandLineDeathTest, LooksAtNoOptionAfterTheCallForHelp) {
  EXPECT_EXIT(parseAndEnd({"-h", "-p", "5"}), ExitedWithCode(0), Eq(usage));
  EXPECT_EXIT(parseAndEnd({"-h", "-p", "abc"}), ExitedWithCode(0), Eq(usage));
  EXPECT_EXIT(parseAndEnd({"stray", "-hx"}), ExitedWithCode(0), Eq(usage));
}

TEST_F(CommandLineDeathTest, SetsThePrintLevelBeforeTheCallForHelp) {
  EXPECT_EXIT(parseAndEnd({"-p", "5", "-h"}), ExitedWithCode(0),
              Eq(std::string(usage) + "setPrintLevel 5 true\n"));
}

TEST_F(CommandLineDeathTest, RefusesPrintLevelsOutOfRange) {
  for (const char* level :
       {"101", "-1", "abc", "", "5x", "1.5", "0x10", "2147483648", "4294967346", "-2147483648"}) {
    EXPECT_EXIT(parseAndEnd({"-p", level}), ExitedWithCode(1),
                Eq("print level out of range [0-100]"))
        << level;
  }
}

TEST_F(CommandLineDeathTest, LooksAtNoOptionAfterAPrintLevelOutOfRange) {
  EXPECT_EXIT(parseAndEnd({"--printlvl=101", "-h"}), ExitedWithCode(1),
              Eq("print level out of range [0-100]"));
}

TEST_F(CommandLineDeathTest, KeepsTheLevelThatWasSetBeforeOneOutOfRange) {
  EXPECT_EXIT(parseAndEnd({"-p", "5", "-p", "101"}), ExitedWithCode(1),
              Eq("print level out of range [0-100]setPrintLevel 5 true\n"));
}

TEST_F(CommandLineDeathTest, AbortsOnAnAnswerThatNobodyAskedFor) {
  fake::calls.foundOption = 'z';
  EXPECT_EXIT(parseAndEnd({}), testing::KilledBySignal(SIGABRT), Eq("ABORTING!!\n"));
}

}  // namespace
}  // namespace tunnel_mngr
