#pragma once

#include <atomic>

namespace VEXA {

/// Something that happened and that one thread may wait for, on the monotonic clock.
///
/// It is remembered until a wait has taken it; happening twice in between counts as once.
/// Holds no lock, so a fork never leaves it half taken.
class Event {
 public:
  /// Async-signal-safe, keeps errno. Any thread.
  void set();

  /// Waits for the event and takes it. @return false when the time is over without it.
  bool wait(unsigned int milliseconds);

 private:
  std::atomic<int> happened{0};
};

}  // namespace VEXA
