#pragma once

#include <sys/types.h>

#include <ctime>
#include <deque>

/// Stands before the calls that the core makes to the C library. They add entries like these:
///
///     sem_open TUNNEL_MANAGER exclusive owner-only 0 / sem_open TUNNEL_MANAGER again
///     sem_close / sem_unlink TUNNEL_MANAGER
///     kill 4711 1
///     open /var/run/tunnel_mngr.pid truncated 644 close-on-exec / write 17\n / close
///     unlink /var/run/tunnel_mngr.pid
///     fork / umask 0 / setsid / signal 1 onSighup
///
/// Only the PID file's calls are taken over; other files are the C library's own. No handler
/// is installed: the trace is nothing that a signal may write to.
namespace fake {

struct Calls {
  bool semaphoreExists = false;
  bool killFails = false;
  bool openFails = false;
  bool writeFails = false;
  /// What fork() answers, when it is scripted; death tests need the true one.
  bool forkScripted = false;
  pid_t forkResult = 0;
  bool setsidFails = false;
  /// What getopt_long answers, when it is not 0.
  int foundOption = 0;
  /// What time() answers, call by call; the last stays. Empty: the true time.
  std::deque<std::time_t> times;
};

/// A test that needs other answers changes them; CoreTest sets them back.
extern Calls calls;

/// Calls the handler that signal() has installed, as the signal would.
void deliverSignal(int number);

}  // namespace fake
