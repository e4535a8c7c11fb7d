#pragma once

#include "platform/thread.hpp"
#include "state/manager_state.hpp"

#include <cstdint>
#include <string>

namespace tunnel_mngr {

/// Polls the WAN state every 30 seconds and asks for a rebuild when it matters.
///
/// - Another address asks for one at the first poll that sees it.
/// - A lost WAN is absorbed for three polls; the fourth asks for one. An API that fails
///   counts as a lost WAN.
/// - While the WAN stays lost nothing more is asked for; its return is another address.
///
/// One object for the whole life of the daemon. After construction only its own thread
/// touches the members, until the destructor takes them away from it.
class WanMonitor : public VEXA::Thread {
 public:
  /// How the monitor learns the current WAN address; empty means that no WAN is up. May
  /// block without bound.
  using WanQuery = std::string (*)();

  /// @param seed  The WAN address at start.
  WanMonitor(const LockHandle& sharedLock, const ConditionHandle& sharedCondition,
             WanQuery wanQuery, const std::string& seed);

  /// Never waits for a poll that does not come back: such a thread ends, without touching
  /// this object, when its query returns.
  ~WanMonitor() override;

  void run() override;

 private:
  struct Life;

  void poll(const std::string& newIp);
  bool addressChanged(const std::string& newIp);

  LockHandle lock;
  ConditionHandle condition;
  std::string lastWanIp;
  std::uint32_t downCounter = 0;
  WanQuery query;
  Life* const life;
};

}  // namespace tunnel_mngr
