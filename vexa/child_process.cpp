#include "vexa/child_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

namespace VEXA {

namespace {

constexpr int notStarted = 127;
constexpr int pollPeriodMs = 20;

// How a child starts: descriptors 0, 1 and 2 only, signals as by default.
class SpawnSettings {
 public:
  explicit SpawnSettings(int standardOutput) {
    posix_spawn_file_actions_init(&files);
    posix_spawnattr_init(&attributes);
    setFiles(standardOutput);
    setSignals();
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
  ~SpawnSettings() {
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
  }

  int error = 0;
  posix_spawn_file_actions_t files;
  posix_spawnattr_t attributes;

 private:
  // The output first: if the caller has no standard input, the pipe may be descriptor 0.
  void setFiles(int standardOutput) {
    error = posix_spawn_file_actions_adddup2(&files, standardOutput, STDOUT_FILENO);
    if (error == 0) {
      error = posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    if (error == 0) {
      error = posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
    }
  }

  void setSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
};

std::vector<char*> argumentVector(const std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

// Becomes readable when the process ends; none on a kernel without such descriptors.
int openProcess(pid_t pid) {
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

// @return false at the end of the stream.
bool readSome(int descriptor, std::size_t limit, std::string& text) {
  std::array<char, 16384> buffer;
  const ssize_t count = read(descriptor, buffer.data(), std::min(limit, buffer.size()));
  if (count < 0) {
    return errno == EINTR;
  }
  text.append(buffer.data(), static_cast<std::size_t>(count));
  return count > 0;
}

// Takes what is in the pipe now and not what a background process adds meanwhile.
void readAvailable(int descriptor, std::string& text) {
  int available = 0;
  ioctl(descriptor, FIONREAD, &available);
  const std::size_t end = text.size() + static_cast<std::size_t>(available);
  while (text.size() < end && readSome(descriptor, end - text.size(), text)) {
  }
}

}  // namespace

ChildProcess::~ChildProcess() {
  pipe.reset();
  reap(0);
}

int ChildProcess::start(const std::string& program, const std::vector<std::string>& arguments) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    return errno;
  }
  pipe.reset(ends[0]);
  const FileDescriptor input(ends[1]);
  const SpawnSettings settings(input.get());
  if (settings.error != 0) {
    return settings.error;
  }
  pid_t child = -1;
  const int error = posix_spawnp(&child, program.c_str(), &settings.files, &settings.attributes,
                                 argumentVector(arguments).data(), environ);
  if (error == 0) {
    pid = child;
  }
  return error;
}

int ChildProcess::finish(std::string& output) {
  output = collect();
  pipe.reset();
  reap(0);
  if (WIFSIGNALED(status)) {
    return 128 + WTERMSIG(status);
  }
  return WEXITSTATUS(status);
}

std::string ChildProcess::collect() {
  std::string text;
  const FileDescriptor process(openProcess(pid));
  for (;;) {
    std::array<pollfd, 2> waits{{{pipe.get(), POLLIN, 0}, {process.get(), POLLIN, 0}}};
    const int timeout = process.isOpen() ? -1 : pollPeriodMs;
    if (poll(waits.data(), waits.size(), timeout) < 0 && errno != EINTR) {
      return text;
    }
    if (hasEnded(process, waits[1].revents)) {
      readAvailable(pipe.get(), text);
      return text;
    }
    if (waits[0].revents != 0 && !readSome(pipe.get(), std::string::npos, text)) {
      return text;
    }
  }
}

bool ChildProcess::hasEnded(const FileDescriptor& process, short events) {
  return process.isOpen() ? events != 0 : reap(WNOHANG);
}

// @return whether there is no child any more.
bool ChildProcess::reap(int options) {
  while (pid > 0) {
    const pid_t result = waitpid(pid, &status, options);
    if (result == 0) {
      return false;
    }
    if (result < 0 && errno == EINTR) {
      continue;
    }
    if (result < 0) {
      status = W_EXITCODE(notStarted, 0);
    }
    pid = -1;
  }
  return true;
}

}  // namespace VEXA
