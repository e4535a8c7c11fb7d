#include "state/manager_state.hpp"

#include "fake/fake_platform.hpp"
#include "support/recorded_test.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ManagerState : public support::RecordedTest {
 protected:
  ~ManagerState() override { refreshRequested = 0; }
};

TEST_F(ManagerState, AsksForNothingAtStart) {
  EXPECT_FALSE(stopRequested);
  EXPECT_EQ(refreshRequested, 0);
  EXPECT_THAT(fqdnMonitors, IsEmpty());
  EXPECT_EQ(currentWanIp, "");
}

TEST_F(ManagerState, HoldsTheLockAndTheConditionAlone) {
  EXPECT_EQ(managerLock.useCount(), 1U);
  EXPECT_EQ(managerCondition.useCount(), 1U);
}

TEST_F(ManagerState, SignalsARefreshWithTheLockHeld) {
  fake::traceLocks = true;
  requestRefresh(managerLock, managerCondition);
  EXPECT_EQ(refreshRequested, 1);
  EXPECT_THAT(fake::takeTrace(), ElementsAre("lock", "signal", "unlock"));
}

TEST_F(ManagerState, TakesARepeatedRequestAsOne) {
  requestRefresh(managerLock, managerCondition);
  requestRefresh(managerLock, managerCondition);
  EXPECT_EQ(refreshRequested, 1);
}

TEST_F(ManagerState, NamesTheManagerInItsTag) {
  EXPECT_STREQ(managerTag, "TUNNEL_MNGR");
}

}  // namespace
}  // namespace tunnel_mngr
