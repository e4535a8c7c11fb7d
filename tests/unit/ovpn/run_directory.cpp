#include "ovpn/run_directory.hpp"

#include "fake/fake_platform.hpp"
#include "ovpn/scripted_api.hpp"
#include "ovpn/scripted_calls.hpp"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

std::string makeDirectory() {
  std::string name = std::filesystem::temp_directory_path() / "unit_ovpn.XXXXXX";
  if (mkdtemp(&name[0]) == nullptr) {
    throw std::runtime_error("no temporary directory");
  }
  return name;
}

void forgetScripts() {
  fake::reset();
  calls::reset();
  scripted_api::reset();
}

}  // namespace

RunDirectory::RunDirectory() : made(makeDirectory()), umaskBefore(umask(0)) {
  forgetScripts();
  calls::redirectRun(made);
}

RunDirectory::~RunDirectory() {
  forgetScripts();
  umask(umaskBefore);
  std::error_code ignored;  // What is left behind is only a temporary file.
  std::filesystem::remove_all(made, ignored);
}

std::string RunDirectory::path(const std::string& asked) const {
  return made + asked.substr(8);
}

std::string RunDirectory::read(const std::string& asked) const {
  std::ifstream file(path(asked));
  return {std::istreambuf_iterator<char>(file), {}};
}

bool RunDirectory::exists(const std::string& asked) const {
  return std::filesystem::exists(path(asked));
}

unsigned RunDirectory::mode(const std::string& asked) const {
  return static_cast<unsigned>(std::filesystem::status(path(asked)).permissions());
}

void RunDirectory::create(const std::string& asked, const std::string& content, mode_t mode) const {
  std::ofstream(path(asked)) << content;
  std::filesystem::permissions(path(asked), static_cast<std::filesystem::perms>(mode));
}
