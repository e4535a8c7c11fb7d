#include "platform/system.hpp"
#include "temporary_file.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace {

using VEXA::System::readFile;

TEST(SystemReadFile, ReadsAllOfAFile) {
  const TemporaryFile file;
  const std::string content = std::string(100000, 'x') + '\0' + "\nend";
  std::ofstream(file.path) << content;
  std::string out = "left over";
  EXPECT_EQ(0, readFile(file.path, out));
  EXPECT_EQ(content, out);
}

TEST(SystemReadFile, ReadsFilesThatTellNoSize) {
  std::string out;
  EXPECT_EQ(0, readFile("/proc/self/comm", out));
  EXPECT_EQ("unit_vexa\n", out);
}

TEST(SystemReadFile, ReadsAnEmptyFile) {
  const TemporaryFile file;
  std::string out = "left over";
  EXPECT_EQ(0, readFile(file.path, out));
  EXPECT_EQ("", out);
}

TEST(SystemReadFile, ReturnsTheErrnoAndNothingElse) {
  std::string out = "left over";
  EXPECT_EQ(ENOENT, readFile("/nonexistent/file", out));
  EXPECT_EQ("", out);
  out = "left over";
  EXPECT_EQ(EISDIR, readFile("/", out));
  EXPECT_EQ("", out);
  EXPECT_EQ(ENOTDIR, readFile("/etc/passwd/file", out));
}

int lowestFreeDescriptor() {
  const int lowest = dup(STDOUT_FILENO);
  close(lowest);
  return lowest;
}

TEST(SystemReadFile, LeavesNoDescriptorOpen) {
  const int before = lowestFreeDescriptor();
  std::string out;
  readFile("/", out);
  readFile("/etc/passwd", out);
  EXPECT_EQ(before, lowestFreeDescriptor());
}

}  // namespace
