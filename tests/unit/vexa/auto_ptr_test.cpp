#include "platform/auto_ptr.hpp"

#include <gtest/gtest.h>

namespace {

struct Counted {
  explicit Counted(int* counter = nullptr) : living(counter) {}
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  ~Counted() {
    if (living != nullptr) {
      --*living;
    }
  }

  int* living;
};

TEST(AutoPtr, DeletesItsObjectWithItself) {
  int living = 1;
  {
    const VEXA::AutoPtr<Counted> pointer(new Counted(&living));
    EXPECT_EQ(1, living);
    EXPECT_EQ(&living, pointer->living);
    EXPECT_EQ(pointer.get(), &*pointer);
  }
  EXPECT_EQ(0, living);
}

TEST(AutoPtr, DeletesAWholeArray) {
  int living = 2;
  {
    auto* both = new Counted[2];
    both[0].living = &living;
    both[1].living = &living;
    const VEXA::AutoPtr<Counted> pointer(both, true);
  }
  EXPECT_EQ(0, living);
}

TEST(AutoPtr, DeletesThePreviousObjectWhenItTakesAnother) {
  int first = 1;
  int second = 1;
  VEXA::AutoPtr<Counted> pointer(new Counted(&first));
  pointer.reset(new Counted(&second));
  EXPECT_EQ(0, first);
  EXPECT_EQ(1, second);
  pointer.reset(nullptr);
  EXPECT_EQ(0, second);
  EXPECT_EQ(nullptr, pointer.get());
}

}  // namespace
