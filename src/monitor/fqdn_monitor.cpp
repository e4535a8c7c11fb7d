#include "monitor/fqdn_monitor.hpp"

#include "monitor/resolver.hpp"
#include "platform/logger.hpp"

namespace tunnel_mngr {

namespace {

constexpr std::uint32_t minuteMs = 60000;
constexpr std::uint32_t retryMs = 30000;
constexpr std::uint32_t absorbedFailures = 3;

}  // namespace

FqdnMonitor::FqdnMonitor(const LockHandle& sharedLock, const ConditionHandle& sharedCondition,
                         const std::string& peer, const std::string& address,
                         std::uint16_t periodMinutes, const std::string& tunnel)
    : VEXA::Thread("FQDN_MONITOR:" + tunnel, true),
      lock(sharedLock),
      condition(sharedCondition),
      ownLock(new VEXA::Lock),
      host(peer),
      lastAddress(address),
      tunnelName(tunnel),
      periodMs(minuteMs * periodMinutes) {}

bool FqdnMonitor::checkAddress() {
  const std::string newAddress = resolveHost(host);
  if (!lastAddress.empty() && newAddress.empty() && failureCounter < absorbedFailures) {
    ++failureCounter;
    VEXA_LOG(INFO,
             "[FQDN_MONITOR] tunnel:%s Failed to resolve the [%s] host. Resolution failure "
             "counter: [%d]\n",
             tunnelName.c_str(), host.c_str(), static_cast<int>(failureCounter));
    return false;
  }
  failureCounter = 0;
  if (newAddress == lastAddress) {
    return false;
  }
  VEXA_LOG(INFO,
           "[FQDN_MONITOR] tunnel:%s The host [%s] has resolved to a new ip address. "
           "[%s]=>[%s]\n",
           tunnelName.c_str(), host.c_str(), lastAddress.c_str(), newAddress.c_str());
  lastAddress = newAddress;
  return true;
}

void FqdnMonitor::askForRebuild() {
  lock->lock();
  // Several watches that see the same change wait here while the first one's rebuild is under
  // way. It has stopped them, and looked every name up anew: once is enough.
  if (!isCanceled()) {
    refreshRequested = 1;
    condition->signal();
  }
  lock->unlock();
}

void FqdnMonitor::run() {
  while (!isCanceled()) {
    sleep(failureCounter == 0 ? periodMs : retryMs);
    if (isCanceled()) {
      break;
    }
    // The host stands where one expects the tunnel; operators' filters rely on it.
    VEXA_LOG(TRACE, "[FQDN_MONITOR] tunnel:%s check %s ", host.c_str(), tunnelName.c_str());
    if (checkAddress()) {
      askForRebuild();
    } else {
      VEXA_LOG(TRACE, "[FQDN_MONITOR] FQDN has not changed");
    }
  }
  VEXA_LOG(TRACE, "[FQDN_MONITOR] tunnel:%s stop ", tunnelName.c_str());
}

}  // namespace tunnel_mngr
