#include "monitor/resolver.hpp"

#include "fake/fake_platform.hpp"
#include "monitor/fake_lookup.hpp"
#include "support/recorded_test.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netdb.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace tunnel_mngr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Resolver : public support::RecordedTest {
 protected:
  Resolver() { fake::resetLookups(); }
  ~Resolver() override { fake::resetLookups(); }
};

TEST_F(Resolver, GivesADottedAddressBackWithoutALookUp) {
  EXPECT_EQ(resolveHost("192.0.2.7"), "192.0.2.7");
  EXPECT_THAT(fake::takeTrace(), IsEmpty());
}

TEST_F(Resolver, GivesEveryOtherFormOfAnAddressBackAsItIs) {
  for (const char* host : {"127.1", "0x7f000001", "010.0.0.1", "1", "0", "192.0.2.7 "}) {
    EXPECT_EQ(resolveHost(host), host);
    EXPECT_THAT(fake::takeTrace(), IsEmpty()) << host;
  }
}

TEST_F(Resolver, LooksUpWhatOnlyResemblesAnAddress) {
  fake::scriptLookup(fake::failed(HOST_NOT_FOUND));
  for (const std::string host : {"1.2.3.256", "1.2.3.4.5", "192.0.2.7x", "Any", ""}) {
    EXPECT_EQ(resolveHost(host), "");
    EXPECT_THAT(fake::takeTrace(),
                ElementsAre("lookup " + host,
                            "WARNING [FQDN_MONITOR] The host [" + host + "] was not found.\n"));
  }
}

TEST_F(Resolver, ReturnsTheFirstAddressOfAName) {
  fake::scriptLookup(fake::resolved({"192.0.2.9", "192.0.2.1", "192.0.2.5"}));
  EXPECT_EQ(resolveHost("peer.example"), "192.0.2.9");
  EXPECT_THAT(fake::takeTrace(), ElementsAre("lookup peer.example"));
}

TEST_F(Resolver, BeginsWithABufferOf256Bytes) {
  fake::traceBuffers = true;
  fake::scriptLookup(fake::resolved({"192.0.2.9"}));
  EXPECT_EQ(resolveHost("peer.example"), "192.0.2.9");
  EXPECT_THAT(fake::takeTrace(), ElementsAre("realloc 256", "lookup peer.example 256"));
}

TEST_F(Resolver, DoublesTheBufferUntilTheReplyFits) {
  fake::traceBuffers = true;
  fake::Lookup answer = fake::resolved({"192.0.2.9", "192.0.2.10"});
  answer.space = 5000;
  fake::scriptLookup(answer);
  EXPECT_EQ(resolveHost("peer.example"), "192.0.2.9");
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("realloc 256", "lookup peer.example 256", "realloc 512",
                          "lookup peer.example 512", "realloc 1024", "lookup peer.example 1024",
                          "realloc 2048", "lookup peer.example 2048", "realloc 4096",
                          "lookup peer.example 4096", "realloc 8192", "lookup peer.example 8192"));
}

TEST_F(Resolver, SetsNoBoundToTheBuffer) {
  fake::Lookup answer = fake::resolved({"192.0.2.9"});
  answer.space = 5000000;
  fake::scriptLookup(answer);
  EXPECT_EQ(resolveHost("peer.example"), "192.0.2.9");
  EXPECT_EQ(fake::takeTrace().size(), 16U);  // 256 bytes to 8 MiB
}

TEST_F(Resolver, ReportsALookUpThatFailsAfterItsBufferGrew) {
  fake::Lookup answer = fake::failed(NO_DATA);
  answer.space = 512;
  fake::scriptLookup(answer);
  EXPECT_EQ(resolveHost("peer.example"), "");
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lookup peer.example", "lookup peer.example",
                          "WARNING [FQDN_MONITOR] The name [peer.example] is valid but it has no "
                          "address.\n"));
}

TEST_F(Resolver, ReportsMissingMemory) {
  fake::traceBuffers = true;
  fake::refusedGrowth = 256;
  EXPECT_EQ(resolveHost("peer.example"), "");
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("realloc 256", "ERROR [FQDN_MONITOR] gethostbyname: not enough memory.\n"));
}

TEST_F(Resolver, ReportsMissingMemoryForALargerBuffer) {
  fake::traceBuffers = true;
  fake::refusedGrowth = 1024;
  fake::Lookup answer = fake::resolved({"192.0.2.9"});
  answer.space = 1024;
  fake::scriptLookup(answer);
  EXPECT_EQ(resolveHost("peer.example"), "");
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("realloc 256", "lookup peer.example 256", "realloc 512",
                          "lookup peer.example 512", "realloc 1024",
                          "ERROR [FQDN_MONITOR] gethostbyname: not enough memory.\n"));
}

TEST_F(Resolver, RefusesAnotherAddressFamily) {
  fake::Lookup answer = fake::resolved({"2001:db8::1"});
  answer.family = AF_INET6;
  fake::scriptLookup(answer);
  EXPECT_EQ(resolveHost("peer.example"), "");
  EXPECT_THAT(fake::takeTrace(),
              ElementsAre("lookup peer.example",
                          "ERROR [FQDN_MONITOR] The address family is not supported (IPv6)\n"));
}

TEST_F(Resolver, TakesPercentSignsAsText) {
  fake::scriptLookup(fake::failed(HOST_NOT_FOUND));
  EXPECT_EQ(resolveHost("%s%n"), "");
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("lookup %s%n", "WARNING [FQDN_MONITOR] The host [%s%n] was not found.\n"));
}

TEST_F(Resolver, KeepsWarningsFromALogThatWantsErrorsOnly) {
  fake::setPrintLevel(10);
  for (const int error : {HOST_NOT_FOUND, TRY_AGAIN, NO_RECOVERY, NO_DATA}) {
    fake::resetLookups();
    fake::scriptLookup(fake::failed(error));
    EXPECT_EQ(resolveHost("peer.example"), "");
    EXPECT_THAT(fake::takeTrace(), ElementsAre("lookup peer.example"));
  }
}

TEST_F(Resolver, ServesSeveralThreadsAtOnce) {
  fake::traceLookups = false;
  fake::Lookup answer = fake::resolved({"192.0.2.9"});
  answer.space = 1024;
  fake::scriptLookup(answer);
  std::vector<std::string> found(8);
  std::vector<std::thread> threads;
  threads.reserve(found.size());
  for (std::string& address : found) {
    threads.emplace_back([&address] {
      for (int i = 0; i < 100; ++i) {
        address = resolveHost("peer.example");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_THAT(found, testing::Each("192.0.2.9"));
}

// --- why a name has no address

struct FailureCase {
  const char* title;
  int hostError;
  int result;
  std::vector<std::string> records;
};

const FailureCase failureCases[] = {
    {"HostNotFound",
     HOST_NOT_FOUND,
     0,
     {"WARNING [FQDN_MONITOR] The host [peer.example] was not found.\n"}},
    {"TryAgain",
     TRY_AGAIN,
     EAGAIN,
     {"WARNING [FQDN_MONITOR] The name server is temporarily unavailable.  Unable to resolve "
      "[peer.example]"}},
    {"NoRecovery",
     NO_RECOVERY,
     EINVAL,
     {"WARNING [FQDN_MONITOR] A non-recoverable name server error occurred.  Unable to resolve "
      "[peer.example]\n"}},
    {"NoData",
     NO_DATA,
     0,
     {"WARNING [FQDN_MONITOR] The name [peer.example] is valid but it has no address.\n"}},
    {"InternalError", NETDB_INTERNAL, ENOENT, {}},
    {"NoErrorNamed", 0, 0, {}},
    {"UnknownError", 5, 0, {}},
};

class ResolverFailure : public Resolver, public testing::WithParamInterface<FailureCase> {};

TEST_P(ResolverFailure, IsToldByItsReason) {
  fake::Lookup answer = fake::failed(GetParam().hostError);
  answer.result = GetParam().result;
  fake::scriptLookup(answer);
  EXPECT_EQ(resolveHost("peer.example"), "");
  std::vector<std::string> expected = {"lookup peer.example"};
  expected.insert(expected.end(), GetParam().records.begin(), GetParam().records.end());
  EXPECT_EQ(fake::takeTrace(), expected);
}

INSTANTIATE_TEST_SUITE_P(Table, ResolverFailure, testing::ValuesIn(failureCases),
                         [](const auto& row) { return std::string(row.param.title); });

}  // namespace
}  // namespace tunnel_mngr
