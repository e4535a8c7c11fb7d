// Real children: what the system says about them rather than what was asked of it.

#include "fake/fake_platform.hpp"
#include "ovpn/ovpn_child.hpp"
#include "ovpn/ovpn_tnl.hpp"
#include "ovpn/run_directory.hpp"
#include "ovpn/scripted_calls.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;

/// Whatever is waited for comes within moments, or the test has failed.
template <typename Condition>
bool soon(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// The state that the kernel shows of a process; 0 when there is none.
char stateOf(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(stat, text);
  const std::size_t name = text.rfind(')');
  return name == std::string::npos ? '\0' : text[name + 2];
}

/// How often a handler of the daemon's has run, in whichever process.
std::atomic<int>* handled = nullptr;

void countSignal(int /*number*/) {
  ++*handled;
}

class RealChild : public testing::Test {
 protected:
  RealChild() {
    std::filesystem::create_symlink(REPORTING_OPENVPN, run.directory() + "/openvpn");
    setenv("PATH", (run.directory() + ":" + pathBefore).c_str(), 1);
    tunnel.confFile = run.directory() + "/conf";
    tunnel.statusFile = run.directory() + "/status";
    void* const shared =
        mmap(nullptr, sizeof *handled, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    handled = new (shared) std::atomic<int>(0);
  }

  ~RealChild() override {
    tunnel.stop();
    setenv("PATH", pathBefore.c_str(), 1);
    munmap(handled, sizeof *handled);
  }

  void behave(const std::string& behaviour) const { std::ofstream(tunnel.confFile) << behaviour; }

  /// Waits for the child's report.
  std::vector<std::string> report() const {
    EXPECT_TRUE(soon([this] { return std::filesystem::exists(tunnel.statusFile); }));
    std::ifstream file(tunnel.statusFile);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  /// The report of a child whose start met nothing unusual.
  auto isTheUsualReport() const {
    return ElementsAre("argument openvpn", "argument --config", "argument " + tunnel.confFile,
                       "argument --status", "argument " + tunnel.statusFile, "argument 1",
                       "argument --syslog", "argument openvpn", "descriptors 0 1 2", "death 15",
                       "Umask:0022", "SigPnd:0000000000000000", "SigBlk:0000000000000000",
                       "SigIgn:0000000000000000", "SigCgt:0000000000000000");
  }

  const std::string pathBefore = std::getenv("PATH");
  RunDirectory run;
  OvpnTnl tunnel;
};

/// A process that is in a state in which a daemon may be when it forks.
class UnusualDaemon {
 public:
  UnusualDaemon() : leaking(fcntl(0, F_DUPFD, 40)), umaskBefore(umask(0)) {
    sigset_t some;
    sigemptyset(&some);
    sigaddset(&some, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &some, &maskBefore);
    pipeBefore = signal(SIGPIPE, SIG_IGN);
    termBefore = signal(SIGTERM, countSignal);
  }
  UnusualDaemon(const UnusualDaemon&) = delete;
  UnusualDaemon& operator=(const UnusualDaemon&) = delete;
  ~UnusualDaemon() {
    signal(SIGTERM, termBefore);
    signal(SIGPIPE, pipeBefore);
    pthread_sigmask(SIG_SETMASK, &maskBefore, nullptr);
    close(leaking);
    umask(umaskBefore);
  }

  /// Whether the calling process is still in that state.
  static bool isUnchanged() {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    struct sigaction term {};
    struct sigaction pipe {};
    sigaction(SIGTERM, nullptr, &term);
    sigaction(SIGPIPE, nullptr, &pipe);
    return sigismember(&mask, SIGUSR1) == 1 && sigismember(&mask, SIGTERM) == 0 &&
           sigismember(&mask, SIGHUP) == 0 && term.sa_handler == countSignal &&
           pipe.sa_handler == SIG_IGN && umask(0) == 0;
  }

 private:
  int leaking;
  mode_t umaskBefore;
  sigset_t maskBefore{};
  sighandler_t pipeBefore;
  sighandler_t termBefore;
};

TEST_F(RealChild, StartsWithThreeDescriptorsAndTheDefaultSignalsWhateverTheDaemonHas) {
  behave("stay");
  const UnusualDaemon daemon;
  ASSERT_TRUE(tunnel.restart());
  EXPECT_TRUE(UnusualDaemon::isUnchanged());
  EXPECT_THAT(report(), isTheUsualReport());
  EXPECT_TRUE(tunnel.isRunning());
}

TEST_F(RealChild, StartsWithThreeDescriptorsOnAKernelThatCannotMarkThemAtOnce) {
  behave("stay");
  const UnusualDaemon daemon;
  calls::answer("close_range", -1, ENOSYS);
  ASSERT_TRUE(tunnel.restart());
  EXPECT_THAT(report(), isTheUsualReport());
}

TEST_F(RealChild, IsReapedAndStartedAgain) {
  behave("exit");
  ASSERT_TRUE(tunnel.restart());
  const pid_t first = tunnel.pid;
  EXPECT_TRUE(soon([this] { return !tunnel.isRunning(); }));
  EXPECT_EQ(tunnel.pid, 0);
  EXPECT_EQ(stateOf(first), '\0');

  behave("stay");
  std::filesystem::remove(tunnel.statusFile);
  ASSERT_TRUE(tunnel.restart());
  report();
  EXPECT_TRUE(tunnel.isRunning());
}

TEST_F(RealChild, IsStoppedAndReaped) {
  behave("stay");
  ASSERT_TRUE(tunnel.restart());
  report();
  const pid_t child = tunnel.pid;
  tunnel.stop();
  EXPECT_EQ(tunnel.pid, 0);
  EXPECT_EQ(stateOf(child), '\0');
}

TEST_F(RealChild, IsStoppedWhenItTakesThreeSignals) {
  behave("ignore 3");
  ASSERT_TRUE(tunnel.restart());
  report();
  tunnel.stop();
  EXPECT_EQ(tunnel.pid, 0);
}

TEST_F(RealChild, EndsWith255WhenThereIsNoOpenvpn) {
  setenv("PATH", "/nowhere", 1);
  ASSERT_TRUE(tunnel.restart());
  int status = 0;
  ASSERT_EQ(waitpid(tunnel.pid, &status, 0), tunnel.pid);
  tunnel.pid = 0;
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 255);
}

TEST_F(RealChild, NeverRunsTheDaemonsHandlers) {
  behave("stay");
  const UnusualDaemon daemon;
  for (int round = 0; round < 100; ++round) {
    ASSERT_TRUE(tunnel.restart());
    tunnel.stop();  // The signal usually comes before the exec.
  }
  EXPECT_EQ(handled->load(), 0);
}

TEST_F(RealChild, GoesOnAsTheDaemonWasWhenItsDirectoryCannotBeMade) {
  const UnusualDaemon daemon;
  tunnel.clientConfigDir = run.directory() + "/missing";
  fake::script("mkdir -p " + tunnel.clientConfigDir, 1);
  const pid_t self = getpid();
  const bool restarted = tunnel.restart();
  if (getpid() != self) {
    const bool asExpected =
        !restarted && tunnel.pid == 0 && UnusualDaemon::isUnchanged() && fcntl(40, F_GETFD) == 0;
    _exit(asExpected ? 0 : 1);
  }
  ASSERT_TRUE(restarted);
  int status = -1;
  ASSERT_EQ(waitpid(tunnel.pid, &status, 0), tunnel.pid);
  tunnel.pid = 0;
  EXPECT_EQ(status, 0);
}

TEST_F(RealChild, EndsWithTheDaemon) {
  behave("stay");
  // The child becomes ours when its daemon is gone, so that we can see how it ends.
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), 0);
  const pid_t daemon = fork();
  if (daemon == 0) {
    std::ofstream(run.directory() + "/started") << (tunnel.restart() ? tunnel.pid : -1);
    std::filesystem::rename(run.directory() + "/started", run.directory() + "/pid");
    pause();
    _exit(0);
  }
  report();
  EXPECT_TRUE(soon([this] { return std::filesystem::exists(run.directory() + "/pid"); }));
  pid_t child = 0;
  std::ifstream(run.directory() + "/pid") >> child;
  ASSERT_GT(child, 0);

  kill(daemon, SIGKILL);
  ASSERT_EQ(waitpid(daemon, nullptr, 0), daemon);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0);
}

TEST_F(RealChild, EndsWhenItsDaemonWasGoneAtTheFork) {
  const pid_t child = fork();
  if (child == 0) {
    becomeOpenvpn(tunnel, getppid() + 1);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 128 + SIGTERM);
}

TEST_F(RealChild, StartsWhileOtherThreadsAllocate) {
  behave("stay");
  tunnel.clientConfigDir = run.directory();  // Looking at it allocates in the child.
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  threads.reserve(2);
  for (int count = 0; count < 2; ++count) {
    threads.emplace_back([&done] {
      while (!done) {
        std::ostringstream text;
        text << std::string(5000, 'x');
      }
    });
  }
  for (int round = 0; round < 30; ++round) {
    ASSERT_TRUE(tunnel.restart());
    tunnel.stop();
  }
  done = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(tunnel.pid, 0);
}

}  // namespace
}  // namespace tunnel_mngr
