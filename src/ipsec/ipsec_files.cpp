#include "ipsec/ipsec_files.hpp"

#include "platform/logger.hpp"
#include "platform/system.hpp"
#include "state/manager_state.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace tunnel_mngr {

namespace {

constexpr mode_t publicMode = 0644;
constexpr mode_t secretMode = 0600;

std::string pathOf(const char* name) {
  return std::string("/var/run/ipsec") + "/" + name;
}

bool isPrivateKey(const std::string& path) {
  const std::string directory = ipsecPrivateDir() + "/";
  return path.compare(0, directory.size(), directory) == 0;
}

mode_t creationMode(const std::string& path) {
  return path == ipsecSecretsPath() || isPrivateKey(path) ? secretMode : publicMode;
}

void writeAll(int file, const std::string& content) {
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t written = ::write(file, content.data() + done, content.size() - done);
    if (written > 0) {
      done += static_cast<std::size_t>(written);
    } else if (written == 0 || errno != EINTR) {
      return;  // The rest is lost: only opening a file can fail for the callers.
    }
  }
}

bool store(const std::string& path, int position, const std::string& content) {
  const int file =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | position, creationMode(path));
  if (file < 0) {
    VEXA_LOG(WARNING, "[%s] could not be opened.", path.c_str());
    return false;
  }
  if (isPrivateKey(path)) {
    // A tunnel's name can lead to a file that was there before, with another mode.
    static_cast<void>(::fchmod(file, secretMode));
  }
  writeAll(file, content);
  static_cast<void>(::close(file));
  return true;
}

}  // namespace

const std::string& ipsecConfPath() {
  static const std::string path = pathOf("ipsec.conf");
  return path;
}

const std::string& ipsecSecretsPath() {
  static const std::string path = pathOf("ipsec.secrets");
  return path;
}

const std::string& ipsecCaCertsDir() {
  static const std::string path = pathOf("cacerts");
  return path;
}

const std::string& ipsecCertsDir() {
  static const std::string path = pathOf("certs");
  return path;
}

const std::string& ipsecPrivateDir() {
  static const std::string path = pathOf("private");
  return path;
}

bool writeFile(const std::string& path, const std::string& content) {
  return store(path, O_TRUNC, content);
}

bool appendToFile(const std::string& path, const std::string& content) {
  return store(path, O_APPEND, content);
}

void defaultIpsecConf(std::string& out) {
  out =
      "version 2.0\n"
      "\n"
      "config setup\n"
      "\tuniqueids=yes\n";
}

bool resetIpsecConfig() {
  const std::string command =
      "rm -rf " + ipsecCaCertsDir() + "/* " + ipsecCertsDir() + "/* " + ipsecPrivateDir() + "/*";
  VEXA_LOG(TRACE, "%s", command.c_str());
  std::string output;
  const int status = VEXA::System::cmd(command, output);
  if (status != 0) {
    VEXA_LOG(ERROR, "[%s] IPSec error executing remove files command [%d]", managerTag, status);
    return false;
  }
  std::string conf;
  defaultIpsecConf(conf);
  return writeFile(ipsecConfPath(), conf) && writeFile(ipsecSecretsPath(), "");
}

}  // namespace tunnel_mngr
