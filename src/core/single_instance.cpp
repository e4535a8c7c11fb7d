#include "core/single_instance.hpp"

#include "platform/logger.hpp"
#include "platform/system.hpp"
#include "platform/text.hpp"
#include "state/manager_state.hpp"

#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>

namespace tunnel_mngr {

namespace {

constexpr char semaphoreName[] = "TUNNEL_MANAGER";
constexpr char pidFilePath[] = "/var/run/tunnel_mngr.pid";

/// A marker only: nobody waits on it or posts it. Null when another instance made it.
sem_t* instanceSemaphore = nullptr;

/// Whether the PID file is ours to remove. Lock-free: the handler of SIGTERM clears it.
std::atomic<bool> pidFileWritten{false};

/// @return true when the running instance was asked to refresh.
bool signalRunningInstance() {
  std::string content;
  if (VEXA::System::readFile(pidFilePath, content) != 0) {
    VEXA_LOG(WARNING, "Unable to read PID file [%s]", pidFilePath);
    return false;
  }
  const std::string text = VEXA::Text::trim(content);
  int pid = 0;
  // To kill(2), what is below 1 names groups of processes: a broken file must not reach them.
  if (!VEXA::Text::parse(pid, text) || pid < 1) {
    VEXA_LOG(WARNING, "Unable to parse PID file [%s] result [%s]", pidFilePath, text.c_str());
    return false;
  }
  return kill(pid, SIGHUP) == 0;
}

bool writeAll(int descriptor, const std::string& text) {
  const ssize_t written = write(descriptor, text.data(), text.size());
  return written >= 0 && static_cast<std::size_t>(written) == text.size();
}

}  // namespace

void checkRunningInstance() {
  instanceSemaphore = sem_open(semaphoreName, O_CREAT | O_EXCL, S_IRUSR | S_IWUSR, 0);
  if (instanceSemaphore != nullptr) {
    // A second use that nobody closes: sem_close in the handler of SIGTERM then only counts
    // down, where the last one would free memory in the middle of what it interrupted.
    static_cast<void>(sem_open(semaphoreName, 0));
    return;
  }
  VEXA_LOG(INFO, "Signaling to process for refresh.");
  if (signalRunningInstance()) {
    std::exit(0);
  }
  VEXA_LOG(WARNING, "Unable to signal process. Exiting ...");
  pidFileWritten = true;
  if (!stopRequested) {
    cleanUp();
  }
  std::exit(1);
}

void writePidFile() {
  const int descriptor = open(pidFilePath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW,
                              S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
  if (descriptor < 0) {
    VEXA_LOG(WARNING, "Unable to write pid to file: %s", pidFilePath);
    return;
  }
  if (!writeAll(descriptor, VEXA::Text::format(getpid()) + "\n")) {
    VEXA_LOG(WARNING, "Unable to write pid to file: %s", pidFilePath);
  }
  close(descriptor);
  pidFileWritten = true;
}

void cleanUp() {
  sem_unlink(semaphoreName);
  if (instanceSemaphore != nullptr) {
    sem_close(instanceSemaphore);
  }
  if (pidFileWritten) {
    unlink(pidFilePath);
    pidFileWritten = false;
  }
  stopRequested = true;
}

}  // namespace tunnel_mngr
