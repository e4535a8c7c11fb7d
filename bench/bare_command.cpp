#include "bench/bare_command.hpp"

#include "bench/measure.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

namespace bench {

namespace {

class NoOutput {
 public:
  NoOutput() {
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  NoOutput(const NoOutput&) = delete;
  NoOutput& operator=(const NoOutput&) = delete;
  ~NoOutput() { posix_spawn_file_actions_destroy(&actions); }

  posix_spawn_file_actions_t actions{};
};

std::vector<std::string> wordsOf(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) {
    words.push_back(word);
  }
  return words;
}

void run(const std::vector<std::string>& words, const posix_spawn_file_actions_t* actions) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  pid_t pid = -1;
  int status = -1;
  require(posix_spawnp(&pid, arguments[0], actions, nullptr, arguments.data(), environ) == 0 &&
              waitpid(pid, &status, 0) == pid && status == 0,
          "a bare command failed");
}

}  // namespace

void runBare(const std::string& line) {
  run(wordsOf(line), nullptr);
}

void runBareUnheard(const std::string& line) {
  const NoOutput noOutput;
  run(wordsOf(line), &noOutput.actions);
}

void runInShell(const std::string& line) {
  const NoOutput noOutput;
  run({"/bin/sh", "-c", line}, &noOutput.actions);
}

}  // namespace bench
