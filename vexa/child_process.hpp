#pragma once

#include "vexa/file_descriptor.hpp"

#include <sys/types.h>

#include <string>
#include <vector>

namespace VEXA {

/// One program that runs with its standard output in a pipe of ours. It reads /dev/null,
/// inherits standard error and nothing else, and starts with the default signal mask and
/// handlers. Reaps no other child.
class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Waits for the end of a child that was not finished.
  ~ChildProcess();

  /// Starts the program. @param program  A path, or a name that is looked up in PATH.
  /// @param arguments  All of them, argument 0 included.
  /// @return 0, or the errno of what failed; then there is no child.
  int start(const std::string& program, const std::vector<std::string>& arguments);

  /// Collects the output until the program has ended; a process that it left in the
  /// background may still hold the pipe.
  /// @return the exit status, 128 + N after a death by signal N, or 127 when the status
  ///         was lost because the caller ignores SIGCHLD.
  int finish(std::string& output);

 private:
  std::string collect();
  bool hasEnded(const FileDescriptor& process, short events);
  bool reap(int options);

  pid_t pid = -1;
  int status = 0;
  FileDescriptor pipe;
};

}  // namespace VEXA
