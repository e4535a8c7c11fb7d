#pragma once

#include "platform/lock.hpp"
#include "state/shared_handle.hpp"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

/// The manager's process-wide state: the little that every room may look at.
///
/// Made before `main` in the order of this file and destroyed in reverse after it.
/// The monitors hold handles of their own, so that the lock and the condition outlive
/// every thread that may still use them.
namespace tunnel_mngr {

class FqdnMonitor;

using LockHandle = SharedHandle<VEXA::Lock>;
using ConditionHandle = SharedHandle<VEXA::Condition>;

/// Fills the "[%s]" that begins most messages.
inline constexpr char managerTag[] = "TUNNEL_MNGR";

/// Held by the main loop for each whole turn, except while it waits.
extern LockHandle managerLock;

/// Wakes the main loop.
extern ConditionHandle managerCondition;

/// Ends the main loop. Set by the handler of SIGTERM.
extern std::atomic<bool> stopRequested;

/// Not zero: rebuild all tunnels at the next turn of the main loop. Monitors set it with
/// `managerLock` held, the handler of SIGHUP without; hence the lock-free type.
extern std::atomic<std::int32_t> refreshRequested;

/// The monitors of the current configuration, in its order. Main thread only. Monitors
/// that a refresh drops are stopped but never deleted: their threads may still be looking
/// a name up.
extern std::vector<FqdnMonitor*> fqdnMonitors;

/// The WAN address that the last management cycle found; empty when no WAN is up. Local
/// address of every tunnel. Main thread only.
extern std::string currentWanIp;

/// How a monitor asks for a rebuild of all tunnels. Waits until the main loop's current
/// turn is over. Any thread but the main one.
void requestRefresh(const LockHandle& lock, const ConditionHandle& condition);

}  // namespace tunnel_mngr
