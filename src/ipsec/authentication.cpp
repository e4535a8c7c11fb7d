#include "ipsec/authentication.hpp"

#include "ipsec/conn_section.hpp"
#include "ipsec/ipsec_files.hpp"

namespace tunnel_mngr {

namespace {

struct Identities {
  std::string local;
  std::string remote;
};

std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

std::string pemPath(const std::string& directory, const std::string& name) {
  return directory + "/" + name + ".pem";
}

std::string rsaSecret(const std::string& name) {
  return ": RSA " + pemPath(ipsecPrivateDir(), name) + "\n";
}

std::string pskSecret(const Identities& ids, const std::string& key) {
  return quoted(ids.local) + " " + quoted(ids.remote) + " : PSK " + quoted(key) + "\n";
}

std::string rsaLines(const Json::Value& tunnel, const std::string& name) {
  std::string lines = connSetting("authby", "rsasig");
  lines += connSetting("leftcert", pemPath(ipsecCertsDir(), name));
  const std::string localId = tunnel["localId"].asString();
  if (!localId.empty() && tunnel["uid"].asBool()) {
    lines += connSetting("leftid", quoted(localId));
  }
  const std::string remoteId = tunnel["remoteId"].asString();
  const bool isExplicit = !remoteId.empty() && tunnel["uid"].asBool();
  return lines + connSetting("rightid", isExplicit ? quoted(remoteId) : "%any");
}

/// Writes the files of the certificates and the key, each named after the tunnel.
bool writePemFiles(const Json::Value& tunnel, const std::string& name) {
  return writeFile(pemPath(ipsecCaCertsDir(), name), tunnel["caCert"].asString()) &&
         writeFile(pemPath(ipsecCertsDir(), name), tunnel["localCert"].asString()) &&
         writeFile(pemPath(ipsecPrivateDir(), name), tunnel["localPrivKey"].asString());
}

}  // namespace

bool setupRsaAuth(const Json::Value& tunnel, const std::string& localAddress) {
  const std::string name = tunnel["name"].asString();
  if (!writePemFiles(tunnel, name) || !appendToFile(ipsecSecretsPath(), rsaSecret(name))) {
    return false;
  }
  const std::string text = buildConnSection(tunnel, localAddress, rsaLines(tunnel, name));
  return !text.empty() && appendToFile(ipsecConfPath(), text);
}

bool setupPskAuth(const Json::Value& tunnel, const std::string& localAddress) {
  Identities ids{localAddress, tunnel["remoteWanIp"].asString()};
  std::string lines = connSetting("authby", "secret");
  if (tunnel["uid"].asBool()) {
    ids = {tunnel["localId"].asString(), tunnel["remoteId"].asString()};
    lines += connSetting("leftid", quoted(ids.local)) + connSetting("rightid", quoted(ids.remote));
  }
  const std::string text = buildConnSection(tunnel, localAddress, lines);
  if (text.empty() || !appendToFile(ipsecConfPath(), text)) {
    return false;
  }
  return appendToFile(ipsecSecretsPath(), pskSecret(ids, tunnel["psk"].asString()));
}

}  // namespace tunnel_mngr
