#include "state/manager_state.hpp"

namespace tunnel_mngr {

static_assert(std::atomic<bool>::is_always_lock_free &&
                  std::atomic<std::int32_t>::is_always_lock_free,
              "signal handlers set these flags");

LockHandle managerLock(new VEXA::Lock);
ConditionHandle managerCondition(managerLock->createCondition());
std::atomic<bool> stopRequested{false};
std::atomic<std::int32_t> refreshRequested{0};
std::vector<FqdnMonitor*> fqdnMonitors;
std::string currentWanIp;

void requestRefresh(const LockHandle& lock, const ConditionHandle& condition) {
  lock->lock();
  refreshRequested = 1;
  condition->signal();
  lock->unlock();
}

}  // namespace tunnel_mngr
