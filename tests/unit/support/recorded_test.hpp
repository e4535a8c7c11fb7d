#pragma once

#include "fake/fake_platform.hpp"

#include <gtest/gtest.h>

namespace support {

/// A test that begins with an empty trace and nothing scripted, and leaves it so.
class RecordedTest : public testing::Test {
 protected:
  RecordedTest() { fake::reset(); }
  ~RecordedTest() override { fake::reset(); }
};

}  // namespace support
