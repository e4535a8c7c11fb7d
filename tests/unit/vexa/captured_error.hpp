#pragma once

#include <string>

/// Takes standard error away while it lives and keeps what is written to it.
class CapturedError {
 public:
  CapturedError();
  CapturedError(const CapturedError&) = delete;
  CapturedError& operator=(const CapturedError&) = delete;
  ~CapturedError();

  /// @return all that was written up to now.
  std::string text() const;

  /// Waits, with a bound, until the text holds this. @return whether it does.
  bool waitFor(const std::string& part) const;

 private:
  int saved;
};

/// @return the lines without the time that leads each of them and without the final line
///         feed; "NO TIME" in place of a line that is not led by one.
std::string withoutTimes(const std::string& lines);
