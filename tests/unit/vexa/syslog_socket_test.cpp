#include "vexa/syslog_socket.hpp"

#include "many_threads.hpp"
#include "vexa/file_descriptor.hpp"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Records = std::vector<std::string>;
using VEXA::FileDescriptor;
using VEXA::LogRecord;
using VEXA::LogSource;
using VEXA::SyslogSocket;

constexpr LogSource source{"IDENT", LOG_DAEMON};

/// A syslog daemon in a folder of its own that can be stopped and started again.
class Daemon {
 public:
  explicit Daemon(int type) : socketType(type) {
    EXPECT_NE(nullptr, mkdtemp(&folder[0]));
    path = folder + "/log";
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon() {
    stop();
    rmdir(folder.c_str());
  }

  void start() {
    listening.reset(socket(AF_UNIX, socketType | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(0,
              bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    if (socketType == SOCK_STREAM) {
      ASSERT_EQ(0, listen(listening.get(), 8));
    }
  }

  void stop() {
    listening.reset();
    unlink(path.c_str());
  }

  /// @return all records that have come, each as it came.
  Records take() const {
    Records records;
    pollfd wait{listening.get(), POLLIN, 0};
    while (poll(&wait, 1, 0) > 0) {
      records.push_back(socketType == SOCK_STREAM ? takeConnection() : receive(listening.get()));
    }
    return records;
  }

  std::string path;
  FileDescriptor listening;

 private:
  std::string takeConnection() const {
    const FileDescriptor connection(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    std::string all;
    for (std::string part = receive(connection.get()); !part.empty();
         part = receive(connection.get())) {
      all += part;
    }
    return all;
  }

  static std::string receive(int from) {
    std::string text(300000, '\0');
    const ssize_t count = recv(from, &text[0], text.size(), 0);
    text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return text;
  }

  int socketType;
  std::string folder = testing::TempDir() + "syslog_test_XXXXXX";
};

void print(SyslogSocket& outlet, const char* label, const std::string& text) {
  LogRecord record(source, label);
  record.text.append(text.data(), text.size());
  outlet.write(source, record);
}

std::string head(int priority) {
  return "<" + std::to_string(priority) + ">IDENT[" + std::to_string(getpid()) + "]: ";
}

TEST(SyslogSocket, SendsOneDatagramPerRecordWithThePriorityOfItsLabel) {
  Daemon daemon(SOCK_DGRAM);
  daemon.start();
  SyslogSocket outlet(daemon.path.c_str());
  for (const char* label : {"ERROR", "WARNING", "INFO", "DEBUG", "TRACE", "OTHER"}) {
    print(outlet, label, "text");
  }
  EXPECT_EQ((Records{head(LOG_DAEMON | LOG_ERR) + "ERROR: text",
                     head(LOG_DAEMON | LOG_WARNING) + "WARNING: text",
                     head(LOG_DAEMON | LOG_INFO) + "INFO: text",
                     head(LOG_DAEMON | LOG_DEBUG) + "DEBUG: text",
                     head(LOG_DAEMON | LOG_DEBUG) + "TRACE: text",
                     head(LOG_DAEMON | LOG_NOTICE) + "OTHER: text"}),
            daemon.take());
}

TEST(SyslogSocket, SendsTheFacilityOfTheSource) {
  Daemon daemon(SOCK_DGRAM);
  daemon.start();
  SyslogSocket outlet(daemon.path.c_str());
  const LogSource local{"OTHER", LOG_LOCAL3};
  outlet.write(local, LogRecord(local, "INFO"));
  const std::string priority = std::to_string(LOG_LOCAL3 | LOG_INFO);
  EXPECT_EQ((Records{"<" + priority + ">OTHER[" + std::to_string(getpid()) + "]: INFO: "}),
            daemon.take());
}

TEST(SyslogSocket, IsReachableWhileADaemonListens) {
  Daemon daemon(SOCK_DGRAM);
  const SyslogSocket outlet(daemon.path.c_str());
  EXPECT_FALSE(outlet.isReachable());
  daemon.start();
  EXPECT_TRUE(outlet.isReachable());
  daemon.listening.reset();
  EXPECT_FALSE(outlet.isReachable());
  EXPECT_EQ(0, access(daemon.path.c_str(), F_OK));
}

TEST(SyslogSocket, TellsWhatWasLostWhileNoDaemonWasThere) {
  Daemon daemon(SOCK_DGRAM);
  SyslogSocket outlet(daemon.path.c_str());
  print(outlet, "INFO", "lost");
  print(outlet, "INFO", "lost");
  print(outlet, "INFO", "lost");
  daemon.start();
  print(outlet, "INFO", "passes");
  print(outlet, "INFO", "passes too");
  EXPECT_EQ((Records{head(LOG_DAEMON | LOG_WARNING) + "WARNING: Log records lost: [3]",
                     head(LOG_DAEMON | LOG_INFO) + "INFO: passes",
                     head(LOG_DAEMON | LOG_INFO) + "INFO: passes too"}),
            daemon.take());
}

TEST(SyslogSocket, FindsADaemonThatRestartsWithoutLoss) {
  Daemon daemon(SOCK_DGRAM);
  daemon.start();
  SyslogSocket outlet(daemon.path.c_str());
  for (int i = 0; i < 3; ++i) {
    print(outlet, "INFO", "text");
    EXPECT_EQ((Records{head(LOG_DAEMON | LOG_INFO) + "INFO: text"}), daemon.take());
    daemon.stop();
    daemon.start();
  }
}

TEST(SyslogSocket, WaitsOnlyOnceAndShortlyForADaemonThatIsFull) {
  Daemon daemon(SOCK_DGRAM);
  daemon.start();
  SyslogSocket outlet(daemon.path.c_str());
  constexpr int sent = 2000;
  const auto begin = Clock::now();
  for (int i = 0; i < sent; ++i) {
    print(outlet, "INFO", "text");
  }
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));
  const std::size_t arrived = daemon.take().size();
  ASSERT_LT(arrived, static_cast<std::size_t>(sent));
  print(outlet, "INFO", "passes");
  const std::string lost = std::to_string(sent - arrived);
  EXPECT_EQ((Records{head(LOG_DAEMON | LOG_WARNING) + "WARNING: Log records lost: [" + lost + "]",
                     head(LOG_DAEMON | LOG_INFO) + "INFO: passes"}),
            daemon.take());
}

TEST(SyslogSocket, SendsLongRecordsWhole) {
  Daemon daemon(SOCK_DGRAM);
  daemon.start();
  SyslogSocket outlet(daemon.path.c_str());
  const std::string text(60000, 'x');
  print(outlet, "INFO", text);
  EXPECT_EQ((Records{head(LOG_DAEMON | LOG_INFO) + "INFO: " + text}), daemon.take());
}

TEST(SyslogSocket, KnowsDaemonsThatListenForStreams) {
  Daemon daemon(SOCK_STREAM);
  SyslogSocket outlet(daemon.path.c_str());
  EXPECT_FALSE(outlet.isReachable());
  print(outlet, "INFO", "lost");
  daemon.start();
  EXPECT_TRUE(outlet.isReachable());
  EXPECT_EQ(Records{""}, daemon.take());
  print(outlet, "INFO", "text");
  const std::string zero(1, '\0');
  EXPECT_EQ((Records{head(LOG_DAEMON | LOG_WARNING) + "WARNING: Log records lost: [1]" + zero,
                     head(LOG_DAEMON | LOG_INFO) + "INFO: text" + zero}),
            daemon.take());
}

TEST(SyslogSocket, CountsEveryRecordOfEveryThread) {
  Daemon daemon(SOCK_DGRAM);
  SyslogSocket outlet(daemon.path.c_str());
  ManyThreads(4, [&outlet](int) {
    for (int record = 0; record < 500; ++record) {
      print(outlet, "INFO", "lost");
    }
  }).join();
  daemon.start();
  print(outlet, "INFO", "passes");
  EXPECT_EQ((Records{head(LOG_DAEMON | LOG_WARNING) + "WARNING: Log records lost: [2000]",
                     head(LOG_DAEMON | LOG_INFO) + "INFO: passes"}),
            daemon.take());
}

}  // namespace
