#pragma once

#include "vexa/log_text.hpp"

#include <atomic>

namespace VEXA {

/// Under which name the process logs.
struct LogSource {
  const char* ident;
  int facility;
};

/// One line of the log: "IDENT[PID]: LABEL: " and whatever is appended to its text.
struct LogRecord {
  LogRecord(const LogSource& source, const char* label);

  /// As syslog(3) wants it: the facility, and the severity that fits the label.
  int priority;
  LogText text;
};

/// A way out for log records that may be blocked or gone.
///
/// Records that do not pass are counted, and the next one that does is preceded by one
/// that tells how many were lost. Any thread; no lock.
class LogOutlet {
 public:
  void write(const LogSource& source, const LogRecord& record);

 protected:
  constexpr LogOutlet() = default;
  ~LogOutlet() = default;

 private:
  /// Lets one record pass. @param patient  Whether to wait a little for a blocked way.
  /// @return false when it did not pass.
  virtual bool send(const LogRecord& record, bool patient) = 0;

  std::atomic<unsigned int> lost{0};
};

}  // namespace VEXA
