#include "ipsec/conn_section.hpp"

#include "fake/fake_platform.hpp"
#include "ipsec/ipsec_sandbox.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tunnel_mngr;

constexpr char local[] = "203.0.113.5";
constexpr char authLines[] = "\tauthby=secret\n";
constexpr char unsupportedMethod[] = "ERROR [TUNNEL_MNGR] Unsupported encryption method.";
constexpr char unsupportedType[] =
    "WARNING [TUNNEL_MNGR] Error in ipsec config generation. IPSec Connection Type not "
    "implemented.";

/// The record of the examples, which a test changes.
Json::Value example() {
  return json(R"({"name":"t1","remoteWanIp":"Any","type":"IKEv2","encryptMethod":"aes128",
                  "ikelife":3,"keylife":1,"retries":0})");
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  EXPECT_NE(text.find(from), std::string::npos) << from;
  return text.replace(text.find(from), from.size(), to);
}

/// The text of the example, with one piece of it replaced.
std::string exampleText(const std::string& from = "", const std::string& to = "") {
  const std::string text =
      "\n"
      "conn t1\n"
      "\tleft=203.0.113.5\n"
      "\tleftupdown=/etc/quorvex/hooks/ipsec-tunnel-link-changed\n"
      "\tright=%any\n"
      "\tauto=start\n"
      "\tdpddelay=60\n"
      "\tdpdtimeout=120\n"
      "\tdpdaction=restart\n"
      "\tcompress=no\n"
      "\taggressive=no\n"
      "\tike=aes128-md5-modp1536,aes128-sha1-modp1536,aes128-md5-modp1024,aes128-sha1-modp1024\n"
      "\tesp=aes128-md5,aes128-sha1\n"
      "\tikelifetime=3h\n"
      "\tkeylife=1h\n"
      "\tkeyingtries=%forever\n"
      "\tkeyexchange=ikev2\n"
      "\tauthby=secret\n";
  return replaced(text, from, to);
}

constexpr char exampleProposals[] =
    "ike=aes128-md5-modp1536,aes128-sha1-modp1536,aes128-md5-modp1024,aes128-sha1-modp1024\n"
    "\tesp=aes128-md5,aes128-sha1\n";

class ConnSection : public testing::Test {
 protected:
  ConnSection() { fake::reset(); }

  Json::Value tunnel = example();
  std::string build() { return buildConnSection(tunnel, local, authLines); }
};

TEST_F(ConnSection, IsTheMainConnectionAloneWithoutSubnets) {
  EXPECT_EQ(build(), exampleText());
  EXPECT_EQ(fake::takeTrace(), Trace{});
}

TEST_F(ConnSection, HoldsEveryKeyOfARecord) {
  tunnel = json(R"({"name":"site2","remoteWanIp":"gw.example","compression":true,
      "aggressiveMode":true,"encryptMethod":"3des","type":"IKE","phase1":"aes256-sha1;dh24",
      "phase2":"aes256-sha2_256","ikelife":8,"keylife":24,"retries":5,
      "localSubnets":[{"ip":"192.168.1.77","mask":24}],
      "remoteSubnets":[{"ip":"10.1.2.3","mask":0}]})");
  EXPECT_EQ(buildConnSection(tunnel, "198.51.100.2", "\ta=b\n\tno end"),
            "\n"
            "conn site2\n"
            "\tleft=198.51.100.2\n"
            "\tleftupdown=/etc/quorvex/hooks/ipsec-tunnel-link-changed\n"
            "\tright=gw.example\n"
            "\tauto=start\n"
            "\tdpddelay=60\n"
            "\tdpdtimeout=120\n"
            "\tdpdaction=restart\n"
            "\tcompress=yes\n"
            "\taggressive=yes\n"
            "\tike=aes256-sha1-modp2048s256\n"
            "\tesp=aes256-sha2_256\n"
            "\tikelifetime=8h\n"
            "\tkeylife=24h\n"
            "\tkeyingtries=5\n"
            "\tkeyexchange=ikev1\n"
            "\ta=b\n"
            "\tno end\n"
            "conn site2_subnet_0_0\n"
            "\talso=site2\n"
            "\tleftsubnet=192.168.1.0/24\n"
            "\trightsubnet=0.0.0.0/0\n"
            "\tauto=route\n");
}

TEST_F(ConnSection, TakesDefaultsForMissingKeys) {
  tunnel = json(R"({"type":"IKEv2"})");
  EXPECT_EQ(buildConnSection(tunnel, "", ""),
            "\n"
            "conn \n"
            "\tleft=\n"
            "\tleftupdown=/etc/quorvex/hooks/ipsec-tunnel-link-changed\n"
            "\tright=\n"
            "\tauto=start\n"
            "\tdpddelay=60\n"
            "\tdpdtimeout=120\n"
            "\tdpdaction=restart\n"
            "\tcompress=no\n"
            "\taggressive=no\n"
            "\tike=\n"
            "\tesp=\n"
            "\tikelifetime=0h\n"
            "\tkeylife=0h\n"
            "\tkeyingtries=%forever\n"
            "\tkeyexchange=ikev2\n");
  EXPECT_EQ(fake::takeTrace(), Trace{});
}

TEST_F(ConnSection, PassesAnyOtherPeerUnchanged) {
  for (const std::string peer : {"gw.example", "", "any", "ANY", "Any ", "%any", "2001:db8::1"}) {
    tunnel["remoteWanIp"] = peer;
    EXPECT_EQ(build(), exampleText("right=%any\n", "right=" + peer + "\n"));
  }
}

TEST_F(ConnSection, TriesAsOftenAsTheRecordSays) {
  tunnel["retries"] = 5;
  EXPECT_EQ(build(), exampleText("%forever", "5"));
  tunnel["retries"] = Json::Value::maxUInt;
  EXPECT_EQ(build(), exampleText("%forever", "4294967295"));
}

TEST_F(ConnSection, RefusesEveryOtherType) {
  for (const char* type : {R"("ikev2")", R"("IKEv1")", R"("")", R"("IKE ")", "null", "5", "true",
                           R"(["IKE"])", R"({"IKE":1})"}) {
    tunnel["type"] = json(type);
    EXPECT_EQ(build(), "") << type;
    EXPECT_EQ(fake::takeTrace(), Trace{unsupportedType}) << type;
  }
}

TEST_F(ConnSection, RefusesAMissingType) {
  tunnel.removeMember("type");
  EXPECT_EQ(build(), "");
  EXPECT_EQ(fake::takeTrace(), Trace{unsupportedType});
}

TEST_F(ConnSection, LooksAtNothingBehindAnUnsupportedType) {
  tunnel["type"] = "ikev2";
  tunnel["encryptMethod"] = "des";
  tunnel["ikelife"] = "no number";
  tunnel["localSubnets"] = "no list";
  EXPECT_EQ(build(), "");
  EXPECT_EQ(fake::takeTrace(), Trace{unsupportedType});
}

TEST_F(ConnSection, KnowsFourEncryptionMethods) {
  struct Row {
    const char* method;
    const char* lines;
  };
  const Row rows[] = {
      {"3des",
       "ike=3des-md5-modp1536,3des-sha1-modp1536,3des-md5-modp1024,3des-sha1-modp1024\n"
       "\tesp=3des-md5,3des-sha1\n"},
      {"aes128",
       "ike=aes128-md5-modp1536,aes128-sha1-modp1536,aes128-md5-modp1024,aes128-sha1-modp1024\n"
       "\tesp=aes128-md5,aes128-sha1\n"},
      {"aes192",
       "ike=aes192-md5-modp1536,aes192-sha1-modp1536,aes192-md5-modp1024,aes192-sha1-modp1024\n"
       "\tesp=aes192-md5,aes192-sha1\n"},
      {"aes256",
       "ike=aes256-md5-modp1536,aes256-sha1-modp1536,aes256-md5-modp1024,aes256-sha1-modp1024\n"
       "\tesp=aes256-md5,aes256-sha1\n"},
  };
  for (const Row& row : rows) {
    tunnel["encryptMethod"] = row.method;
    EXPECT_EQ(build(), exampleText(exampleProposals, row.lines));
  }
  EXPECT_EQ(fake::takeTrace(), Trace{});
}

TEST_F(ConnSection, ReportsAnUnknownEncryptionMethodForEachMissingProposal) {
  for (const char* method : {"des", "AES128", "aes128 ", "aes", "modp2048"}) {
    tunnel["encryptMethod"] = method;
    EXPECT_EQ(build(), exampleText(exampleProposals, "ike=\n\tesp=\n"));
    EXPECT_EQ(fake::takeTrace(), (Trace{unsupportedMethod, unsupportedMethod})) << method;
  }
}

TEST_F(ConnSection, ReportsAnUnknownEncryptionMethodOnceWhenOneProposalIsGiven) {
  tunnel["encryptMethod"] = "des";
  tunnel["phase1"] = "aes256-sha1;modp2048";
  EXPECT_EQ(build(), exampleText(exampleProposals, "ike=aes256-sha1-modp2048\n\tesp=\n"));
  EXPECT_EQ(fake::takeTrace(), Trace{unsupportedMethod});
}

TEST_F(ConnSection, LeavesProposalsEmptyWithoutAMethodAndReportsNothing) {
  tunnel["encryptMethod"] = "";
  EXPECT_EQ(build(), exampleText(exampleProposals, "ike=\n\tesp=\n"));
  EXPECT_EQ(fake::takeTrace(), Trace{});
}

TEST_F(ConnSection, PrefersTheProposalsEvenWhenTheyComeToNothing) {
  tunnel["phase1"] = "aes128-sha1-modp1536";
  tunnel["phase2"] = "dh22";
  EXPECT_EQ(build(), exampleText(exampleProposals, "ike=\n\tesp=\n"));
  EXPECT_EQ(fake::takeTrace(), Trace{});
}

TEST_F(ConnSection, FallsBackToTheMethodWhenAProposalIsEmpty) {
  tunnel["phase1"] = "";
  tunnel["phase2"] = Json::nullValue;
  EXPECT_EQ(build(), exampleText());
}

TEST_F(ConnSection, DoesNotReadTheMethodWhenBothProposalsAreGiven) {
  tunnel["phase1"] = "aes256-sha1";
  tunnel["phase2"] = "aes256-sha1";
  tunnel["encryptMethod"] = Json::arrayValue;
  EXPECT_EQ(build(), exampleText(exampleProposals,
                                 "ike=aes256-sha1-modp1536,aes256-sha1-modp1024\n"
                                 "\tesp=aes256-sha1\n"));
}

TEST_F(ConnSection, ReportsSha2OnceForEachProposal) {
  const std::string record =
      "ERROR [TUNNEL_MNGR] Unsupported hash value = sha2 (need use sha2_256 or sha2_512, set "
      "sha2_256).";
  tunnel["phase1"] = "aes128-sha2";
  tunnel["phase2"] = "aes128-sha2";
  EXPECT_EQ(build(), exampleText(exampleProposals,
                                 "ike=aes128-sha2_256-modp1536,aes128-sha2_256-modp1024\n"
                                 "\tesp=aes128-sha2_256\n"));
  EXPECT_EQ(fake::takeTrace(), (Trace{record, record}));
}

/// One sub-connection of the example.
std::string subText(const std::string& indices, const std::string& left, const std::string& right) {
  return "\nconn t1_subnet_" + indices + "\n\talso=t1\n\tleftsubnet=" + left +
         "\n\trightsubnet=" + right + "\n\tauto=route\n";
}

TEST_F(ConnSection, HasASubConnectionForEachPairOfSubnets) {
  tunnel["localSubnets"] = json(R"([{"ip":"10.0.1.1","mask":24},{"ip":"10.0.2.1","mask":24}])");
  tunnel["remoteSubnets"] = json(
      R"([{"ip":"10.1.0.9","mask":16},{"ip":"10.2.0.9","mask":16},{"ip":"10.3.0.9","mask":16}])");
  EXPECT_EQ(build(), exampleText() + subText("0_0", "10.0.1.0/24", "10.1.0.0/16") +
                         subText("0_1", "10.0.1.0/24", "10.2.0.0/16") +
                         subText("0_2", "10.0.1.0/24", "10.3.0.0/16") +
                         subText("1_0", "10.0.2.0/24", "10.1.0.0/16") +
                         subText("1_1", "10.0.2.0/24", "10.2.0.0/16") +
                         subText("1_2", "10.0.2.0/24", "10.3.0.0/16"));
}

TEST_F(ConnSection, KnowsAnyOnTheRemoteSideOnly) {
  tunnel["localSubnets"] = json(R"([{"ip":"Any","mask":0}])");
  tunnel["remoteSubnets"] = json(R"([{"ip":"Any","mask":0},{"ip":"any","mask":0}])");
  EXPECT_EQ(build(), exampleText() + subText("0_0", "/0", "%any") + subText("0_1", "/0", "/0"));
  EXPECT_EQ(fake::takeTrace(), Trace{});
}

TEST_F(ConnSection, KeepsTheMaskOfASubnetThatIsNoAddress) {
  tunnel["localSubnets"] = json(R"([{"ip":"lan.example","mask":24},{}])");
  tunnel["remoteSubnets"] = json(R"([{"ip":"10.0.0.1","mask":40}])");
  EXPECT_EQ(build(), exampleText() + subText("0_0", "/24", "0.0.0.0/40") +
                         subText("1_0", "/0", "0.0.0.0/40"));
  EXPECT_EQ(fake::takeTrace(), Trace{});
}

TEST_F(ConnSection, NeedsSubnetsOnBothSidesForASubConnection) {
  for (const char* none : {"[]", "null", R"("text")", "5"}) {
    tunnel["localSubnets"] = json(R"([{"ip":"10.0.1.1","mask":"not looked at"}])");
    tunnel["remoteSubnets"] = json(none);
    EXPECT_EQ(build(), exampleText()) << none;
    tunnel["remoteSubnets"] = tunnel["localSubnets"];
    tunnel["localSubnets"] = json(none);
    EXPECT_EQ(build(), exampleText()) << none;
  }
}

TEST_F(ConnSection, ConvertsValuesAsJsoncppDoes) {
  tunnel["name"] = 7;
  tunnel["remoteWanIp"] = true;
  tunnel["compression"] = 1;
  tunnel["aggressiveMode"] = Json::nullValue;
  tunnel["phase1"] = 5;
  tunnel["ikelife"] = 3.9;
  tunnel["keylife"] = true;
  std::string expected = exampleText("conn t1", "conn 7");
  expected = replaced(expected, "right=%any", "right=true");
  expected = replaced(expected, "compress=no", "compress=yes");
  expected = replaced(expected, "ike=aes128-md5-modp1536,aes128-sha1-modp1536,aes128-md5-modp1024",
                      "ike=5-md5-modp1536,5-sha1-modp1536,5-md5-modp1024");
  expected = replaced(expected, "aes128-sha1-modp1024", "5-sha1-modp1024");
  EXPECT_EQ(build(), expected);
}

TEST_F(ConnSection, ThrowsForValuesThatJsoncppRefuses) {
  struct Row {
    const char* key;
    const char* value;
  };
  const Row rows[] = {{"name", "[]"},
                      {"remoteWanIp", "{}"},
                      {"compression", R"("yes")"},
                      {"aggressiveMode", "[]"},
                      {"phase1", "[]"},
                      {"phase2", "{}"},
                      {"ikelife", R"("3")"},
                      {"keylife", "-1"},
                      {"retries", "4294967296"},
                      {"localSubnets", R"({"a":1})"},
                      {"localSubnets", "[5]"},
                      {"localSubnets", R"([{"ip":[]}])"},
                      {"remoteSubnets", R"([{"ip":"10.0.0.1","mask":"24"}])"},
                      {"remoteSubnets", R"([{"mask":-1}])"}};
  for (const Row& row : rows) {
    tunnel = example();
    tunnel["localSubnets"] = json(R"([{"ip":"10.0.1.1","mask":24}])");
    tunnel["remoteSubnets"] = tunnel["localSubnets"];
    tunnel[row.key] = json(row.value);
    EXPECT_THROW(build(), Json::Exception) << row.key << " " << row.value;
  }
}

TEST_F(ConnSection, HoldsThousandsOfSubConnections) {
  for (int i = 0; i < 64; ++i) {
    const std::string ip = "10.0." + std::to_string(i) + ".1";
    tunnel["localSubnets"].append(json(R"({"mask":24,"ip":")" + ip + R"("})"));
  }
  tunnel["remoteSubnets"] = tunnel["localSubnets"];
  std::string expected = exampleText();
  for (int i = 0; i < 64; ++i) {
    for (int j = 0; j < 64; ++j) {
      expected +=
          subText(std::to_string(i) + "_" + std::to_string(j),
                  "10.0." + std::to_string(i) + ".0/24", "10.0." + std::to_string(j) + ".0/24");
    }
  }
  EXPECT_EQ(build(), expected);
}

TEST(SubnetNetworkAddress, IsTheAddressUnderTheMask) {
  struct Row {
    const char* address;
    unsigned prefix;
    const char* network;
  };
  const Row rows[] = {
      {"192.168.1.77", 24, "192.168.1.0"}, {"10.1.2.3", 0, "0.0.0.0"},
      {"255.255.255.255", 1, "128.0.0.0"}, {"255.255.255.255", 9, "255.128.0.0"},
      {"172.16.200.9", 12, "172.16.0.0"},  {"10.1.2.3", 31, "10.1.2.2"},
      {"10.1.2.3", 32, "10.1.2.3"},        {"255.255.255.255", 33, "0.0.0.0"},
      {"255.255.255.255", 64, "0.0.0.0"},  {"255.255.255.255", 4294967295U, "0.0.0.0"}};
  for (const Row& row : rows) {
    EXPECT_EQ(subnetNetworkAddress(row.address, row.prefix), row.network)
        << row.address << "/" << row.prefix;
  }
}

TEST(SubnetNetworkAddress, IsEmptyForAnythingElse) {
  for (const char* address : {"", "Any", "lan.example", "10.1.2", "10.1.2.256", "10.1.2.3 ",
                              "10.1.2.3/24", "2001:db8::1", "010.1.2.3.4"}) {
    EXPECT_EQ(subnetNetworkAddress(address, 24), "") << address;
  }
}

TEST(SubnetNetworkAddress, HasAsManyBitsAsThePrefixSays) {
  for (unsigned prefix = 0; prefix <= 32; ++prefix) {
    std::string expected;
    for (unsigned octet = 0; octet < 4; ++octet) {
      unsigned value = 0;
      for (unsigned bit = 0; bit < 8; ++bit) {
        value = value * 2 + (octet * 8 + bit < prefix ? 1 : 0);
      }
      expected += (octet == 0 ? "" : ".") + std::to_string(value);
    }
    EXPECT_EQ(subnetNetworkAddress("255.255.255.255", prefix), expected);
  }
}

}  // namespace
