#include "vexa/standard_error.hpp"

#include "captured_error.hpp"
#include "probed_thread.hpp"
#include "refused_calls.hpp"
#include "vexa/file_descriptor.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using VEXA::FileDescriptor;
using VEXA::LogRecord;
using VEXA::LogSource;
using VEXA::StandardError;

constexpr LogSource source{"IDENT", LOG_DAEMON};

struct Pipe {
  Pipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
    output.reset(ends[0]);
    input.reset(ends[1]);
  }

  FileDescriptor output;
  FileDescriptor input;
};

void print(StandardError& outlet, const std::string& text) {
  LogRecord record(source, "INFO");
  record.text.append(text.data(), text.size());
  outlet.write(source, record);
}

/// @return all that can be read without waiting.
std::string drain(int descriptor) {
  std::string text;
  pollfd wait{descriptor, POLLIN, 0};
  while (poll(&wait, 1, 0) > 0) {
    char buffer[65536];
    const ssize_t count = read(descriptor, buffer, sizeof(buffer));
    if (count <= 0) {
      break;
    }
    text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

/// Fills a pipe or socket until not a byte goes in. @return how many went in.
std::size_t fill(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
  std::size_t filled = 0;
  while (write(descriptor, "x", 1) == 1) {
    ++filled;
  }
  fcntl(descriptor, F_SETFL, flags);
  return filled;
}

std::string prefix() {
  return "IDENT[" + std::to_string(getpid()) + "]: ";
}

struct TimeRow {
  std::int64_t seconds;
  long nanoseconds;
  const char* text;
};

TEST(UtcText, WritesDateAndTimeToTheMillisecond) {
  const TimeRow rows[] = {
      {0, 0, "1970-01-01T00:00:00.000Z"},
      {86399, 999999999, "1970-01-01T23:59:59.999Z"},
      {86400, 0, "1970-01-02T00:00:00.000Z"},
      {951782399, 0, "2000-02-28T23:59:59.000Z"},
      {951782400, 0, "2000-02-29T00:00:00.000Z"},
      {951868800, 0, "2000-03-01T00:00:00.000Z"},
      {978307199, 1000000, "2000-12-31T23:59:59.001Z"},
      {1709164800, 0, "2024-02-29T00:00:00.000Z"},
      {1795248000, 123456789, "2026-11-21T08:00:00.123Z"},
      {2147483648, 0, "2038-01-19T03:14:08.000Z"},
      {4107542399, 0, "2100-02-28T23:59:59.000Z"},
      {4107542400, 0, "2100-03-01T00:00:00.000Z"},
  };
  for (const TimeRow& row : rows) {
    const timespec time{static_cast<time_t>(row.seconds), row.nanoseconds};
    EXPECT_STREQ(row.text, VEXA::utcText(time).data());
  }
}

TEST(UtcText, AgreesWithTheCLibraryOnEveryDay) {
  for (time_t day = 0; day < 60000; ++day) {
    const timespec time{day * 86400, 0};
    tm parts{};
    gmtime_r(&time.tv_sec, &parts);
    char expected[64];
    std::strftime(expected, sizeof(expected), "%Y-%m-%dT%H:%M:%S.000Z", &parts);
    ASSERT_STREQ(expected, VEXA::utcText(time).data());
  }
}

TEST(StandardError, WritesOneLineLedByTheTime) {
  const Pipe pipe;
  StandardError outlet(pipe.input.get());
  print(outlet, "text");
  EXPECT_EQ(prefix() + "INFO: text", withoutTimes(drain(pipe.output.get())));
}

TEST(StandardError, WritesToFiles) {
  const CapturedError captured;
  StandardError outlet(STDERR_FILENO);
  const std::string value(50000, 'a');
  print(outlet, value);
  print(outlet, "b");
  EXPECT_EQ(prefix() + "INFO: " + value + "\n" + prefix() + "INFO: b",
            withoutTimes(captured.text()));
}

TEST(StandardError, WritesToTerminals) {
  const FileDescriptor master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_EQ(0, grantpt(master.get()));
  ASSERT_EQ(0, unlockpt(master.get()));
  const FileDescriptor terminal(open(ptsname(master.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
  StandardError outlet(terminal.get());
  print(outlet, "text");
  // The kernel hands it over in its own time.
  std::string all;
  EXPECT_TRUE(becomesTrue([&] {
    all += drain(master.get());
    return all.find(prefix() + "INFO: text\r\n") != std::string::npos;
  })) << all;
}

TEST(StandardError, DoesNotHangOnAFullPipeAndTellsWhatWasLost) {
  const Pipe pipe;
  StandardError outlet(pipe.input.get());
  fill(pipe.input.get());
  const auto begin = Clock::now();
  for (int i = 0; i < 400; ++i) {
    print(outlet, "lost");
  }
  // Only the first of them waits.
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(15));
  drain(pipe.output.get());
  print(outlet, "passes");
  EXPECT_EQ(prefix() + "WARNING: Log records lost: [400]\n" + prefix() + "INFO: passes",
            withoutTimes(drain(pipe.output.get())));
}

/// @return whether this thread of the process waits for something.
bool waits(pid_t thread) {
  std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string text;
  std::getline(stat, text);
  return text.find(") S ") != std::string::npos;
}

/// Prints into a full pipe that another thread empties once the printing one waits.
/// @return what came through.
std::string printPastASlowReader(const std::string& text) {
  const Pipe pipe;
  StandardError outlet(pipe.input.get());
  const std::size_t filled = fill(pipe.input.get());
  const pid_t printer = gettid();
  std::atomic<bool> printing{false};
  std::atomic<bool> printed{false};
  std::string all;
  std::thread reader([&] {
    while (!printed) {
      if (printing && (waits(printer) || !all.empty())) {
        all += drain(pipe.output.get());
      }
    }
  });
  printing = true;
  print(outlet, text);
  printed = true;
  reader.join();
  all += drain(pipe.output.get());
  return withoutTimes(all.substr(filled));
}

TEST(StandardError, WaitsALittleForAReaderThatIsSlow) {
  const std::string value(60000, 'x');
  std::string passed;
  // A reader that a busy machine keeps from running for too long is not waited for.
  EXPECT_TRUE(becomesTrue([&] {
    passed = printPastASlowReader(value);
    return !passed.empty();
  }));
  EXPECT_EQ(prefix() + "INFO: " + value, passed);
}

TEST(StandardError, DoesNotHangOnAFullSocket) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
  const FileDescriptor input(ends[0]);
  const FileDescriptor output(ends[1]);
  StandardError outlet(input.get());
  print(outlet, "first");
  EXPECT_EQ(prefix() + "INFO: first", withoutTimes(drain(output.get())));
  fill(input.get());
  print(outlet, "lost");
  drain(output.get());
  print(outlet, "passes");
  EXPECT_EQ(prefix() + "WARNING: Log records lost: [1]\n" + prefix() + "INFO: passes",
            withoutTimes(drain(output.get())));
}

TEST(StandardError, WritesToPipesOfOlderKernels) {
  withRefusedCalls({SYS_pwritev2}, EOPNOTSUPP, [] {
    const Pipe pipe;
    StandardError outlet(pipe.input.get());
    const std::string value(20000, 'x');
    print(outlet, value);
    EXPECT_EQ(prefix() + "INFO: " + value, withoutTimes(drain(pipe.output.get())));
    fill(pipe.input.get());
    print(outlet, value);
    drain(pipe.output.get());
    print(outlet, "passes");
    EXPECT_EQ(prefix() + "WARNING: Log records lost: [1]\n" + prefix() + "INFO: passes",
              withoutTimes(drain(pipe.output.get())));
  });
}

TEST(StandardError, SurvivesAReaderThatIsGone) {
  Pipe pipe;
  StandardError outlet(pipe.input.get());
  pipe.output.reset();
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  ASSERT_EQ(0, sigismember(&before, SIGPIPE));
  print(outlet, "lost");
  sigset_t after;
  sigset_t pending;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  sigpending(&pending);
  EXPECT_EQ(0, sigismember(&after, SIGPIPE));
  EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
}

TEST(StandardError, LeavesASignalThatWasPendingBefore) {
  Pipe pipe;
  StandardError outlet(pipe.input.get());
  pipe.output.reset();
  sigset_t pipeSignal;
  sigset_t before;
  sigemptyset(&pipeSignal);
  sigaddset(&pipeSignal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeSignal, &before);
  raise(SIGPIPE);
  print(outlet, "lost");
  constexpr timespec now{0, 0};
  EXPECT_EQ(SIGPIPE, sigtimedwait(&pipeSignal, nullptr, &now));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(StandardError, SurvivesAClosedDescriptor) {
  StandardError outlet(-1);
  print(outlet, "lost");
  print(outlet, "lost");
}

}  // namespace
