#pragma once

#include <sys/types.h>

#include <string>

/// A temporary directory that stands for /var/run as long as the object lives. Forgets all
/// scripts and the trace before and after, and sets the umask to 0, as the daemon does.
class RunDirectory {
 public:
  RunDirectory();
  RunDirectory(const RunDirectory&) = delete;
  RunDirectory& operator=(const RunDirectory&) = delete;
  ~RunDirectory();

  /// The directory itself.
  const std::string& directory() const { return made; }

  // These take a path below /var/run.
  std::string path(const std::string& asked) const;
  std::string read(const std::string& asked) const;
  bool exists(const std::string& asked) const;
  unsigned mode(const std::string& asked) const;
  void create(const std::string& asked, const std::string& content, mode_t mode) const;

 private:
  std::string made;
  mode_t umaskBefore;
};
