#include "platform/system.hpp"

#include "captured_error.hpp"
#include "many_threads.hpp"
#include "refused_calls.hpp"
#include "temporary_file.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <regex>

namespace {

using Clock = std::chrono::steady_clock;
using VEXA::System::cmd;
using VEXA::System::execute;

struct Result {
  int status;
  std::string output;
};

bool operator==(const Result& left, const Result& right) {
  return left.status == right.status && left.output == right.output;
}

std::ostream& operator<<(std::ostream& stream, const Result& result) {
  return stream << result.status << " [" << result.output << "]";
}

Result run(const std::string& line) {
  Result result{-1, "left over"};
  result.status = cmd(line, result.output);
  return result;
}

Result runProgram(const std::string& program, const std::vector<std::string>& arguments) {
  Result result{-1, "left over"};
  result.status = execute(program, arguments, result.output);
  return result;
}

TEST(SystemCmd, ReturnsTheExitStatusAndTheOutput) {
  EXPECT_EQ((Result{0, "a b\n"}), run("echo a b"));
  EXPECT_EQ((Result{0, "a b\n"}), run("/bin/echo a  b"));
  EXPECT_EQ((Result{7, "x\n"}), run("echo x; exit 7"));
  EXPECT_EQ((Result{255, ""}), run("exit 255"));
  EXPECT_EQ((Result{1, ""}), run("/bin/false"));
  EXPECT_EQ((Result{0, ""}), run(""));
}

TEST(SystemCmd, GivesQuotesVariablesAndPipesToTheShell) {
  EXPECT_EQ((Result{0, "a  b\n"}), run("echo 'a  b'"));
  EXPECT_EQ((Result{0, "2\n"}), run("A=1; echo $((A + 1))"));
  EXPECT_EQ((Result{0, "cba\n"}), run("echo abc | rev"));
  EXPECT_EQ((Result{0, "error\n"}), run("echo error 2>&1 >&2 2>&1"));
}

TEST(SystemCmd, KnowsBuiltinsOfTheShell) {
  EXPECT_EQ((Result{3, ""}), run("exit 3"));
  EXPECT_EQ((Result{0, ""}), run("cd /"));
  EXPECT_EQ((Result{0, ""}), run(": nothing"));
  EXPECT_EQ((Result{0, "/\n"}), run("cd /; pwd"));
}

TEST(SystemCmd, PlainLinesMeanTheSameAsInAShell) {
  for (const std::string line :
       {"ls /etc/passwd /etc/group", "cat /proc/filesystems", "/bin/ls -d /", "expr 1 + 2",
        "ls /nonexistent/file", "env A=b true", "tr a b"}) {
    const CapturedError captured;
    const Result direct = run(line);
    const std::string directError = captured.text();
    EXPECT_EQ(run("( " + line + " )"), direct) << line;
    EXPECT_EQ(directError + directError, captured.text()) << line;
  }
}

TEST(SystemCmd, ReportsDeathBySignalAs128AndTheSignal) {
  EXPECT_EQ((Result{128 + SIGKILL, "x\n"}), run("echo x; kill -KILL $$"));
  EXPECT_EQ((Result{128 + SIGTERM, ""}), run("kill -TERM $$"));
  EXPECT_EQ((Result{128 + SIGSEGV, ""}), run("exec 2>/dev/null; sh -c 'kill -SEGV $$'; exit $?"));
}

TEST(SystemCmd, FailsAsTheShellDoesWhenThereIsNoSuchProgram) {
  const CapturedError captured;
  EXPECT_EQ((Result{127, ""}), run("no-such-program-anywhere --now"));
  EXPECT_NE(std::string::npos, captured.text().find(": no-such-program-anywhere: "));
  EXPECT_EQ((Result{127, ""}), run("/nonexistent/program"));
}

TEST(SystemCmd, FailsAsTheShellDoesWhenTheProgramIsNotExecutable) {
  const CapturedError captured;
  EXPECT_EQ((Result{126, ""}), run("/etc/passwd"));
  EXPECT_EQ((Result{126, ""}), run("/etc"));
  EXPECT_NE(std::string::npos, captured.text().find("ermission denied"));
}

TEST(SystemCmd, RunsAScriptWithoutAnInterpreterLineAsTheShellDoes) {
  const TemporaryFile script;
  std::ofstream(script.path) << "echo from script $1\n";
  chmod(script.path.c_str(), 0755);
  EXPECT_EQ((Result{0, "from script a\n"}), run(script.path + " a"));
}

TEST(SystemCmd, FindsProgramsWithoutPathWhereTheShellDoes) {
  const char* const path = std::getenv("PATH");
  ASSERT_NE(nullptr, path);
  const std::string saved = path;
  unsetenv("PATH");
  const Result result = run("ls -d /");
  setenv("PATH", saved.c_str(), 1);
  EXPECT_EQ((Result{0, "/\n"}), result);
}

TEST(SystemCmd, HandsTheEnvironmentOn) {
  setenv("SYSTEM_TEST_VALUE", "from the caller", 1);
  EXPECT_EQ((Result{0, "from the caller\n"}), run("printenv SYSTEM_TEST_VALUE"));
  unsetenv("SYSTEM_TEST_VALUE");
}

TEST(SystemCmd, TakesOutputIntoTheLineItself) {
  std::string both = "echo twice";
  EXPECT_EQ(0, cmd(both, both));
  EXPECT_EQ("twice\n", both);
}

TEST(SystemCmd, ReturnsAllOfALargeOutput) {
  constexpr std::size_t size = 10000000;
  const Result direct = run("head -c 10000000 /dev/zero");
  EXPECT_EQ(0, direct.status);
  EXPECT_EQ(std::string(size, '\0'), direct.output);
  const Result shell = run("yes | head -c 10000000; exit 5");
  EXPECT_EQ(5, shell.status);
  EXPECT_EQ(size, shell.output.size());
}

/// A command that leaves something in the background which holds the pipe and goes away
/// with this object.
struct Abandoned {
  explicit Abandoned(const std::string& line) : result(run(line)) {}
  Abandoned(const Abandoned&) = delete;
  Abandoned& operator=(const Abandoned&) = delete;
  ~Abandoned() {
    if (pid() > 1) {
      kill(pid(), SIGKILL);
    }
  }

  pid_t pid() const { return std::atoi(result.output.c_str()); }

  Result result;
};

void expectReturnBeforeTheDaemonEnds() {
  const auto begin = Clock::now();
  const Abandoned daemon("sleep 60 & echo $!; exit 4");
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(30));
  EXPECT_EQ(4, daemon.result.status);
  EXPECT_TRUE(std::regex_match(daemon.result.output, std::regex("[0-9]+\n")));
  EXPECT_EQ(0, kill(daemon.pid(), 0));
}

TEST(SystemCmd, DoesNotWaitForADaemonThatHoldsThePipe) {
  expectReturnBeforeTheDaemonEnds();
}

TEST(SystemCmd, DoesNotCollectWhatTheBackgroundGoesOnWriting) {
  const auto begin = Clock::now();
  const Result result = run("echo begin; yes & exit 2");
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(30));
  EXPECT_EQ(2, result.status);
  EXPECT_EQ(0U, result.output.find("begin\n"));
}

TEST(SystemCmd, WaitsForACommandThatHasClosedItsOutput) {
  EXPECT_EQ((Result{6, "a\n"}), run("echo a; exec >&-; sleep 0.05; exit 6"));
}

TEST(SystemCmd, WorksOnAKernelWithoutProcessDescriptors) {
  withRefusedCalls({SYS_pidfd_open}, ENOSYS, [] {
    expectReturnBeforeTheDaemonEnds();
    EXPECT_EQ((Result{128 + SIGKILL, "x\n"}), run("echo x; kill -KILL $$"));
    EXPECT_EQ((Result{6, "a\n"}), run("echo a; exec >&-; sleep 0.05; exit 6"));
    EXPECT_EQ(1000000U, run("yes | head -c 1000000").output.size());
  });
}

TEST(SystemCmd, Returns127WhenNothingCanBeStarted) {
  withRefusedCalls({SYS_clone, SYS_clone3, SYS_vfork, SYS_fork}, EAGAIN, [] {
    EXPECT_EQ((Result{127, ""}), run("ls"));
    EXPECT_EQ((Result{127, ""}), run("exit 0"));
    EXPECT_EQ((Result{127, ""}), runProgram("ls", {}));
  });
  withRefusedCalls({SYS_pipe2}, EMFILE, [] { EXPECT_EQ((Result{127, ""}), run("ls")); });
}

TEST(SystemCmd, StandardInputIsEmpty) {
  EXPECT_EQ((Result{0, ""}), run("cat"));
  EXPECT_EQ((Result{0, "/dev/null\n"}), run("readlink /proc/self/fd/0"));
}

TEST(SystemCmd, StandardErrorIsInherited) {
  const CapturedError captured;
  EXPECT_EQ((Result{0, ""}), run("echo oops >&2"));
  EXPECT_EQ("oops\n", captured.text());
}

TEST(SystemCmd, NoOtherDescriptorIsInherited) {
  const int low = dup(STDOUT_FILENO);
  const int high = fcntl(STDOUT_FILENO, F_DUPFD, 200);
  // The 3 is the folder that ls itself reads.
  EXPECT_EQ((Result{0, "0\n1\n2\n3\n"}), run("ls /proc/self/fd"));
  EXPECT_EQ((Result{0, "0\n1\n2\n3\n"}), run("ls /proc/self/fd | cat"));
  close(low);
  close(high);
}

TEST(SystemCmd, WorksWhenTheCallerHasNoStandardDescriptors) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    const bool first = run("cat /proc/self/comm") == Result{0, "cat\n"};
    close(STDERR_FILENO);
    const bool second = run("cat; echo b") == Result{0, "b\n"};
    _exit(first && second ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(0, status);
}

/// @return one of the signal sets in /proc/PID/status, without the two signals that the
///         C library keeps for itself.
std::uint64_t signalSet(const std::string& status, const std::string& name) {
  const std::size_t found = status.find("\n" + name + ":\t");
  EXPECT_NE(std::string::npos, found) << status;
  constexpr std::uint64_t ofTheLibrary = 0x180000000;
  return std::stoull(status.substr(found + name.size() + 3), nullptr, 16) & ~ofTheLibrary;
}

void expectDefaultSignals(const std::string& status) {
  EXPECT_EQ(0U, signalSet(status, "SigBlk"));
  EXPECT_EQ(0U, signalSet(status, "SigIgn"));
  EXPECT_EQ(0U, signalSet(status, "SigCgt"));
}

TEST(SystemCmd, TheChildHasDefaultSignalsWhateverTheCallerDoes) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const auto pipeBefore = std::signal(SIGPIPE, SIG_IGN);
  const auto userBefore = std::signal(SIGUSR1, [](int) {});
  const Result direct = run("cat /proc/self/status");
  const Result shell = run("(cat /proc/self/status)");
  std::signal(SIGPIPE, pipeBefore);
  std::signal(SIGUSR1, userBefore);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  expectDefaultSignals(direct.output);
  expectDefaultSignals(shell.output);
}

TEST(SystemCmd, GoesOnAfterInterruptions) {
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, &before);
  const itimerval often{{0, 1000}, {0, 1000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ((Result{5, "a\nb\n"}), run("echo a; sleep 0.02; echo b; sleep 0.02; exit 5"));
  }
  const itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
}

TEST(SystemCmd, EndsWhenTheCallerHasTheSystemReapItsChildren) {
  const auto before = std::signal(SIGCHLD, SIG_IGN);
  const Result result = run("echo a; exit 3");
  std::signal(SIGCHLD, before);
  EXPECT_EQ((Result{127, "a\n"}), result);
}

/// Runs commands and counts those whose result is not their own.
int wrongResults(int thread) {
  int wrong = 0;
  for (int turn = 0; turn < 10; ++turn) {
    const std::string number = std::to_string(thread * 10 + turn);
    const Result expected{thread, number + "\n"};
    wrong += run("echo " + number + "; exit " + std::to_string(thread)) == expected ? 0 : 1;
    wrong += run("/bin/echo " + number) == Result{0, number + "\n"} ? 0 : 1;
  }
  return wrong;
}

int wrongResultsOfManyThreads() {
  std::atomic<int> wrong{0};
  ManyThreads(16, [&wrong](int number) { wrong += wrongResults(number); }).join();
  return wrong;
}

TEST(SystemCmd, GivesManyThreadsTheirOwnResults) {
  EXPECT_EQ(0, wrongResultsOfManyThreads());
}

TEST(SystemCmd, ReapsNoOtherChild) {
  std::vector<pid_t> others;
  for (int i = 0; i < 5; ++i) {
    others.push_back(fork());
    if (others.back() == 0) {
      _exit(40 + i);
    }
  }
  EXPECT_EQ(0, wrongResultsOfManyThreads());
  for (int i = 0; i < 5; ++i) {
    int status = 0;
    ASSERT_EQ(others[static_cast<std::size_t>(i)],
              waitpid(others[static_cast<std::size_t>(i)], &status, 0));
    EXPECT_EQ(40 + i, WEXITSTATUS(status));
  }
}

TEST(SystemExecute, HandsArgumentsOnAsTheyAre) {
  EXPECT_EQ((Result{0, "a b|$HOME|;|*|\n"}),
            runProgram("printf", {"%s|%s|%s|%s|\n", "a b", "$HOME", ";", "*"}));
  EXPECT_EQ((Result{0, "\n"}), runProgram("/bin/echo", {}));
  EXPECT_EQ((Result{0, "||\n"}), runProgram("printf", {"%s|%s|\n", "", ""}));
}

TEST(SystemExecute, ReturnsTheStatusOfTheProgram) {
  EXPECT_EQ((Result{9, "x\n"}), runProgram("/bin/sh", {"-c", "echo x; exit 9"}));
  EXPECT_EQ((Result{128 + SIGTERM, ""}), runProgram("/bin/sh", {"-c", "kill -TERM $$"}));
}

TEST(SystemExecute, Returns127WhenTheProgramCannotBeStarted) {
  EXPECT_EQ((Result{127, ""}), runProgram("/nonexistent/program", {"a"}));
  EXPECT_EQ((Result{127, ""}), runProgram("no-such-program-anywhere", {}));
  EXPECT_EQ((Result{127, ""}), runProgram("/etc/passwd", {}));
  EXPECT_EQ((Result{127, ""}), runProgram("", {}));
}

}  // namespace
