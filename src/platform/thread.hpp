#pragma once

#include <memory>
#include <string>

namespace VEXA {

/// A named thread. Derive, override run(), call start().
///
/// The object may be destroyed while its thread runs: the destructor stops the
/// thread and waits for it, but not longer than a short bound, since the thread may
/// be stuck in something outside. The members of a derived class are gone before that
/// wait: its own destructor calls stop() first, and what its run() may touch afterwards
/// is kept out of the object. An object that is never deleted leaves nothing of its
/// thread behind once run() has returned.
class Thread {
 public:
  /// @param name  Name of the thread; the kernel shows its first 15 bytes.
  /// @param resume  true enters run() again, after a pause, when an exception has
  ///        left it; with false such a thread ends. The exception is logged either way.
  Thread(const std::string& name, bool resume);
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;
  virtual ~Thread();

  /// Runs run() in a new thread that blocks all signals. When no thread can be had
  /// this is logged at ERROR and the caller goes on; it may try again. Does nothing while
  /// the thread runs; after stop(), run() is not entered.
  virtual void start();

  /// Makes isCanceled() true and wakes a running sleep() at once. Does not wait for
  /// the thread: the caller may hold a lock that the thread is waiting for.
  virtual void stop();

  /// The thread's work.
  virtual void run();

  /// @return true once stop() was called. Any thread.
  bool isCanceled() const;

  /// Sleeps on the monotonic clock; returns early, or at once, after stop().
  void sleep(unsigned int milliseconds);

 private:
  struct State;
  std::shared_ptr<State> state;
};

}  // namespace VEXA
