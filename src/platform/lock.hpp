#pragma once

#include <memory>

namespace VEXA {

class Condition;

/// A mutual exclusion lock, not recursive.
class Lock {
 public:
  Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock();

  void lock();
  void unlock();

  /// @return a new condition of this lock, owned by the caller; the lock must outlive it.
  Condition* createCondition();

 private:
  struct State;
  std::unique_ptr<State> state;
};

/// Wakes the one thread that waits for something guarded by a lock.
class Condition {
 public:
  explicit Condition(Lock& lock);
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;
  ~Condition();

  /// Releases the lock, waits for a signal or until the time (monotonic clock) is
  /// over, and takes the lock again. Returns at once when a signal came since the
  /// last wait. The caller holds the lock.
  void wait(unsigned int milliseconds);

  /// Ends the running wait, or else the next. Async-signal-safe; any thread, with
  /// or without the lock. Several signals between two waits count as one.
  void signal();

 private:
  struct State;
  std::unique_ptr<State> state;
};

}  // namespace VEXA
