#include "platform/system.hpp"

#include "vexa/child_process.hpp"
#include "vexa/file_descriptor.hpp"
#include "vexa/plain_line.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <utility>

namespace VEXA::System {

namespace {

constexpr int notStarted = 127;

int run(const std::string& program, const std::vector<std::string>& arguments,
        std::string& output) {
  ChildProcess child;
  if (child.start(program, arguments) != 0) {
    output.clear();
    return notStarted;
  }
  return child.finish(output);
}

// @return 0, or the errno of the read that failed.
int readAll(int file, std::string& content) {
  std::array<char, 16384> buffer;
  for (;;) {
    const ssize_t count = read(file, buffer.data(), buffer.size());
    if (count > 0) {
      content.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0) {
      return 0;
    } else if (errno != EINTR) {
      return errno;
    }
  }
}

}  // namespace

int cmd(const std::string& line, std::string& output) {
  // Without PATH, the shell's idea of the usual directories is not the C library's.
  const std::vector<std::string> words =
      std::getenv("PATH") != nullptr ? plainWords(line) : std::vector<std::string>();
  ChildProcess child;
  if (!words.empty() && child.start(words.front(), words) == 0) {
    return child.finish(output);
  }
  // What could not be started directly fails in the shell, with its message and status.
  return run("/bin/sh", {"sh", "-c", line}, output);
}

int execute(const std::string& program, const std::vector<std::string>& arguments,
            std::string& output) {
  std::vector<std::string> all{program};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return run(program, all, output);
}

int readFile(const std::string& path, std::string& out) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string content;
  const int error = file.isOpen() ? readAll(file.get(), content) : errno;
  if (error != 0) {
    content.clear();
  }
  out = std::move(content);
  return error;
}

}  // namespace VEXA::System
