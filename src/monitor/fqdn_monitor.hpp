#pragma once

#include "platform/auto_ptr.hpp"
#include "platform/thread.hpp"
#include "state/manager_state.hpp"

#include <cstdint>
#include <string>

namespace tunnel_mngr {

/// Watches the peer name of one tunnel and asks for a rebuild when its address changes.
///
/// - The name is looked up once in every period.
/// - While look-ups fail, three of them in a row are absorbed, one every 30 seconds.
/// - The fourth failure in a row counts as a change to no address. After that, failures
///   are silent until the name resolves again, which is a change.
///
/// Created by the configuration pull, started after the management cycle, stopped and
/// dropped before the next one. After construction only its own thread touches it.
class FqdnMonitor : public VEXA::Thread {
 public:
  /// @param peer  The peer as configured: a name or a dotted address.
  /// @param address  What it resolved to when the tunnels were built; empty for nothing.
  /// @param periodMinutes  1 to 65535.
  FqdnMonitor(const LockHandle& sharedLock, const ConditionHandle& sharedCondition,
              const std::string& peer, const std::string& address, std::uint16_t periodMinutes,
              const std::string& tunnel);

  /// Looks the name up once and applies the policy above.
  /// @return true when the tunnels must be rebuilt.
  bool checkAddress();

  void run() override;

 private:
  void askForRebuild();

  LockHandle lock;
  ConditionHandle condition;
  // This and spareText are part of the monitor's layout; its logic needs neither.
  VEXA::AutoPtr<VEXA::Lock> ownLock;
  std::string host;
  std::string lastAddress;
  std::string tunnelName;
  std::uint32_t periodMs;
  std::string spareText;
  std::uint32_t failureCounter = 0;
};

}  // namespace tunnel_mngr
