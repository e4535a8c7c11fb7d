#pragma once

namespace tunnel_mngr {

/// Starts the monitors of the current configuration, in its order, and says how many.
void startFqdnMonitors();

/// Stops the monitors of the current configuration, in its order, and empties the list.
/// Started ones are not deleted: their threads end by themselves.
void dropFqdnMonitors();

/// The daemon's life: waits, rebuilds all tunnels when asked to, and checks the OpenVPN
/// tunnels every 11 seconds or more, until a stop is requested.
///
/// Each turn holds `managerLock` but for its wait, so that what a monitor asks for is seen by
/// the next turn. An exception ends only its turn; a refresh that threw is tried again by the
/// next. Main thread only.
void runMainLoop();

/// Says in the log which exception is being handled. Call from a handler only.
void reportException();

}  // namespace tunnel_mngr
