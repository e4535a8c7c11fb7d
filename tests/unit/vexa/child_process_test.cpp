#include "vexa/child_process.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cerrno>

namespace {

using VEXA::ChildProcess;

bool hasChildren() {
  siginfo_t child;
  return waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

TEST(ChildProcess, SaysWhyItCouldNotStart) {
  ChildProcess child;
  EXPECT_EQ(ENOENT, child.start("/nonexistent/program", {"program"}));
  EXPECT_EQ(EACCES, child.start("/etc/passwd", {"passwd"}));
}

TEST(ChildProcess, CanStartAfterAFailedAttempt) {
  ChildProcess child;
  ASSERT_NE(0, child.start("/nonexistent/program", {"program"}));
  ASSERT_EQ(0, child.start("echo", {"echo", "a"}));
  std::string output;
  EXPECT_EQ(0, child.finish(output));
  EXPECT_EQ("a\n", output);
}

TEST(ChildProcess, LeavesNoChildBehind) {
  std::string output;
  {
    ChildProcess finished;
    ASSERT_EQ(0, finished.start("true", {"true"}));
    EXPECT_EQ(0, finished.finish(output));
    ChildProcess abandoned;
    ASSERT_EQ(0, abandoned.start("yes", {"yes"}));
  }
  EXPECT_FALSE(hasChildren());
}

}  // namespace
