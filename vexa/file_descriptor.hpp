#pragma once

#include <unistd.h>

namespace VEXA {

/// Owns an open file descriptor and closes it with itself; -1 is none.
class FileDescriptor {
 public:
  explicit FileDescriptor(int owned = -1) : number(owned) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  /// Closes what it owns and takes another one over.
  void reset(int next = -1) {
    if (number >= 0) {
      close(number);
    }
    number = next;
  }

  int get() const { return number; }
  bool isOpen() const { return number >= 0; }

 private:
  int number;
};

}  // namespace VEXA
