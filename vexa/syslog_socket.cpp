#include "vexa/syslog_socket.hpp"

#include "vexa/file_descriptor.hpp"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace VEXA {

namespace {

// How long a full daemon is waited for.
constexpr timeval patience{0, 50000};

int openSocket(int type) {
  const int opened = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  if (opened >= 0) {
    setsockopt(opened, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
  }
  return opened;
}

sockaddr_un addressOf(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
  return address;
}

bool connectTo(int opened, const char* path) {
  const sockaddr_un address = addressOf(path);
  return connect(opened, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

/// "<PRIORITY>" and the record in one piece, with the zero that ends it in a stream.
struct Message {
  explicit Message(const LogRecord& record) {
    const int size = std::snprintf(head.data(), head.size(), "<%d>", record.priority);
    parts[0] = {head.data(), static_cast<std::size_t>(size)};
    parts[1] = {const_cast<char*>(record.text.data()), record.text.size()};
    parts[2] = {&zero, 1};
  }

  std::array<char, 16> head{};
  char zero = '\0';
  std::array<iovec, 3> parts{};
};

bool sendAsDatagram(int opened, const char* path, const LogRecord& record, bool patient) {
  Message message(record);
  sockaddr_un address = addressOf(path);
  msghdr header{};
  header.msg_name = &address;
  header.msg_namelen = sizeof(address);
  header.msg_iov = message.parts.data();
  header.msg_iovlen = 2;
  const int flags = MSG_NOSIGNAL | (patient ? 0 : MSG_DONTWAIT);
  if (sendmsg(opened, &header, flags) >= 0) {
    return true;
  }
  // After a signal there is no second wait.
  return errno == EINTR && sendmsg(opened, &header, flags | MSG_DONTWAIT) >= 0;
}

// Each record by a connection of its own, so that no two can mix.
bool sendByStream(const char* path, const LogRecord& record) {
  const FileDescriptor stream(openSocket(SOCK_STREAM));
  if (!stream.isOpen() || !connectTo(stream.get(), path)) {
    return false;
  }
  Message message(record);
  msghdr header{};
  header.msg_iov = message.parts.data();
  header.msg_iovlen = message.parts.size();
  const std::size_t size = message.parts[0].iov_len + message.parts[1].iov_len + 1;
  return sendmsg(stream.get(), &header, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

}  // namespace

bool SyslogSocket::isReachable() const {
  const FileDescriptor datagrams(openSocket(SOCK_DGRAM));
  if (!datagrams.isOpen() || connectTo(datagrams.get(), path)) {
    return datagrams.isOpen();
  }
  const FileDescriptor stream(errno == EPROTOTYPE ? openSocket(SOCK_STREAM) : -1);
  return stream.isOpen() && connectTo(stream.get(), path);
}

bool SyslogSocket::send(const LogRecord& record, bool patient) {
  const int opened = openOnce();
  if (opened < 0) {
    return false;
  }
  if (sendAsDatagram(opened, path, record, patient)) {
    return true;
  }
  return errno == EPROTOTYPE && sendByStream(path, record);
}

int SyslogSocket::openOnce() {
  int current = descriptor;
  if (current >= 0) {
    return current;
  }
  const int opened = openSocket(SOCK_DGRAM);
  if (!descriptor.compare_exchange_strong(current, opened) && opened >= 0) {
    close(opened);
    return current;
  }
  return opened;
}

}  // namespace VEXA
