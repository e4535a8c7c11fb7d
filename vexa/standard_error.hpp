#pragma once

#include "vexa/log_outlet.hpp"

#include <array>
#include <ctime>

namespace VEXA {

/// Large enough for every date that a clock can have.
using UtcText = std::array<char, 64>;

/// @return a time as "2026-11-21T08:00:00.123Z", with its terminating zero.
UtcText utcText(const timespec& time);

/// The way to standard error: one line per record, led by the time, in one write.
///
/// A reader that stops reading is waited for a little; one that is gone does not kill
/// the process.
class StandardError final : public LogOutlet {
 public:
  explicit constexpr StandardError(int number) : descriptor(number) {}

 private:
  bool send(const LogRecord& record, bool patient) override;

  const int descriptor;
};

}  // namespace VEXA
