#pragma once

namespace VEXA {

/// A single-owner pointer: deletes its object, or its array, with itself.
template <typename T>
class AutoPtr {
 public:
  explicit AutoPtr(T* owned = nullptr, bool isArray = false) : object(owned), array(isArray) {}
  AutoPtr(const AutoPtr&) = delete;
  AutoPtr& operator=(const AutoPtr&) = delete;
  ~AutoPtr() { destroy(); }

  /// Takes another object over; the previous one is deleted.
  void reset(T* next, bool nextIsArray = false) {
    destroy();
    object = next;
    array = nextIsArray;
  }

  T* get() const { return object; }
  T* operator->() const { return object; }
  T& operator*() const { return *object; }

 private:
  void destroy() {
    if (array) {
      delete[] object;
    } else {
      delete object;
    }
  }

  T* object;
  bool array;
};

}  // namespace VEXA
