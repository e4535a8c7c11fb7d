#include "ipsec/ipsec_files.hpp"

#include "fake/fake_platform.hpp"
#include "ipsec/ipsec_sandbox.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace tunnel_mngr;

constexpr char removal[] =
    "rm -rf /var/run/ipsec/cacerts/* /var/run/ipsec/certs/* /var/run/ipsec/private/*";
constexpr char defaultConf[] = "version 2.0\n\nconfig setup\n\tuniqueids=yes\n";

class IpsecPaths : public IpsecSandbox {};
class IpsecWriters : public IpsecSandbox {};
class IpsecReset : public IpsecSandbox {};

TEST_F(IpsecPaths, LieUnderOneDirectory) {
  EXPECT_EQ(ipsecConfPath(), "/var/run/ipsec/ipsec.conf");
  EXPECT_EQ(ipsecSecretsPath(), "/var/run/ipsec/ipsec.secrets");
  EXPECT_EQ(ipsecCaCertsDir(), "/var/run/ipsec/cacerts");
  EXPECT_EQ(ipsecCertsDir(), "/var/run/ipsec/certs");
  EXPECT_EQ(ipsecPrivateDir(), "/var/run/ipsec/private");
  EXPECT_STREQ(ipsecUpdownHook, "/etc/quorvex/hooks/ipsec-tunnel-link-changed");
}

TEST_F(IpsecPaths, AreTheSameObjectsAtEveryCall) {
  for (const auto accessor :
       {ipsecConfPath, ipsecSecretsPath, ipsecCaCertsDir, ipsecCertsDir, ipsecPrivateDir}) {
    EXPECT_EQ(&accessor(), &accessor());
  }
}

TEST_F(IpsecWriters, WriteBytesAsTheyAre) {
  const std::string bytes("a\r\n\0\xff no line feed", 18);
  EXPECT_TRUE(writeFile(ipsecConfPath(), bytes));
  EXPECT_EQ(content(ipsecConfPath()), bytes);
  EXPECT_EQ(fake::takeTrace(), (Trace{"truncate /var/run/ipsec/ipsec.conf 644"}));
}

TEST_F(IpsecWriters, ReplaceALongerContent) {
  put(ipsecConfPath(), "something longer", 0644);
  EXPECT_TRUE(writeFile(ipsecConfPath(), "short"));
  EXPECT_EQ(content(ipsecConfPath()), "short");
}

TEST_F(IpsecWriters, WriteNothingAsAnEmptyFile) {
  put(ipsecConfPath(), "old", 0644);
  EXPECT_TRUE(writeFile(ipsecConfPath(), ""));
  EXPECT_EQ(content(ipsecConfPath()), "");
}

TEST_F(IpsecWriters, AppendAtTheEnd) {
  put(ipsecConfPath(), "one\n", 0644);
  EXPECT_TRUE(appendToFile(ipsecConfPath(), "two\n"));
  EXPECT_TRUE(appendToFile(ipsecConfPath(), "three"));
  EXPECT_EQ(content(ipsecConfPath()), "one\ntwo\nthree");
  EXPECT_EQ(fake::takeTrace(), (Trace{"append /var/run/ipsec/ipsec.conf 644",
                                      "append /var/run/ipsec/ipsec.conf 644"}));
}

TEST_F(IpsecWriters, CreateAMissingFileToAppendTo) {
  EXPECT_TRUE(appendToFile(ipsecConfPath(), "first\n"));
  EXPECT_EQ(content(ipsecConfPath()), "first\n");
}

TEST_F(IpsecWriters, WorkOnAnyPath) {
  const std::string path = real("/var/run/ipsec") + "/elsewhere";
  EXPECT_TRUE(writeFile(path, "a"));
  EXPECT_TRUE(appendToFile(path, "b"));
  EXPECT_EQ(content(path), "ab");
}

TEST_F(IpsecWriters, NameTheFileThatCannotBeOpened) {
  const std::string path = ipsecPrivateDir() + "/none/x.pem";
  EXPECT_FALSE(writeFile(path, "x"));
  EXPECT_FALSE(appendToFile(ipsecCertsDir(), "a directory"));
  EXPECT_EQ(fake::takeTrace(),
            (Trace{"truncate /var/run/ipsec/private/none/x.pem 600",
                   "WARNING [/var/run/ipsec/private/none/x.pem] could not be opened.",
                   "append /var/run/ipsec/certs 644",
                   "WARNING [/var/run/ipsec/certs] could not be opened."}));
}

TEST_F(IpsecWriters, DoNotReportAFullDisk) {
  EXPECT_TRUE(writeFile("/dev/full", "lost"));
  EXPECT_TRUE(appendToFile("/dev/full", "lost"));
  EXPECT_EQ(fake::takeTrace(), Trace{});
}

TEST_F(IpsecWriters, GiveUpAtTheFirstWriteThatFails) {
  scriptWrites({3, -EIO, 100});
  EXPECT_TRUE(writeFile(ipsecConfPath(), "abcdef"));
  EXPECT_EQ(content(ipsecConfPath()), "abc");
  EXPECT_EQ(writesLeft(), 1U);
  EXPECT_EQ(fake::takeTrace(), (Trace{"truncate /var/run/ipsec/ipsec.conf 644"}));
}

TEST_F(IpsecWriters, GiveUpWhenNothingMoreIsTaken) {
  scriptWrites({3, 0, 100});
  EXPECT_TRUE(appendToFile(ipsecConfPath(), "abcdef"));
  EXPECT_EQ(content(ipsecConfPath()), "abc");
  EXPECT_EQ(writesLeft(), 1U);
}

TEST_F(IpsecWriters, GoOnAfterAnInterruptionAndAPartialWrite) {
  scriptWrites({-EINTR, 2, -EINTR, 1});
  EXPECT_TRUE(writeFile(ipsecConfPath(), "abcdef"));
  EXPECT_EQ(content(ipsecConfPath()), "abcdef");
  EXPECT_EQ(writesLeft(), 0U);
}

TEST_F(IpsecWriters, LeaveNoDescriptorOpen) {
  const auto descriptors = [this] { return names("/proc/self/fd").size(); };
  const std::size_t before = descriptors();
  EXPECT_TRUE(writeFile(ipsecConfPath(), "a"));
  EXPECT_FALSE(writeFile(ipsecCertsDir(), "a"));
  EXPECT_TRUE(appendToFile("/dev/full", "a"));
  EXPECT_EQ(descriptors(), before);
}

TEST_F(IpsecWriters, GiveNewFilesTheirModeWhateverTheUmask) {
  struct Row {
    const char* path;
    mode_t expected;
  };
  const Row rows[] = {
      {"/var/run/ipsec/ipsec.conf", 0644},    {"/var/run/ipsec/ipsec.secrets", 0600},
      {"/var/run/ipsec/cacerts/a.pem", 0644}, {"/var/run/ipsec/certs/a.pem", 0644},
      {"/var/run/ipsec/private/a.pem", 0600}, {"/var/run/ipsec/private/../out.pem", 0600},
      {"/var/run/ipsec/privateer", 0644},     {"/var/run/ipsec/ipsec.secrets2", 0644},
  };
  for (const Row& row : rows) {
    EXPECT_TRUE(writeFile(row.path, "x"));
    EXPECT_EQ(mode(row.path), row.expected) << row.path;
  }
}

TEST_F(IpsecWriters, KeepTheModesOfFilesThatAreThere) {
  put(ipsecConfPath(), "old", 0640);
  put(ipsecSecretsPath(), "old", 0644);
  EXPECT_TRUE(writeFile(ipsecConfPath(), "new"));
  EXPECT_TRUE(writeFile(ipsecSecretsPath(), ""));
  EXPECT_TRUE(appendToFile(ipsecSecretsPath(), "new"));
  EXPECT_EQ(mode(ipsecConfPath()), 0640U);
  EXPECT_EQ(mode(ipsecSecretsPath()), 0644U);
}

TEST_F(IpsecWriters, HideAPrivateKeyThatReplacesAReadableFile) {
  const std::string path = ipsecPrivateDir() + "/.site2.pem";
  put(path, "old", 0666);
  EXPECT_TRUE(writeFile(path, "key"));
  EXPECT_EQ(mode(path), 0600U);
  EXPECT_EQ(content(path), "key");
}

TEST_F(IpsecWriters, FollowSymbolicLinks) {
  const std::string target = real("/var/run/ipsec") + "/linked";
  std::filesystem::create_symlink(target, real(ipsecConfPath()));
  EXPECT_TRUE(writeFile(ipsecConfPath(), "a"));
  EXPECT_TRUE(appendToFile(ipsecConfPath(), "b"));
  EXPECT_EQ(content(target), "ab");
  EXPECT_TRUE(std::filesystem::is_symlink(real(ipsecConfPath())));
}

TEST(IpsecDefaultConf, IsTheHeaderAlone) {
  std::string text = "what was there";
  defaultIpsecConf(text);
  EXPECT_EQ(text, defaultConf);
}

TEST_F(IpsecReset, RemovesThenWritesTheDefaultsThenEmptiesTheSecrets) {
  put(ipsecConfPath(), "conn old", 0644);
  put(ipsecSecretsPath(), "old", 0644);
  EXPECT_TRUE(resetIpsecConfig());
  EXPECT_EQ(fake::takeTrace(),
            (Trace{std::string("TRACE ") + removal, std::string("cmd ") + removal,
                   "truncate /var/run/ipsec/ipsec.conf 644",
                   "truncate /var/run/ipsec/ipsec.secrets 600"}));
  EXPECT_EQ(content(ipsecConfPath()), defaultConf);
  EXPECT_EQ(content(ipsecSecretsPath()), "");
}

TEST_F(IpsecReset, CreatesMissingFiles) {
  EXPECT_TRUE(resetIpsecConfig());
  EXPECT_EQ(content(ipsecConfPath()), defaultConf);
  EXPECT_EQ(content(ipsecSecretsPath()), "");
  EXPECT_EQ(mode(ipsecConfPath()), 0644U);
  EXPECT_EQ(mode(ipsecSecretsPath()), 0600U);
}

TEST_F(IpsecReset, EmptiesTheDirectoriesButForHiddenFiles) {
  runCommands();
  for (const std::string& directory : {ipsecCaCertsDir(), ipsecCertsDir(), ipsecPrivateDir()}) {
    put(directory + "/site2.pem", "x", 0600);
    put(directory + "/.hidden", "x", 0600);
    std::filesystem::create_directories(real(directory + "/inner/deep"));
  }
  EXPECT_TRUE(resetIpsecConfig());
  for (const std::string& directory : {ipsecCaCertsDir(), ipsecCertsDir(), ipsecPrivateDir()}) {
    EXPECT_EQ(names(directory), (std::vector<std::string>{".hidden"})) << directory;
  }
}

TEST_F(IpsecReset, TouchesNothingWhenTheRemovalFails) {
  put(ipsecConfPath(), "conn old", 0644);
  put(ipsecSecretsPath(), "old", 0644);
  fake::script(removal, 127);
  EXPECT_FALSE(resetIpsecConfig());
  EXPECT_EQ(fake::takeTrace(),
            (Trace{std::string("TRACE ") + removal, std::string("cmd ") + removal,
                   "ERROR [TUNNEL_MNGR] IPSec error executing remove files command [127]"}));
  EXPECT_EQ(content(ipsecConfPath()), "conn old");
  EXPECT_EQ(content(ipsecSecretsPath()), "old");
}

TEST_F(IpsecReset, FailsAtTheConfigurationWhenTheDirectoryIsMissing) {
  runCommands();
  std::filesystem::remove_all(real("/var/run/ipsec"));
  EXPECT_FALSE(resetIpsecConfig());
  EXPECT_EQ(fake::takeTrace(),
            (Trace{std::string("TRACE ") + removal, std::string("cmd ") + removal,
                   "truncate /var/run/ipsec/ipsec.conf 644",
                   "WARNING [/var/run/ipsec/ipsec.conf] could not be opened."}));
}

TEST_F(IpsecReset, FailsWhenTheSecretsCannotBeOpened) {
  refuse(ipsecSecretsPath());
  EXPECT_FALSE(resetIpsecConfig());
  EXPECT_EQ(
      fake::takeTrace(),
      (Trace{std::string("TRACE ") + removal, std::string("cmd ") + removal,
             "truncate /var/run/ipsec/ipsec.conf 644", "truncate /var/run/ipsec/ipsec.secrets 600",
             "WARNING [/var/run/ipsec/ipsec.secrets] could not be opened."}));
  EXPECT_EQ(content(ipsecConfPath()), defaultConf);
}

}  // namespace
