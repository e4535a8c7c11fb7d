#pragma once

namespace tunnel_mngr {

/// Brings the gateway's tunnels in line with the stored configuration, always from scratch:
/// everything is torn down first; then, if there is a WAN address, GRE, IPsec, the firewall
/// and OpenVPN are set up in this order.
///
/// @return true when the cycle ran to its end, also when it had no WAN address. A step that
///         failed the cycle has been logged.
/// @throws Json::Exception when a reply of the API has values of the wrong types.
/// Main thread, with `managerLock` held. Blocks as long as the API and the commands do.
bool manageTunnels();

}  // namespace tunnel_mngr
