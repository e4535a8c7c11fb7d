// Stands for `openvpn` in the tests with real children. It writes what it was started with
// and in to the status file, a line each, and then behaves as its configuration file says:
// "stay", "exit", or "ignore N" for a stay that takes N times SIGTERM to end.

#include <dirent.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace {

volatile sig_atomic_t left = 0;

void countDown(int /*number*/) {
  if (--left == 0) {
    _exit(0);
  }
}

std::string descriptors() {
  std::set<int> found;
  DIR* const directory = opendir("/proc/self/fd");
  while (const dirent* const entry = readdir(directory)) {
    const int number = std::atoi(entry->d_name);
    if (entry->d_name[0] != '.' && number != dirfd(directory)) {
      found.insert(number);
    }
  }
  closedir(directory);
  std::string text;
  for (const int number : found) {
    text += (text.empty() ? "" : " ") + std::to_string(number);
  }
  return text;
}

void report(int count, char** words, const std::string& openDescriptors) {
  const std::string path = words[4];
  std::ofstream out(path + ".new");
  for (int index = 0; index < count; ++index) {
    out << "argument " << words[index] << "\n";
  }
  out << "descriptors " << openDescriptors << "\n";
  int signalOfDeath = 0;
  prctl(PR_GET_PDEATHSIG, &signalOfDeath);
  out << "death " << signalOfDeath << "\n";
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    const bool isUmask = line.rfind("Umask", 0) == 0;
    if (isUmask || (line.rfind("Sig", 0) == 0 && line.rfind("SigQ", 0) != 0)) {
      line.erase(line.find('\t'), 1);
      out << line << "\n";
    }
  }
  out.close();
  std::filesystem::rename(path + ".new", path);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    return 2;
  }
  const std::string openDescriptors = descriptors();
  std::string behaviour;
  std::ifstream configuration(argv[2]);
  configuration >> behaviour;
  if (behaviour == "ignore") {
    int times = 0;
    configuration >> times;
    left = times;
    signal(SIGTERM, countDown);
  }
  configuration.close();
  report(argc, argv, openDescriptors);
  while (behaviour != "exit") {
    pause();
  }
  return 0;
}
