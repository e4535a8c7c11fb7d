#include "ipsec/ipsec_manager.hpp"

#include "fake/fake_platform.hpp"
#include "ipsec/conn_section.hpp"
#include "ipsec/ipsec_files.hpp"
#include "ipsec/ipsec_sandbox.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

namespace {

using namespace tunnel_mngr;

constexpr char local[] = "203.0.113.5";
constexpr char defaultConf[] = "version 2.0\n\nconfig setup\n\tuniqueids=yes\n";
constexpr char removal[] =
    "rm -rf /var/run/ipsec/cacerts/* /var/run/ipsec/certs/* /var/run/ipsec/private/*";

constexpr char unsupportedType[] =
    "WARNING [TUNNEL_MNGR] Error in ipsec config generation. IPSec Connection Type not "
    "implemented.";

const Trace resetSteps = {std::string("TRACE ") + removal, std::string("cmd ") + removal,
                          "truncate /var/run/ipsec/ipsec.conf 644",
                          "truncate /var/run/ipsec/ipsec.secrets 600"};
const Trace creationStart = {"DEBUG Creating IPsec Configuration Files"};
const Trace modeSteps = {"chmod /var/run/ipsec/ipsec.conf 644",
                         "chmod /var/run/ipsec/ipsec.secrets 644"};
const Trace nothingToStart = {"DEBUG [TUNNEL_MNGR] There are no ipsec tunnels to start."};
const Trace restartSteps = {"DEBUG [TUNNEL_MNGR] Starting IPsec", "TRACE ipsec restart",
                            "cmd ipsec restart"};
const Trace pause = {"sleep(1)"};

Trace pskSteps(const std::string& name) {
  return {"append /var/run/ipsec/ipsec.conf 644", "append /var/run/ipsec/ipsec.secrets 600",
          "DEBUG [TUNNEL_MNGR] IPSEC PSK tunnel [" + name + "] configured successfully."};
}

Trace rsaSteps(const std::string& name) {
  return {"truncate /var/run/ipsec/cacerts/" + name + ".pem 644",
          "truncate /var/run/ipsec/certs/" + name + ".pem 644",
          "truncate /var/run/ipsec/private/" + name + ".pem 600",
          "append /var/run/ipsec/ipsec.secrets 600",
          "append /var/run/ipsec/ipsec.conf 644",
          "DEBUG [TUNNEL_MNGR] IPSEC RSASIG tunnel [" + name + "] configured successfully."};
}

Trace joined(const std::vector<Trace>& parts) {
  Trace whole;
  for (const Trace& part : parts) {
    whole.insert(whole.end(), part.begin(), part.end());
  }
  return whole;
}

/// An enabled record; `more` is further members, each behind a comma.
Json::Value record(const std::string& name, const std::string& more = "") {
  return json(R"({"enabled":true,"type":"IKEv2","remoteWanIp":"198.51.100.7","psk":"k","name":")" +
              name + "\"" + more + "}");
}

Json::Value list(const std::vector<Json::Value>& records) {
  Json::Value all(Json::arrayValue);
  for (const Json::Value& one : records) {
    all.append(one);
  }
  return all;
}

class Ipsec : public IpsecSandbox {
 protected:
  static void setUp(const Json::Value& tunnels) {
    ipsecManager().setupIpsecTunnels(local, tunnels);
  }
};

TEST_F(Ipsec, HasOneManager) {
  EXPECT_EQ(&ipsecManager(), &ipsecManager());
}

TEST_F(Ipsec, StopsTheService) {
  ipsecManager().stopIpsec();
  EXPECT_EQ(fake::takeTrace(), (Trace{"DEBUG [TUNNEL_MNGR] Stopping IPsec", "TRACE ipsec stop 2>&1",
                                      "cmd ipsec stop 2>&1"}));
}

TEST_F(Ipsec, ReportsAServiceThatDoesNotStop) {
  fake::script("ipsec stop 2>&1", 3, "some output");
  ipsecManager().stopIpsec();
  EXPECT_EQ(
      fake::takeTrace(),
      (Trace{"DEBUG [TUNNEL_MNGR] Stopping IPsec", "TRACE ipsec stop 2>&1", "cmd ipsec stop 2>&1",
             "ERROR [TUNNEL_MNGR] IPsec error executing stop command [3]"}));
}

TEST_F(Ipsec, ResetsWritesRestartsAndPauses) {
  setUp(list({record("one"), record("two", R"(,"authMethod":"rsasig")")}));
  EXPECT_EQ(fake::takeTrace(), joined({resetSteps, creationStart, pskSteps("one"), rsaSteps("two"),
                                       modeSteps, restartSteps, pause}));
  EXPECT_EQ(content(ipsecConfPath()),
            defaultConf + buildConnSection(record("one"), local, "\tauthby=secret\n") +
                buildConnSection(record("two"), local,
                                 "\tauthby=rsasig\n"
                                 "\tleftcert=/var/run/ipsec/certs/two.pem\n"
                                 "\trightid=%any\n"));
  EXPECT_EQ(content(ipsecSecretsPath()),
            "\"203.0.113.5\" \"198.51.100.7\" : PSK \"k\"\n"
            ": RSA /var/run/ipsec/private/two.pem\n");
}

TEST_F(Ipsec, ShowsConfigurationAndSecretsToAllButNoKey) {
  setUp(list({record("two", R"(,"authMethod":"rsasig")")}));
  EXPECT_EQ(mode(ipsecConfPath()), 0644U);
  EXPECT_EQ(mode(ipsecSecretsPath()), 0644U);
  EXPECT_EQ(mode("/var/run/ipsec/cacerts/two.pem"), 0644U);
  EXPECT_EQ(mode("/var/run/ipsec/certs/two.pem"), 0644U);
  EXPECT_EQ(mode("/var/run/ipsec/private/two.pem"), 0600U);
}

TEST_F(Ipsec, SkipsDisabledTunnelsWithoutAWord) {
  Json::Value disabled = record("off");
  disabled["enabled"] = false;
  Json::Value missing = record("missing");
  missing.removeMember("enabled");
  setUp(list({disabled, record("two", R"(,"authMethod":"rsasig")"), missing, Json::nullValue}));
  EXPECT_EQ(fake::takeTrace(),
            joined({resetSteps, creationStart, rsaSteps("two"), modeSteps, restartSteps, pause}));
}

TEST_F(Ipsec, UsesCertificatesOnlyForExactlyTheirWord) {
  for (const std::string method :
       {R"("RSASIG")", R"("secret")", R"("")", R"("rsasig ")", "5", "null", R"(["rsasig"])"}) {
    setUp(list({record("one", ",\"authMethod\":" + method)}));
    EXPECT_EQ(fake::takeTrace(),
              joined({resetSteps, creationStart, pskSteps("one"), modeSteps, restartSteps, pause}))
        << method;
  }
}

TEST_F(Ipsec, GoesOnAfterATunnelThatFails) {
  Json::Value psk = record("one");
  psk["type"] = "ikev2";
  Json::Value rsa = record("a/b", R"(,"authMethod":"rsasig")");
  setUp(list({psk, rsa, record("three")}));
  const Trace failures = {unsupportedType,
                          "ERROR [TUNNEL_MNGR] Failed to configure IPSEC PSK tunnel [one].",
                          "truncate /var/run/ipsec/cacerts/a/b.pem 644",
                          "WARNING [/var/run/ipsec/cacerts/a/b.pem] could not be opened.",
                          "ERROR [TUNNEL_MNGR] Failed to configure IPSEC RSA tunnel [a/b]."};
  EXPECT_EQ(fake::takeTrace(), joined({resetSteps, creationStart, failures, pskSteps("three"),
                                       modeSteps, restartSteps, pause}));
  EXPECT_EQ(content(ipsecConfPath()),
            defaultConf + buildConnSection(record("three"), local, "\tauthby=secret\n"));
}

TEST_F(Ipsec, LeavesTheServiceStoppedWhenEveryTunnelFails) {
  refuse(ipsecConfPath());
  const Trace writes = {"append /var/run/ipsec/ipsec.conf 644",
                        "WARNING [/var/run/ipsec/ipsec.conf] could not be opened."};
  EXPECT_FALSE(ipsecManager().createIpsecTunnels(list({record("one"), record("two")}), local));
  EXPECT_EQ(fake::takeTrace(),
            joined({creationStart,
                    writes,
                    {"ERROR [TUNNEL_MNGR] Failed to configure IPSEC PSK tunnel [one]."},
                    writes,
                    {"ERROR [TUNNEL_MNGR] Failed to configure IPSEC PSK tunnel [two]."}}));
}

TEST_F(Ipsec, NeitherRestartsNorPausesWithoutATunnel) {
  Json::Value failing = record("one");
  failing.removeMember("type");
  setUp(list({failing}));
  const Trace failure = {unsupportedType,
                         "ERROR [TUNNEL_MNGR] Failed to configure IPSEC PSK tunnel [one]."};
  EXPECT_EQ(fake::takeTrace(), joined({resetSteps, creationStart, failure, nothingToStart}));
}

TEST_F(Ipsec, HasNothingToStartWithoutRecords) {
  for (const char* none : {"[]", "null"}) {
    setUp(json(none));
    EXPECT_EQ(fake::takeTrace(), joined({resetSteps, creationStart, nothingToStart})) << none;
  }
  EXPECT_EQ(content(ipsecConfPath()), defaultConf);
  EXPECT_EQ(content(ipsecSecretsPath()), "");
}

TEST_F(Ipsec, LeavesTheModesAloneWithoutATunnel) {
  put(ipsecConfPath(), "", 0600);
  put(ipsecSecretsPath(), "", 0640);
  setUp(list({}));
  EXPECT_EQ(mode(ipsecConfPath()), 0600U);
  EXPECT_EQ(mode(ipsecSecretsPath()), 0640U);
}

TEST_F(Ipsec, WritesNoTunnelWhenTheResetFails) {
  fake::script(removal, 1);
  setUp(list({record("one")}));
  EXPECT_EQ(fake::takeTrace(),
            (Trace{std::string("TRACE ") + removal, std::string("cmd ") + removal,
                   "ERROR [TUNNEL_MNGR] IPSec error executing remove files command [1]",
                   "ERROR [TUNNEL_MNGR] Failed to reset ipsec tunnels configuration to default"}));
  EXPECT_EQ(content(ipsecConfPath()), "(missing)");
}

TEST_F(Ipsec, WritesNoTunnelWhenTheDirectoryIsMissing) {
  std::filesystem::remove_all(real("/var/run/ipsec"));
  setUp(list({record("one")}));
  EXPECT_EQ(fake::takeTrace(),
            (Trace{std::string("TRACE ") + removal, std::string("cmd ") + removal,
                   "truncate /var/run/ipsec/ipsec.conf 644",
                   "WARNING [/var/run/ipsec/ipsec.conf] could not be opened.",
                   "ERROR [TUNNEL_MNGR] Failed to reset ipsec tunnels configuration to default"}));
}

TEST_F(Ipsec, PausesAfterAFailedRestartToo) {
  fake::script("ipsec restart", 7);
  setUp(list({record("one")}));
  const Trace error = {"ERROR [TUNNEL_MNGR] IPsec error executing restart command [7]"};
  EXPECT_EQ(fake::takeTrace(), joined({resetSteps, creationStart, pskSteps("one"), modeSteps,
                                       restartSteps, error, pause}));
}

TEST_F(Ipsec, DoesNotMindAModeThatCannotBeSet) {
  refuseModeChanges();
  setUp(list({record("one")}));
  EXPECT_EQ(fake::takeTrace(),
            joined({resetSteps, creationStart, pskSteps("one"), modeSteps, restartSteps, pause}));
  EXPECT_EQ(mode(ipsecSecretsPath()), 0600U);
}

TEST_F(Ipsec, ForgetsTunnelsThatAreGone) {
  runCommands();
  EXPECT_TRUE(resetIpsecConfig());
  const Json::Value rsa = record("two", R"(,"authMethod":"rsasig")");
  EXPECT_TRUE(ipsecManager().createIpsecTunnels(list({record("one"), rsa}), local));
  EXPECT_TRUE(resetIpsecConfig());
  EXPECT_FALSE(ipsecManager().createIpsecTunnels(list({}), local));
  EXPECT_EQ(content(ipsecConfPath()), defaultConf);
  EXPECT_EQ(content(ipsecSecretsPath()), "");
  EXPECT_EQ(names(ipsecPrivateDir()), Trace{});
}

TEST_F(Ipsec, ThrowsForAValueThatJsoncppRefusesAndDoesNotRestart) {
  Json::Value odd = record("two");
  odd["enabled"] = "yes";
  EXPECT_THROW(setUp(list({record("one"), odd, record("three")})), Json::Exception);
  EXPECT_EQ(fake::takeTrace(), joined({resetSteps, creationStart, pskSteps("one")}));
}

TEST_F(Ipsec, ThrowsForRecordsThatAreNoList) {
  EXPECT_THROW(setUp(json(R"({"a":{"enabled":true}})")), Json::Exception);
  EXPECT_EQ(fake::takeTrace(), joined({resetSteps, creationStart}));
}

TEST_F(Ipsec, OpensNoFileMoreOftenThanNeededForAThousandTunnels) {
  Json::Value tunnels(Json::arrayValue);
  for (int i = 0; i < 1000; ++i) {
    Json::Value one = record("t" + std::to_string(i));
    for (int subnet = 0; subnet < 4; ++subnet) {
      one["localSubnets"].append(json(R"({"ip":"10.0.0.1","mask":24})"));
      one["remoteSubnets"].append(json(R"({"ip":"10.1.0.1","mask":24})"));
    }
    tunnels.append(one);
  }
  EXPECT_TRUE(ipsecManager().createIpsecTunnels(tunnels, local));
  std::vector<Trace> expected = {creationStart};
  std::string conf;
  for (int i = 0; i < 1000; ++i) {
    expected.push_back(pskSteps("t" + std::to_string(i)));
    conf += buildConnSection(tunnels[i], local, "\tauthby=secret\n");
  }
  expected.push_back(modeSteps);
  EXPECT_EQ(fake::takeTrace(), joined(expected));
  EXPECT_EQ(content(ipsecConfPath()), conf);
}

/// No record may show a secret, at the highest print level, whatever goes wrong.
class IpsecCanary : public Ipsec {
 protected:
  const std::string canary = "CANARY-4711";

  Json::Value secretRecord(const std::string& method) const {
    Json::Value one = record("site", ",\"authMethod\":\"" + method + "\"");
    for (const char* key : {"psk", "localPrivKey", "localCert", "caCert"}) {
      one[key] = canary;
    }
    return one;
  }

  void expectSilence(const Json::Value& one) {
    try {
      setUp(list({one}));
    } catch (const Json::Exception& error) {
      fake::record(error.what());
    }
    const Trace trace = fake::takeTrace();
    EXPECT_GE(trace.size(), resetSteps.size());
    for (const std::string& entry : trace) {
      EXPECT_EQ(entry.find(canary), std::string::npos) << entry;
    }
  }
};

TEST_F(IpsecCanary, IsInTheFilesButNotInTheLog) {
  expectSilence(secretRecord("secret"));
  EXPECT_NE(content(ipsecSecretsPath()).find(canary), std::string::npos);
  expectSilence(secretRecord("rsasig"));
  EXPECT_EQ(content("/var/run/ipsec/private/site.pem"), canary);
}

TEST_F(IpsecCanary, IsNotInTheLogOfAFailure) {
  for (const std::string method : {"secret", "rsasig"}) {
    Json::Value one = secretRecord(method);
    one["type"] = "ikev2";
    expectSilence(one);
    one["type"] = "IKE";
    one["encryptMethod"] = "unknown";
    one["phase2"] = "aes128-sha2";
    expectSilence(one);
    one["uid"] = "no boolean";
    one["localId"] = "a";
    expectSilence(one);
  }
  refuse(ipsecPrivateDir() + "/site.pem");
  expectSilence(secretRecord("rsasig"));
  refuse(ipsecSecretsPath());
  expectSilence(secretRecord("secret"));
}

TEST_F(IpsecCanary, IsNotInTheTextOfAnException) {
  for (const char* key : {"psk", "localPrivKey"}) {
    for (const std::string method : {"secret", "rsasig"}) {
      Json::Value one = secretRecord(method);
      one[key] = Json::arrayValue;
      one[key].append(canary);
      expectSilence(one);
    }
  }
}

}  // namespace
