#include "ipsec/proposals.hpp"

#include "platform/logger.hpp"
#include "platform/text.hpp"
#include "state/manager_state.hpp"

#include <vector>

namespace tunnel_mngr {

namespace {

struct Proposal {
  std::string cipher;
  std::string hash;
  std::string group;
};

bool beginsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

bool isGroup(const std::string& text) {
  return beginsWith(text, "modp") || beginsWith(text, "dh");
}

std::string fieldOrEmpty(const std::vector<std::string>& fields, std::size_t index) {
  return index < fields.size() ? fields[index] : std::string();
}

/// The shapes without a hash: `cipher`, `cipher;group`, `group`. The group counts for
/// nothing in any of them.
Proposal readWithoutHash(const std::string& text) {
  const std::string first = fieldOrEmpty(VEXA::Text::split(text, ";", 0), 0);
  return {isGroup(first) ? "" : first, "", ""};
}

/// The shapes with a hash, behind the cipher: `hash`, `hash;group`.
Proposal readWithHash(const std::string& cipher, const std::string& rest) {
  const std::vector<std::string> fields = VEXA::Text::split(rest, ";", 0);
  return {cipher, fieldOrEmpty(fields, 0), fieldOrEmpty(fields, 1)};
}

Proposal read(const std::string& text) {
  const std::vector<std::string> tokens = VEXA::Text::split(text, "-", 0);
  if (tokens.size() == 1) {
    return readWithoutHash(tokens[0]);
  }
  if (tokens.size() == 2) {
    return readWithHash(tokens[0], tokens[1]);
  }
  return {};
}

std::string knownHash(const std::string& hash) {
  if (hash != "sha2") {
    return hash;
  }
  VEXA_LOG(ERROR,
           "[%s] Unsupported hash value = sha2 (need use sha2_256 or sha2_512, set sha2_256).",
           managerTag);
  return "sha2_256";
}

std::string knownGroup(const std::string& group) {
  if (group == "dh22") {
    return "modp1024s160";
  }
  if (group == "dh23") {
    return "modp2048s224";
  }
  if (group == "dh24") {
    return "modp2048s256";
  }
  return group;
}

/// Drops what lacks the part that it hangs on, and writes the rest in the service's words.
Proposal normalise(const Proposal& given) {
  if (given.cipher.empty()) {
    return {};
  }
  if (given.hash.empty()) {
    return {given.cipher, "", ""};
  }
  return {given.cipher, knownHash(given.hash), knownGroup(given.group)};
}

/// One proposal for each ending, all with the same stem.
std::string alternatives(const std::string& stem, const std::vector<const char*>& endings) {
  std::string text;
  for (const char* ending : endings) {
    text += (text.empty() ? "" : ",") + stem + ending;
  }
  return text;
}

}  // namespace

std::string buildIkeProposal(const std::string& phase1) {
  const Proposal proposal = normalise(read(phase1));
  if (proposal.cipher.empty()) {
    return {};
  }
  if (proposal.hash.empty()) {
    return alternatives(proposal.cipher,
                        {"-md5-modp1536", "-sha1-modp1536", "-md5-modp1024", "-sha1-modp1024"});
  }
  const std::string suite = proposal.cipher + "-" + proposal.hash;
  if (proposal.group.empty()) {
    return alternatives(suite, {"-modp1536", "-modp1024"});
  }
  return suite + "-" + proposal.group;
}

std::string buildEspProposal(const std::string& phase2) {
  const Proposal proposal = normalise(read(phase2));
  if (proposal.cipher.empty()) {
    return {};
  }
  if (proposal.hash.empty()) {
    return alternatives(proposal.cipher, {"-md5", "-sha1"});
  }
  const std::string suite = proposal.cipher + "-" + proposal.hash;
  return proposal.group.empty() ? suite : suite + "-" + proposal.group;
}

}  // namespace tunnel_mngr
