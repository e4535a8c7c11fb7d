#pragma once

#include <functional>
#include <string>
#include <vector>

/// The system calls of the OpenVPN room, put before those of the C library at link time.
///
/// Files below /var/run are made in a directory of the test. Opening, writing and closing
/// them, and everything that has to do with processes, is written to the fake platform's
/// trace, in order:
///
///     open /var/run/x.conf 0600      chmod 0600      write 12      close
///     fork      waitpid 42      kill 42 15      sleep 1
///     prctl 1 15      opendir /x      closes descriptors      default signals (all of them)
///     mask all | mask none | mask as before
///     exec openvpn [openvpn] [--config] ...      _exit 255
///
/// With processes scripted, none is made, no signal is sent and nothing sleeps; a child
/// (fork scripted to return 0) runs within playChild(). Otherwise the calls of processes are
/// the real ones and only `sleep` is cut.
namespace calls {

/// An answer that lets the real call do it.
inline constexpr long real = -1000000;

/// Forgets scripts and redirection; processes are real again.
void reset();

/// Plays processes instead of making them.
void scriptProcesses();

/// The directory that stands for /var/run.
void redirectRun(const std::string& directory);

/// Answers the next call of this name. Answers are used up in order. Without one, processes
/// answer like a quiet system: fork 100, 101, ...; waitpid 0 (running); prctl, kill and
/// close_range 0; opendir opens; an exec takes the process over; files are real.
void answer(const std::string& name, long result, int error = 0);

/// The parent that a scripted child sees, instead of the process that forked it.
void setParent(int pid);

/// Runs code that may end its process, in a process of its own, with processes scripted as
/// in this one.
///
/// @return the child's trace. It ends with an exec or `_exit`, or else with "returned true"
///         or "returned false" for the code's result.
std::vector<std::string> playChild(const std::function<bool()>& code);

/// The flags of every open below /var/run.
const std::vector<int>& openFlags();

}  // namespace calls
