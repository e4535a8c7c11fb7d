#include "platform/logger.hpp"

#include "vexa/log_outlet.hpp"
#include "vexa/standard_error.hpp"
#include "vexa/syslog_socket.hpp"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <type_traits>

namespace VEXA {

namespace {

constexpr std::size_t identBytes = 64;

// Threads may log while the process ends, so nothing of this is ever destroyed.
std::atomic<int> printLevel{Logger::PrintLevel::ERROR_LEVEL};
std::atomic<bool> printLevelGiven{false};
std::atomic<int> printMode{Logger::STANDARD_ERROR};
std::atomic<int> syslogFacility{LOG_DAEMON};
std::array<std::atomic<char>, identBytes> syslogIdent{};
StandardError standardError(STDERR_FILENO);
SyslogSocket syslogSocket("/dev/log");

static_assert(std::is_trivially_destructible<StandardError>::value);
static_assert(std::is_trivially_destructible<SyslogSocket>::value);

void setIdent(const std::string& ident) {
  const std::size_t size = std::min(ident.size(), identBytes - 1);
  std::copy_n(ident.begin(), size, syslogIdent.begin());
  syslogIdent[size] = '\0';
}

__attribute__((format(printf, 2, 0))) void print(const char* label, const char* format,
                                                 va_list values) {
  const int savedErrno = errno;
  LogText text;
  text.appendFormatted(format, values);
  std::array<char, identBytes> ident;
  std::copy(syslogIdent.begin(), syslogIdent.end(), ident.begin());
  const LogSource source{ident.front() == '\0' ? program_invocation_short_name : ident.data(),
                         syslogFacility};
  LogRecord record(source, label);
  const bool endsLine = text.size() > 0 && text.data()[text.size() - 1] == '\n';
  record.text.appendEscaped(text.data(), text.size() - (endsLine ? 1 : 0));
  const int mode = printMode;
  if ((mode & Logger::STANDARD_ERROR) != 0) {
    standardError.write(source, record);
  }
  if ((mode & Logger::SYSLOG) != 0) {
    syslogSocket.write(source, record);
  }
  errno = savedErrno;
}

}  // namespace

void Logger::setPrintLevel(int level, bool replace) {
  if (replace || !printLevelGiven) {
    printLevel = level;
    printLevelGiven = true;
  }
}

bool Logger::setup(const PrintMode& mode, const std::string& ident, const int& option,
                   const int& facility) {
  setIdent(ident);
  syslogFacility = facility == 0 ? LOG_DAEMON : facility;
  const bool perror = (option & LOG_PERROR) != 0;
  return setup(perror ? static_cast<PrintMode>(mode | STANDARD_ERROR) : mode);
}

bool Logger::setup(const PrintMode& mode) {
  printMode = mode;
  return (mode & SYSLOG) == 0 || syslogSocket.isReachable();
}

void Logger::printfWarning(const char* format, ...) {
  va_list values;
  va_start(values, format);
  print(PrintLevel::WARNING_LABEL, format, values);
  va_end(values);
}

bool Logger::isPrintable(int level) {
  return level <= printLevel;
}

void Logger::printfGeneric(int, const char* label, const char* format, ...) {
  va_list values;
  va_start(values, format);
  print(label, format, values);
  va_end(values);
}

}  // namespace VEXA
