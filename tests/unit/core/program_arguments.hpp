#pragma once

#include <getopt.h>

#include <string>
#include <utility>
#include <vector>

namespace tunnel_mngr {

/// What main() gets: the program's name and these arguments, which getopt reads from the start.
class ProgramArguments {
 public:
  explicit ProgramArguments(std::vector<std::string> arguments) : texts(std::move(arguments)) {
    texts.insert(texts.begin(), "tunnel_mngr");
    for (std::string& text : texts) {
      pointers.push_back(&text[0]);
    }
    pointers.push_back(nullptr);
    optind = 0;
  }
  ProgramArguments(const ProgramArguments&) = delete;
  ProgramArguments& operator=(const ProgramArguments&) = delete;

  int count() const { return static_cast<int>(texts.size()); }
  char** values() { return pointers.data(); }

 private:
  std::vector<std::string> texts;
  std::vector<char*> pointers;
};

}  // namespace tunnel_mngr
