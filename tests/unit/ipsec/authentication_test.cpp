#include "ipsec/authentication.hpp"

#include "fake/fake_platform.hpp"
#include "ipsec/ipsec_files.hpp"
#include "ipsec/ipsec_sandbox.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace tunnel_mngr;

constexpr char local[] = "203.0.113.5";
constexpr char unsupportedType[] =
    "WARNING [TUNNEL_MNGR] Error in ipsec config generation. IPSec Connection Type not "
    "implemented.";

/// The connection text of the record below with these authentication lines.
std::string connText(const std::string& authLines) {
  return "\n"
         "conn site2\n"
         "\tleft=203.0.113.5\n"
         "\tleftupdown=/etc/quorvex/hooks/ipsec-tunnel-link-changed\n"
         "\tright=198.51.100.7\n"
         "\tauto=start\n"
         "\tdpddelay=60\n"
         "\tdpdtimeout=120\n"
         "\tdpdaction=restart\n"
         "\tcompress=no\n"
         "\taggressive=no\n"
         "\tike=aes128-sha1-modp2048\n"
         "\tesp=aes128-sha1\n"
         "\tikelifetime=3h\n"
         "\tkeylife=1h\n"
         "\tkeyingtries=%forever\n"
         "\tkeyexchange=ikev2\n" +
         authLines +
         "\n"
         "conn site2_subnet_0_0\n"
         "\talso=site2\n"
         "\tleftsubnet=10.0.1.0/24\n"
         "\trightsubnet=10.0.2.0/24\n"
         "\tauto=route\n";
}

class Authentication : public IpsecSandbox {
 protected:
  Json::Value tunnel = json(R"({"name":"site2","remoteWanIp":"198.51.100.7","type":"IKEv2",
      "phase1":"aes128-sha1;modp2048","phase2":"aes128-sha1","ikelife":3,"keylife":1,
      "localSubnets":[{"ip":"10.0.1.1","mask":24}],
      "remoteSubnets":[{"ip":"10.0.2.1","mask":24}],
      "caCert":"the CA\n","localCert":"the certificate\n","localPrivKey":"the key",
      "psk":"the secret"})");

  void setIdentities(bool uid, const std::string& localId, const std::string& remoteId) {
    tunnel["uid"] = uid;
    tunnel["localId"] = localId;
    tunnel["remoteId"] = remoteId;
  }

  /// Expects both appended files as they are after one tunnel.
  void expectFiles(const std::string& conf, const std::string& secrets) const {
    EXPECT_EQ(content(ipsecConfPath()), conf);
    EXPECT_EQ(content(ipsecSecretsPath()), secrets);
  }
};

class RsaAuth : public Authentication {
 protected:
  /// The authentication lines with these identity lines at their end.
  static std::string lines(const std::string& ids) {
    return "\tauthby=rsasig\n\tleftcert=/var/run/ipsec/certs/site2.pem\n" + ids;
  }
};

class PskAuth : public Authentication {};

constexpr char rsaSecret[] = ": RSA /var/run/ipsec/private/site2.pem\n";

TEST_F(RsaAuth, WritesTheFilesThenTheSecretThenTheConnection) {
  EXPECT_TRUE(setupRsaAuth(tunnel, local));
  EXPECT_EQ(fake::takeTrace(), (Trace{"truncate /var/run/ipsec/cacerts/site2.pem 644",
                                      "truncate /var/run/ipsec/certs/site2.pem 644",
                                      "truncate /var/run/ipsec/private/site2.pem 600",
                                      "append /var/run/ipsec/ipsec.secrets 600",
                                      "append /var/run/ipsec/ipsec.conf 644"}));
  EXPECT_EQ(content("/var/run/ipsec/cacerts/site2.pem"), "the CA\n");
  EXPECT_EQ(content("/var/run/ipsec/certs/site2.pem"), "the certificate\n");
  EXPECT_EQ(content("/var/run/ipsec/private/site2.pem"), "the key");
  expectFiles(connText(lines("\trightid=%any\n")), rsaSecret);
}

TEST_F(RsaAuth, WritesIdentitiesOnlyWhenTheyAreUsedAndGiven) {
  struct Row {
    bool uid;
    const char* localId;
    const char* remoteId;
    const char* idLines;
  };
  const Row rows[] = {
      {false, "a", "b", "\trightid=%any\n"},
      {true, "", "", "\trightid=%any\n"},
      {true, "a", "", "\tleftid=\"a\"\n\trightid=%any\n"},
      {true, "", "b", "\trightid=\"b\"\n"},
      {true, "CN=a, O=x", "@b", "\tleftid=\"CN=a, O=x\"\n\trightid=\"@b\"\n"},
  };
  for (const Row& row : rows) {
    put(ipsecConfPath(), "", 0644);
    setIdentities(row.uid, row.localId, row.remoteId);
    EXPECT_TRUE(setupRsaAuth(tunnel, local));
    EXPECT_EQ(content(ipsecConfPath()), connText(lines(row.idLines)));
  }
}

TEST_F(RsaAuth, CreatesAnEmptyFileForAnEmptyCertificate) {
  tunnel["caCert"] = "";
  tunnel.removeMember("localCert");
  EXPECT_TRUE(setupRsaAuth(tunnel, local));
  EXPECT_EQ(content("/var/run/ipsec/cacerts/site2.pem"), "");
  EXPECT_EQ(content("/var/run/ipsec/certs/site2.pem"), "");
  EXPECT_EQ(content("/var/run/ipsec/private/site2.pem"), "the key");
  expectFiles(connText(lines("\trightid=%any\n")), rsaSecret);
}

TEST_F(RsaAuth, LeavesFilesAndSecretBehindForAnUnsupportedType) {
  tunnel["type"] = "ikev2";
  EXPECT_FALSE(setupRsaAuth(tunnel, local));
  EXPECT_EQ(fake::takeTrace(), (Trace{"truncate /var/run/ipsec/cacerts/site2.pem 644",
                                      "truncate /var/run/ipsec/certs/site2.pem 644",
                                      "truncate /var/run/ipsec/private/site2.pem 600",
                                      "append /var/run/ipsec/ipsec.secrets 600", unsupportedType}));
  expectFiles("(missing)", rsaSecret);
}

TEST_F(RsaAuth, EndsAtTheFirstFileThatCannotBeOpened) {
  const std::vector<std::string> paths = {
      ipsecCaCertsDir() + "/site2.pem", ipsecCertsDir() + "/site2.pem",
      ipsecPrivateDir() + "/site2.pem", ipsecSecretsPath(), ipsecConfPath()};
  const Trace opens = {"truncate /var/run/ipsec/cacerts/site2.pem 644",
                       "truncate /var/run/ipsec/certs/site2.pem 644",
                       "truncate /var/run/ipsec/private/site2.pem 600",
                       "append /var/run/ipsec/ipsec.secrets 600",
                       "append /var/run/ipsec/ipsec.conf 644"};
  // From the last to the first: what is refused once stays so.
  for (std::size_t failing = paths.size(); failing-- > 0;) {
    refuse(paths[failing]);
    EXPECT_FALSE(setupRsaAuth(tunnel, local));
    Trace expected(opens.begin(), opens.begin() + static_cast<std::ptrdiff_t>(failing) + 1);
    expected.push_back("WARNING [" + paths[failing] + "] could not be opened.");
    EXPECT_EQ(fake::takeTrace(), expected);
  }
  expectFiles("(missing)", rsaSecret);
}

TEST_F(RsaAuth, FailsForANameWithAMissingDirectory) {
  tunnel["name"] = "no/site";
  EXPECT_FALSE(setupRsaAuth(tunnel, local));
  EXPECT_EQ(fake::takeTrace(),
            (Trace{"truncate /var/run/ipsec/cacerts/no/site.pem 644",
                   "WARNING [/var/run/ipsec/cacerts/no/site.pem] could not be opened."}));
}

TEST_F(RsaAuth, HidesTheKeyOfANameThatLeadsOutOfTheDirectory) {
  tunnel["name"] = "../out";
  EXPECT_TRUE(setupRsaAuth(tunnel, local));
  EXPECT_EQ(content("/var/run/ipsec/out.pem"), "the key");
  EXPECT_EQ(mode("/var/run/ipsec/out.pem"), 0600U);
}

TEST_F(RsaAuth, ThrowsForValuesThatJsoncppRefuses) {
  for (const char* key : {"name", "caCert", "localCert", "localPrivKey", "localId", "remoteId"}) {
    Json::Value odd = tunnel;
    odd[key] = Json::arrayValue;
    EXPECT_THROW(setupRsaAuth(odd, local), Json::Exception) << key;
  }
  setIdentities(true, "a", "b");
  tunnel["uid"] = "true";
  EXPECT_THROW(setupRsaAuth(tunnel, local), Json::Exception);
}

TEST_F(PskAuth, WritesTheConnectionThenTheSecret) {
  EXPECT_TRUE(setupPskAuth(tunnel, local));
  EXPECT_EQ(fake::takeTrace(), (Trace{"append /var/run/ipsec/ipsec.conf 644",
                                      "append /var/run/ipsec/ipsec.secrets 600"}));
  expectFiles(connText("\tauthby=secret\n"),
              "\"203.0.113.5\" \"198.51.100.7\" : PSK \"the secret\"\n");
}

TEST_F(PskAuth, UsesTheIdentitiesOnlyWhenTheRecordSaysSo) {
  setIdentities(false, "a", "b");
  EXPECT_TRUE(setupPskAuth(tunnel, local));
  expectFiles(connText("\tauthby=secret\n"),
              "\"203.0.113.5\" \"198.51.100.7\" : PSK \"the secret\"\n");
}

TEST_F(PskAuth, WritesExplicitIdentities) {
  setIdentities(true, "a", "@b c");
  EXPECT_TRUE(setupPskAuth(tunnel, local));
  expectFiles(connText("\tauthby=secret\n\tleftid=\"a\"\n\trightid=\"@b c\"\n"),
              "\"a\" \"@b c\" : PSK \"the secret\"\n");
}

TEST_F(PskAuth, WritesEmptyIdentitiesInQuotes) {
  setIdentities(true, "", "");
  EXPECT_TRUE(setupPskAuth(tunnel, local));
  expectFiles(connText("\tauthby=secret\n\tleftid=\"\"\n\trightid=\"\"\n"),
              "\"\" \"\" : PSK \"the secret\"\n");
}

TEST_F(PskAuth, KeepsAnyInTheSecret) {
  tunnel["remoteWanIp"] = "Any";
  EXPECT_TRUE(setupPskAuth(tunnel, local));
  EXPECT_EQ(content(ipsecSecretsPath()), "\"203.0.113.5\" \"Any\" : PSK \"the secret\"\n");
}

TEST_F(PskAuth, EscapesNothing) {
  setIdentities(true, "a\"b", "c\\d");
  tunnel["psk"] = "k\"e\ny";
  EXPECT_TRUE(setupPskAuth(tunnel, local));
  expectFiles(connText("\tauthby=secret\n\tleftid=\"a\"b\"\n\trightid=\"c\\d\"\n"),
              "\"a\"b\" \"c\\d\" : PSK \"k\"e\ny\"\n");
}

TEST_F(PskAuth, WritesNothingForAnUnsupportedType) {
  tunnel["type"] = "IKEv3";
  EXPECT_FALSE(setupPskAuth(tunnel, local));
  EXPECT_EQ(fake::takeTrace(), Trace{unsupportedType});
  expectFiles("(missing)", "(missing)");
}

TEST_F(PskAuth, WritesNoSecretWhenTheConfigurationCannotBeOpened) {
  refuse(ipsecConfPath());
  EXPECT_FALSE(setupPskAuth(tunnel, local));
  EXPECT_EQ(fake::takeTrace(), (Trace{"append /var/run/ipsec/ipsec.conf 644",
                                      "WARNING [/var/run/ipsec/ipsec.conf] could not be opened."}));
  expectFiles("(missing)", "(missing)");
}

TEST_F(PskAuth, FailsWhenTheSecretsCannotBeOpened) {
  refuse(ipsecSecretsPath());
  EXPECT_FALSE(setupPskAuth(tunnel, local));
  EXPECT_EQ(
      fake::takeTrace(),
      (Trace{"append /var/run/ipsec/ipsec.conf 644", "append /var/run/ipsec/ipsec.secrets 600",
             "WARNING [/var/run/ipsec/ipsec.secrets] could not be opened."}));
  expectFiles(connText("\tauthby=secret\n"), "(missing)");
}

TEST_F(PskAuth, ThrowsForValuesThatJsoncppRefuses) {
  setIdentities(true, "a", "b");
  for (const char* key : {"remoteWanIp", "uid", "localId", "remoteId", "psk"}) {
    Json::Value odd = tunnel;
    odd[key] = Json::arrayValue;
    EXPECT_THROW(setupPskAuth(odd, local), Json::Exception) << key;
  }
}

}  // namespace
