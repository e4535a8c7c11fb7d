#include "vexa/log_outlet.hpp"

#include "platform/logger.hpp"

#include <syslog.h>
#include <unistd.h>

#include <cstring>

namespace VEXA {

namespace {

int severityOf(const char* label) {
  struct Row {
    const char* label;
    int severity;
  };
  static constexpr Row rows[] = {{Logger::PrintLevel::ERROR_LABEL, LOG_ERR},
                                 {Logger::PrintLevel::WARNING_LABEL, LOG_WARNING},
                                 {Logger::PrintLevel::INFO_LABEL, LOG_INFO},
                                 {Logger::PrintLevel::DEBUG_LABEL, LOG_DEBUG},
                                 {Logger::PrintLevel::TRACE_LABEL, LOG_DEBUG}};
  for (const Row& row : rows) {
    if (std::strcmp(row.label, label) == 0) {
      return row.severity;
    }
  }
  return LOG_NOTICE;
}

}  // namespace

LogRecord::LogRecord(const LogSource& source, const char* label)
    : priority(source.facility | severityOf(label)) {
  text.appendFormatted("%s[%d]: %s: ", source.ident, static_cast<int>(getpid()), label);
}

void LogOutlet::write(const LogSource& source, const LogRecord& record) {
  const unsigned int lostBefore = lost.exchange(0);
  if (lostBefore > 0) {
    LogRecord report(source, Logger::PrintLevel::WARNING_LABEL);
    report.text.appendFormatted("Log records lost: [%u]", lostBefore);
    if (!send(report, false)) {
      lost += lostBefore + 1;
      return;
    }
  }
  // Only the first record that meets a blocked way waits, or a burst would add up.
  if (!send(record, lostBefore == 0)) {
    ++lost;
  }
}

}  // namespace VEXA
