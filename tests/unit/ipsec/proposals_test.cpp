#include "ipsec/proposals.hpp"

#include "fake/fake_platform.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tunnel_mngr;

using Trace = std::vector<std::string>;

constexpr char sha2Record[] =
    "ERROR [TUNNEL_MNGR] Unsupported hash value = sha2 (need use sha2_256 or sha2_512, set "
    "sha2_256).";

/// What a text stands for.
struct Expected {
  std::string ike;
  std::string esp;
  Trace records;
};

void expectProposals(const std::string& text, const Expected& expected) {
  fake::reset();
  ASSERT_EQ(buildIkeProposal(text), expected.ike) << "IKE of [" << text << "]";
  ASSERT_EQ(fake::takeTrace(), expected.records) << "IKE of [" << text << "]";
  ASSERT_EQ(buildEspProposal(text), expected.esp) << "ESP of [" << text << "]";
  ASSERT_EQ(fake::takeTrace(), expected.records) << "ESP of [" << text << "]";
}

struct Row {
  const char* name;
  const char* text;
  const char* ike;
  const char* esp;
};

std::string rowName(const testing::TestParamInfo<Row>& row) {
  return row.param.name;
}

class Proposals : public testing::TestWithParam<Row> {};

TEST_P(Proposals, AreBuiltFromTheText) {
  expectProposals(GetParam().text, {GetParam().ike, GetParam().esp, {}});
}

constexpr char aes256Ike[] =
    "aes256-md5-modp1536,aes256-sha1-modp1536,aes256-md5-modp1024,aes256-sha1-modp1024";
constexpr char aes256Esp[] = "aes256-md5,aes256-sha1";

const Row withoutAHash[] = {
    {"Nothing", "", "", ""},
    {"CipherAlone", "aes256", aes256Ike, aes256Esp},
    {"GroupWithoutHashIsDropped", "aes256;modp2048", aes256Ike, aes256Esp},
    {"EmptyGroup", "aes256;", aes256Ike, aes256Esp},
    {"FieldsBehindTheGroup", "aes256;modp2048;x;y", aes256Ike, aes256Esp},
    {"EmptyHash", "aes256-", aes256Ike, aes256Esp},
    {"EmptyHashWithGroup", "aes256-;modp2048", aes256Ike, aes256Esp},
    {"ModpGroupAlone", "modp2048", "", ""},
    {"DhGroupAlone", "dh22", "", ""},
    {"BareModp", "modp", "", ""},
    {"BareDh", "dh", "", ""},
    {"CipherThatLooksLikeAGroup", "dhaes", "", ""},
    {"TwoGroups", "modp1024;modp2048", "", ""},
    {"GroupWithEmptyGroup", "modp1024;", "", ""},
    {"EmptyCipherWithGroup", ";modp2048", "", ""},
    {"SemicolonAlone", ";", "", ""},
    {"TwoSemicolons", ";;", "", ""},
    {"NameShorterThanModp", "mod",
     "mod-md5-modp1536,mod-sha1-modp1536,mod-md5-modp1024,mod-sha1-modp1024", "mod-md5,mod-sha1"},
    {"UpperCaseIsNoGroup", "DH22",
     "DH22-md5-modp1536,DH22-sha1-modp1536,DH22-md5-modp1024,DH22-sha1-modp1024",
     "DH22-md5,DH22-sha1"},
    {"BlanksAreKept", " dh",
     " dh-md5-modp1536, dh-sha1-modp1536, dh-md5-modp1024, dh-sha1-modp1024", " dh-md5, dh-sha1"},
};
INSTANTIATE_TEST_SUITE_P(WithoutAHash, Proposals, testing::ValuesIn(withoutAHash), rowName);

const Row withAHash[] = {
    {"CipherAndHash", "aes128-sha1", "aes128-sha1-modp1536,aes128-sha1-modp1024", "aes128-sha1"},
    {"EmptyGroup", "aes128-sha1;", "aes128-sha1-modp1536,aes128-sha1-modp1024", "aes128-sha1"},
    {"AllThree", "3des-md5;modp1024", "3des-md5-modp1024", "3des-md5-modp1024"},
    {"Dh22", "aes128-sha1;dh22", "aes128-sha1-modp1024s160", "aes128-sha1-modp1024s160"},
    {"Dh23", "aes128-sha1;dh23", "aes128-sha1-modp2048s224", "aes128-sha1-modp2048s224"},
    {"Dh24", "aes128-sha2_256;dh24", "aes128-sha2_256-modp2048s256",
     "aes128-sha2_256-modp2048s256"},
    {"OtherDhGroupsStay", "aes128-sha1;dh21", "aes128-sha1-dh21", "aes128-sha1-dh21"},
    {"GroupsAreComparedExactly", "aes128-sha1;DH22", "aes128-sha1-DH22", "aes128-sha1-DH22"},
    {"UnknownGroupStays", "aes256-sha2_512;ecp521", "aes256-sha2_512-ecp521",
     "aes256-sha2_512-ecp521"},
    {"FieldsBehindTheGroup", "aes128-sha1;modp2048;dh22;", "aes128-sha1-modp2048",
     "aes128-sha1-modp2048"},
    {"EmptyGroupBeforeAnotherField", "aes128-sha1;;dh22",
     "aes128-sha1-modp1536,aes128-sha1-modp1024", "aes128-sha1"},
    {"Sha2WithMore", "aes128-sha2_512", "aes128-sha2_512-modp1536,aes128-sha2_512-modp1024",
     "aes128-sha2_512"},
    {"UpperCaseSha2", "aes128-SHA2", "aes128-SHA2-modp1536,aes128-SHA2-modp1024", "aes128-SHA2"},
    {"GroupNameAsCipher", "dh22-sha1", "dh22-sha1-modp1536,dh22-sha1-modp1024", "dh22-sha1"},
    {"GroupNameAsHash", "aes128-modp1536", "aes128-modp1536-modp1536,aes128-modp1536-modp1024",
     "aes128-modp1536"},
    {"SemicolonInTheCipher", "a;b-sha1", "a;b-sha1-modp1536,a;b-sha1-modp1024", "a;b-sha1"},
    {"EmptyCipher", "-sha1", "", ""},
    {"EmptyCipherWithGroup", "-sha1;modp2048", "", ""},
    {"EmptyCipherWithSha2", "-sha2", "", ""},
    {"DashAlone", "-", "", ""},
    {"ThreeTokens", "aes128-sha1-modp1536", "", ""},
    {"ThreeEmptyTokens", "--", "", ""},
    {"FourTokens", "aes128-sha1-modp1536-x", "", ""},
    {"DashInTheGroup", "aes128-sha1;modp-1536", "", ""},
};
INSTANTIATE_TEST_SUITE_P(WithAHash, Proposals, testing::ValuesIn(withAHash), rowName);

TEST(ProposalHash, Sha2BecomesSha2_256AndIsReported) {
  expectProposals("aes128-sha2;modp2048",
                  {"aes128-sha2_256-modp2048", "aes128-sha2_256-modp2048", {sha2Record}});
}

TEST(ProposalHash, Sha2IsReportedWithoutAGroupToo) {
  expectProposals(
      "aes128-sha2",
      {"aes128-sha2_256-modp1536,aes128-sha2_256-modp1024", "aes128-sha2_256", {sha2Record}});
}

// The same rules told once more and in another way, from the number of dashes and the
// places of the separators.
Expected oracle(const std::string& text) {
  const std::size_t dash = text.find('-');
  const bool hasHash = dash != std::string::npos && dash == text.rfind('-');
  if (dash != std::string::npos && !hasHash) {
    return {};
  }
  const std::size_t cipherEnd = hasHash ? dash : text.find(';');
  const std::string cipher = text.substr(0, cipherEnd);
  const bool namesAGroup = cipher.rfind("modp", 0) == 0 || cipher.rfind("dh", 0) == 0;
  if (cipher.empty() || (!hasHash && namesAGroup)) {
    return {};
  }
  const std::string rest = hasHash ? text.substr(dash + 1) + ";;" : ";;";
  const std::size_t hashEnd = rest.find(';');
  const std::size_t groupEnd = rest.find(';', hashEnd + 1);
  const std::string hash = rest.substr(0, hashEnd);
  const std::string group = rest.substr(hashEnd + 1, groupEnd - hashEnd - 1);
  const std::string c = cipher + "-";
  if (hash.empty()) {
    return {c + "md5-modp1536," + c + "sha1-modp1536," + c + "md5-modp1024," + c + "sha1-modp1024",
            c + "md5," + c + "sha1",
            {}};
  }
  const std::string ch = c + (hash == "sha2" ? "sha2_256" : hash);
  const Trace records = hash == "sha2" ? Trace{sha2Record} : Trace{};
  if (group.empty()) {
    return {ch + "-modp1536," + ch + "-modp1024", ch, records};
  }
  const std::string known = group == "dh22"   ? "modp1024s160"
                            : group == "dh23" ? "modp2048s224"
                            : group == "dh24" ? "modp2048s256"
                                              : group;
  return {ch + "-" + known, ch + "-" + known, records};
}

/// Calls `visit` with every sequence of up to `most` words.
template <typename Visitor>
void forEverySequence(const std::vector<std::string>& words, int most, const std::string& start,
                      const Visitor& visit) {
  visit(start);
  for (const std::string& word : words) {
    if (most > 0) {
      forEverySequence(words, most - 1, start + word, visit);
    }
  }
}

TEST(ProposalShapes, FollowTheRulesForEverySequenceOfWordsAndSeparators) {
  const std::vector<std::string> words = {"-", ";", "aes128", "sha1", "sha2", "modp2048", "dh2"};
  int shapes = 0;
  forEverySequence(words, 5, "", [&shapes](const std::string& text) {
    ++shapes;
    expectProposals(text, oracle(text));
  });
  EXPECT_EQ(shapes, 19608);  // 1 + 7 + 7^2 + ... + 7^5
}

/// Every text made of one piece of each list, in their order.
std::vector<std::string> combinations(const std::vector<std::vector<std::string>>& lists) {
  std::vector<std::string> texts = {""};
  for (const std::vector<std::string>& pieces : lists) {
    std::vector<std::string> longer;
    for (const std::string& text : texts) {
      for (const std::string& piece : pieces) {
        longer.push_back(text + piece);
      }
    }
    texts = longer;
  }
  return texts;
}

TEST(ProposalShapes, FollowTheRulesForEveryCombinationOfFields) {
  const std::vector<std::string> ciphers = {"", "3des", "aes256", "modp", "dh", "dh22", " "};
  const std::vector<std::string> hashes = {"", "md5", "sha1", "sha2", "sha2_256", "dh24", "SHA2"};
  const std::vector<std::string> groups = {"",      "dh21", "dh22",     "dh23",   "dh24",
                                           "dh240", "DH22", "modp1024", "ecp521", "14"};
  const std::vector<std::string> separators = {"", "-", ";", "--", ";;", "-;", ";-"};
  const std::vector<std::string> texts =
      combinations({ciphers, separators, hashes, separators, groups, {"", ";", ";dh23"}});
  EXPECT_EQ(texts.size(), 7U * 7U * 7U * 7U * 10U * 3U);
  for (const std::string& text : texts) {
    expectProposals(text, oracle(text));
  }
}

}  // namespace
