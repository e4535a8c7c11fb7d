#pragma once

#include "vexa/log_outlet.hpp"

#include <atomic>

namespace VEXA {

/// The way to the syslog daemon behind a socket in the file system, usually of datagrams.
///
/// Nothing here is connected: each record finds whoever listens at that moment, so a
/// daemon that restarts is found again. The descriptor is never closed, since another
/// thread may be using it.
class SyslogSocket final : public LogOutlet {
 public:
  /// @param socketPath  Must outlive the object.
  explicit constexpr SyslogSocket(const char* socketPath) : path(socketPath) {}

  /// @return whether a daemon listens.
  bool isReachable() const;

 private:
  bool send(const LogRecord& record, bool patient) override;
  int openOnce();

  const char* path;
  std::atomic<int> descriptor{-1};
};

}  // namespace VEXA
