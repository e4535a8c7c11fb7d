#pragma once

namespace tunnel_mngr {

/// SIGHUP: asks the main loop for a refresh.
void onSighup(int signal);

/// SIGTERM: gives the place of the running instance up and asks the main loop to end.
void onSigterm(int signal);

/// Installs both. They run on the main thread: all others block every signal.
void installSignalHandlers();

/// Keeps the handlers from running from now on: what they use is about to be destroyed.
void blockSignals();

}  // namespace tunnel_mngr
