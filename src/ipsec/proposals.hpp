#pragma once

#include <string>

/// From a record's short algorithm texts to the values of the service's `ike=` and `esp=`.
///
/// Read are `cipher`, `cipher;group`, `cipher-hash` and `cipher-hash;group`; a field may
/// be empty. A group needs a hash, and a hash a cipher: without it they are dropped.
/// "dh22" to "dh24" become the names that the service knows, and the hash "sha2", which it
/// does not know, becomes "sha2_256" (logged at ERROR). Nothing else is checked.
namespace tunnel_mngr {

/// @return proposals joined by ",", one for each usual hash and group that the text leaves
///         open; empty when it names no cipher or has another shape. Any thread.
std::string buildIkeProposal(const std::string& phase1);

/// The same for phase 2, where a missing group stays missing.
std::string buildEspProposal(const std::string& phase2);

}  // namespace tunnel_mngr
