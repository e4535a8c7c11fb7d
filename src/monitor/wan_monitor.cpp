#include "monitor/wan_monitor.hpp"

#include "platform/logger.hpp"

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace tunnel_mngr {

namespace {

constexpr unsigned pollMs = 30000;
constexpr std::uint32_t absorbedPolls = 3;

}  // namespace

/// Outlives the monitor for a thread whose query comes back later than the monitor's end, or
/// which only begins at that moment. Never freed: no moment is late enough, and a daemon has one.
struct WanMonitor::Life {
  Life() : previous(latest) { latest = this; }

  // Keeps all of them reachable, so that a search for leaks does not count them.
  static inline Life* latest = nullptr;
  Life* const previous;
  std::mutex mutex;
  bool over = false;
  /// The process that has the thread; 0 before there is one.
  std::atomic<pid_t> process{0};
};

WanMonitor::WanMonitor(const LockHandle& sharedLock, const ConditionHandle& sharedCondition,
                       WanQuery wanQuery, const std::string& seed)
    : VEXA::Thread("WAN_MONITOR", true),
      lock(sharedLock),
      condition(sharedCondition),
      lastWanIp(seed),
      query(wanQuery),
      life(new Life) {}

WanMonitor::~WanMonitor() {
  WanMonitor::stop();
  if (life->process != 0 && life->process != getpid()) {
    // A forked copy of the daemon has no such thread, but may have its locked mutex.
    return;
  }
  const std::lock_guard<std::mutex> guard(life->mutex);
  life->over = true;
}

// The thread may come here while the destructor is at work: what it looks at until it sees the
// stop is there until the base, which waits for it, has gone too.
__attribute__((no_sanitize("vptr"))) void WanMonitor::run() {
  Life& ownLife = *life;
  const WanQuery ask = query;
  ownLife.process = getpid();
  // The last look at the object before a query that may outlive it. Under the mutex, so that
  // the destructor comes either before, and is noticed, or after.
  const auto isOver = [this, &ownLife] {
    const std::lock_guard<std::mutex> guard(ownLife.mutex);
    return ownLife.over || isCanceled();
  };
  while (!isCanceled()) {
    sleep(pollMs);
    if (isOver()) {
      return;
    }
    const std::string newIp = ask();
    // From here to the end of the poll the monitor cannot be destroyed.
    const std::lock_guard<std::mutex> guard(ownLife.mutex);
    if (ownLife.over) {
      return;
    }
    poll(newIp);
  }
}

void WanMonitor::poll(const std::string& newIp) {
  if (addressChanged(newIp)) {
    requestRefresh(lock, condition);
  } else {
    VEXA_LOG(TRACE, "[WAN_MONITOR] WAN has not changed");
  }
}

bool WanMonitor::addressChanged(const std::string& newIp) {
  if (newIp.empty() && downCounter < absorbedPolls) {
    ++downCounter;
    VEXA_LOG(TRACE,
             "[WAN_MONITOR] All WANs are down. Waiting for the WAN to go up. Current down "
             "counter: [%d]",
             static_cast<int>(downCounter));
    return false;
  }
  const bool changed = newIp != lastWanIp;
  lastWanIp = newIp;
  downCounter = 0;
  return changed;
}

}  // namespace tunnel_mngr
