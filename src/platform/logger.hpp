#pragma once

#include <string>

namespace VEXA {

/// The gateway's log. Every function may be called from any thread, and between
/// `fork` and `exec`; none blocks longer than a short bound, whatever becomes of
/// syslog or of standard error.
class Logger {
 public:
  /// Levels with their labels; a record is printable when its level is not above
  /// the print level (0 to 100).
  struct PrintLevel {
    static constexpr int ERROR_LEVEL = 10;
    static constexpr int WARNING_LEVEL = 20;
    static constexpr int INFO_LEVEL = 30;
    static constexpr int DEBUG_LEVEL = 40;
    static constexpr int TRACE_LEVEL = 50;
    static constexpr const char* ERROR_LABEL = "ERROR";
    static constexpr const char* WARNING_LABEL = "WARNING";
    static constexpr const char* INFO_LABEL = "INFO";
    static constexpr const char* DEBUG_LABEL = "DEBUG";
    static constexpr const char* TRACE_LABEL = "TRACE";
  };

  /// Where records go: a bit set.
  enum PrintMode : int { STANDARD_ERROR = 1, SYSLOG = 2, STANDARD_ERROR_AND_SYSLOG = 3 };

  /// Sets the print level. @param replace  false keeps a level that was set before.
  static void setPrintLevel(int level, bool replace);

  /// Says where records go and under which ident. `option` and `facility` are
  /// those of openlog(3): facility 0 means LOG_DAEMON, and of the options LOG_PERROR
  /// counts (the pid is always written). Threads that log meanwhile may mix both idents.
  /// @return false when the mode includes syslog and /dev/log cannot be reached;
  ///         the ident is kept all the same.
  static bool setup(const PrintMode& mode, const std::string& ident, const int& option,
                    const int& facility);

  /// Changes only where records go. @return as above.
  static bool setup(const PrintMode& mode);

  /// Prints a WARNING without asking isPrintable(): for what an operator must see before
  /// any print level could be chosen.
  static void printfWarning(const char* format, ...) __attribute__((format(printf, 1, 2)));

  /// @return true when a record of this level would be printed.
  static bool isPrintable(int level);

  /// Prints one record, "LABEL: text", without asking isPrintable().
  static void printfGeneric(int level, const char* label, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
};

}  // namespace VEXA

/// Writes a record of a level (ERROR, WARNING, INFO, DEBUG, TRACE). A macro, so that
/// the compiler checks each format and the arguments cost nothing when not printable.
#define VEXA_LOG(level, ...)                                                             \
  do {                                                                                   \
    if (VEXA::Logger::isPrintable(VEXA::Logger::PrintLevel::level##_LEVEL)) {            \
      VEXA::Logger::printfGeneric(VEXA::Logger::PrintLevel::level##_LEVEL,               \
                                  VEXA::Logger::PrintLevel::level##_LABEL, __VA_ARGS__); \
    }                                                                                    \
  } while (false)
