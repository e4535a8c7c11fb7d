#pragma once

namespace tunnel_mngr {

/// Shares one object between several holders; the last one to go deletes it.
///
/// The count is not atomic: handles are copied and dropped by the main thread only.
/// Using the object through a handle is as safe from other threads as the object is.
template <typename T>
class SharedHandle {
 public:
  /// Takes the object over; the count starts at 1. @param isArray  delete it as an array.
  explicit SharedHandle(T* owned, bool isArray = false)
      : object(owned), count(new unsigned(1)), array(isArray) {}

  SharedHandle(const SharedHandle& other)
      : object(other.object), count(other.count), array(other.array) {
    ++*count;
  }

  SharedHandle& operator=(const SharedHandle&) = delete;

  ~SharedHandle() {
    if (--*count > 0) {
      return;
    }
    delete count;
    if (array) {
      delete[] object;
    } else {
      delete object;
    }
  }

  T* operator->() const { return object; }

  /// @return how many handles share the object.
  unsigned useCount() const { return *count; }

 private:
  T* object;
  unsigned* count;
  bool array;
};

}  // namespace tunnel_mngr
