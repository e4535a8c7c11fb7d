#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>

/// An empty file that goes away with this object.
class TemporaryFile {
 public:
  TemporaryFile() {
    const int file = mkstemp(&path[0]);
    close(file);
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() { unlink(path.c_str()); }

  std::string path = testing::TempDir() + "system_test_XXXXXX";
};
