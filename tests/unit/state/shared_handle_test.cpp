#include "state/shared_handle.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace tunnel_mngr {
namespace {

struct Counted {
  Counted() { ++alive; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  ~Counted() { --alive; }

  int value = 7;
  static int alive;
};

int Counted::alive = 0;

TEST(SharedHandle, CountsFromOne) {
  const SharedHandle<Counted> handle(new Counted);
  EXPECT_EQ(handle.useCount(), 1U);
  EXPECT_EQ(handle->value, 7);
}

TEST(SharedHandle, SharesItsObjectWithEveryCopy) {
  const SharedHandle<Counted> first(new Counted);
  const std::vector<SharedHandle<Counted>> copies(2, first);
  EXPECT_EQ(first.useCount(), 3U);
  EXPECT_EQ(copies[1].useCount(), 3U);
  first->value = 8;
  EXPECT_EQ(copies[0]->value, 8);
  EXPECT_EQ(copies[1]->value, 8);
  EXPECT_EQ(Counted::alive, 1);
}

TEST(SharedHandle, DeletesItsObjectWithTheLastCopy) {
  auto first = std::make_unique<SharedHandle<Counted>>(new Counted);
  auto second = std::make_unique<SharedHandle<Counted>>(*first);
  first.reset();
  EXPECT_EQ(Counted::alive, 1);
  EXPECT_EQ(second->useCount(), 1U);
  EXPECT_EQ((*second)->value, 7);
  second.reset();
  EXPECT_EQ(Counted::alive, 0);
}

TEST(SharedHandle, DeletesAnArrayAsAnArray) {
  {
    const SharedHandle<Counted> first(new Counted[3], true);
    const std::vector<SharedHandle<Counted>> copies(2, first);
    EXPECT_EQ(Counted::alive, 3);
  }
  EXPECT_EQ(Counted::alive, 0);
}

TEST(SharedHandle, HoldsNothingOnRequest) {
  const SharedHandle<Counted> handle(nullptr);
  EXPECT_EQ(handle.useCount(), 1U);
}

}  // namespace
}  // namespace tunnel_mngr
