#include "vexa/event.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

TEST(Event, IsRememberedUntilItIsTaken) {
  VEXA::Event event;
  event.set();
  EXPECT_TRUE(event.wait(0));
  EXPECT_FALSE(event.wait(0));
}

TEST(Event, CountsAsOnceHoweverOftenItHappens) {
  VEXA::Event event;
  event.set();
  event.set();
  EXPECT_TRUE(event.wait(0));
  EXPECT_FALSE(event.wait(0));
}

TEST(Event, IsWaitedForAsLongAsAsked) {
  VEXA::Event event;
  const auto begin = Clock::now();
  EXPECT_FALSE(event.wait(30));
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(30));
}

TEST(Event, WakesTheThreadThatWaits) {
  VEXA::Event event;
  std::thread other([&event] { event.set(); });
  EXPECT_TRUE(event.wait(3932100000U));
  other.join();
}

TEST(Event, KeepsErrno) {
  VEXA::Event event;
  errno = EDOM;
  event.set();
  EXPECT_EQ(EDOM, errno);
}

}  // namespace
