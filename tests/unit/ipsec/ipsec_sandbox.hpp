#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <sys/types.h>

#include <string>
#include <vector>

using Trace = std::vector<std::string>;

/// Reads a value from JSON text.
Json::Value json(const std::string& text);

/// A /var/run/ipsec of the test's own, with its three directories, under umask 0.
///
/// The test program is linked so that open, write, chmod and sleep of the code under test
/// pass through here: paths under /var/run/ipsec lead to a temporary directory, and the
/// calls join the platform's trace:
///
///     truncate /var/run/ipsec/ipsec.conf 644     open, close-on-exec, with the mode
///     append /var/run/ipsec/ipsec.secrets 600
///     chmod /var/run/ipsec/ipsec.conf 644
///     sleep(1)                                   returns at once
class IpsecSandbox : public testing::Test {
 protected:
  IpsecSandbox();
  ~IpsecSandbox() override;

  /// @return where a path under /var/run/ipsec really is.
  std::string real(const std::string& path) const;

  /// @return a file's bytes, or "(missing)".
  std::string content(const std::string& path) const;

  /// @return a file's permission bits.
  mode_t mode(const std::string& path) const;

  /// @return the names in a directory, sorted, hidden ones included.
  std::vector<std::string> names(const std::string& path) const;

  /// Puts a file there, with a mode.
  void put(const std::string& path, const std::string& text, mode_t permissions) const;

  /// Makes opening this path fail with EACCES.
  void refuse(const std::string& path);

  /// Makes every chmod fail with EPERM.
  void refuseModeChanges();

  /// What the next writes do: take at most so many bytes, or fail with -errno.
  void scriptWrites(const std::vector<int>& results);

  /// @return how many scripted writes have not happened.
  std::size_t writesLeft() const;

  /// From now on commands run in a shell, on the sandbox's files.
  void runCommands();

 private:
  std::string top;
  mode_t formerUmask;
};
