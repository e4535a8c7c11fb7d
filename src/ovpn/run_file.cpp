#include "ovpn/run_file.hpp"

#include "platform/logger.hpp"
#include "state/manager_state.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tunnel_mngr {

namespace {

bool writeAtOnce(int descriptor, const std::string& text) {
  return text.empty() ||
         write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace

WriteResult writeRunFile(const std::string& path, mode_t mode, const std::string& text) {
  const int descriptor =
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode);
  if (descriptor < 0) {
    return WriteResult::notOpened;
  }
  if (fchmod(descriptor, mode) != 0) {
    VEXA_LOG(ERROR, "[%s][OVPN] could not set the mode of %s", managerTag, path.c_str());
  }
  const bool written = writeAtOnce(descriptor, text);
  close(descriptor);
  return written ? WriteResult::done : WriteResult::notWritten;
}

}  // namespace tunnel_mngr
