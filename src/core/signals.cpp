#include "core/signals.hpp"

#include "core/single_instance.hpp"
#include "state/manager_state.hpp"

#include <signal.h>

namespace tunnel_mngr {

void onSighup(int signal) {
  if (signal == SIGHUP) {
    refreshRequested = 1;
    managerCondition->signal();
  }
}

void onSigterm(int signal) {
  if (signal == SIGTERM && !stopRequested) {
    cleanUp();
  }
}

void installSignalHandlers() {
  signal(SIGHUP, onSighup);
  signal(SIGTERM, onSigterm);
}

void blockSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

}  // namespace tunnel_mngr
