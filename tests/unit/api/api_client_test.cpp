#include "api/api_client.hpp"

#include "api/fake_curl.hpp"
#include "fake/fake_platform.hpp"
#include "support/json_text.hpp"
#include "support/recorded_test.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace tunnel_mngr {
namespace {

using support::json;
using testing::ElementsAre;

constexpr char url[] = "http://localhost/api?fields=x";
constexpr char badJson[] = "ERROR api returned bad json";

class ApiClient : public support::RecordedTest {
 protected:
  ApiClient() { fake::resetCurl(); }
  ~ApiClient() override { fake::resetCurl(); }

  Json::Value result{"as before"};
};

/// A reply whose result is a list in a list, and so on.
std::string nestedReply(std::size_t levels) {
  return R"({"code": 200, "result": )" + std::string(levels, '[') + std::string(levels, ']') + "}";
}

// --- one request

TEST_F(ApiClient, SetsItsOptionsOneByOneAndCleansUp) {
  fake::curlTrace = fake::CurlTrace::calls;
  fake::scriptReply(R"({"code": 200, "result": {"a": [1, "b"]}})");
  EXPECT_TRUE(apiGet(url, result));
  EXPECT_EQ(result, json(R"({"a": [1, "b"]})"));
  EXPECT_EQ(fake::lastWriteFunction(), &apiWriteCallback);
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("curl_easy_init", "curl_easy_setopt UNIX_SOCKET_PATH /var/run/api/http.sock",
                  "curl_easy_setopt URL http://localhost/api?fields=x", "curl_easy_setopt HEADER 0",
                  "curl_easy_setopt FOLLOWLOCATION 0", "curl_easy_setopt WRITEFUNCTION",
                  "curl_easy_setopt WRITEDATA", "curl_easy_perform", "curl_easy_cleanup"));
}

TEST_F(ApiClient, MakesTheSameRequestQuietly) {
  fake::curlTrace = fake::CurlTrace::calls;
  fake::scriptReply(R"({"code": 200, "result": {"a": [1, "b"]}})");
  EXPECT_TRUE(apiGetQuiet(url, result));
  EXPECT_EQ(result, json(R"({"a": [1, "b"]})"));
  EXPECT_THAT(
      fake::takeTrace(),
      ElementsAre("curl_easy_init", "curl_easy_setopt UNIX_SOCKET_PATH /var/run/api/http.sock",
                  "curl_easy_setopt URL http://localhost/api?fields=x", "curl_easy_setopt HEADER 0",
                  "curl_easy_setopt FOLLOWLOCATION 0", "curl_easy_setopt WRITEFUNCTION",
                  "curl_easy_setopt WRITEDATA", "curl_easy_perform", "curl_easy_cleanup"));
}

TEST_F(ApiClient, MakesAHandleForEveryRequest) {
  fake::curlTrace = fake::CurlTrace::calls;
  fake::scriptReply(R"({"code": 200})");
  apiGet(url, result);
  const std::vector<std::string> first = fake::takeTrace();
  apiGet(url, result);
  EXPECT_EQ(fake::takeTrace(), first);
}

TEST_F(ApiClient, GathersAReplyThatComesInPieces) {
  fake::scriptReply({R"({"code": 2)", "", R"(00, "result": "a)", R"(b"})"});
  EXPECT_TRUE(apiGet(url, result));
  EXPECT_EQ(result, Json::Value("ab"));
}

TEST_F(ApiClient, GathersAReplyOfSeveralMegabytes) {
  const std::string piece(1 << 20, 'x');
  fake::scriptReply({R"({"code": 200, "result": ")", piece, piece, piece, R"("})"});
  EXPECT_TRUE(apiGet(url, result));
  EXPECT_EQ(result.asString().size(), 3 * piece.size());
}

TEST_F(ApiClient, KeepsNothingOfTheRequestBefore) {
  fake::scriptReply(R"({"code": 404})");
  fake::scriptReply(R"({"code": 200, "result": 7})");
  EXPECT_FALSE(apiGet(url, result));
  EXPECT_TRUE(apiGet(url, result));
  EXPECT_EQ(result, Json::Value(7));
}

TEST_F(ApiClient, ServesSeveralThreadsAtOnce) {
  fake::curlTrace = fake::CurlTrace::nothing;
  fake::scriptReply(R"({"code": 200, "result": [1, 2, 3]})");
  std::vector<Json::Value> results(4);
  std::vector<std::thread> threads;
  threads.reserve(results.size());
  for (Json::Value& one : results) {
    threads.emplace_back([&one] {
      for (int i = 0; i < 50; ++i) {
        apiGet(url, one);
        apiGetQuiet(url, one);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const Json::Value& one : results) {
    EXPECT_EQ(one, json("[1, 2, 3]"));
  }
}

// --- what fails before there is a reply

TEST_F(ApiClient, ReportsThatThereIsNoHandle) {
  fake::curlTrace = fake::CurlTrace::calls;
  fake::refuseHandles();
  EXPECT_FALSE(apiGet(url, result));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("curl_easy_init", "ERROR Unable to initialize curl."));
  EXPECT_FALSE(apiGetQuiet(url, result));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("curl_easy_init"));
  EXPECT_EQ(result, Json::Value("as before"));
}

TEST_F(ApiClient, ReportsATransferThatFailedAndThenCleansUp) {
  fake::curlTrace = fake::CurlTrace::calls;
  fake::failTransfers(CURLE_COULDNT_CONNECT);
  EXPECT_FALSE(apiGet(url, result));
  const std::vector<std::string> trace = fake::takeTrace();
  ASSERT_EQ(trace.size(), 10U);
  EXPECT_EQ(trace[7], "curl_easy_perform");
  EXPECT_EQ(trace[8], "ERROR curl_easy_perform() failed: no connection");
  EXPECT_EQ(trace[9], "curl_easy_cleanup");
  EXPECT_EQ(result, Json::Value("as before"));
}

TEST_F(ApiClient, NamesTheReasonOfEveryTransferThatFailed) {
  fake::failTransfers(CURLE_WRITE_ERROR);
  EXPECT_FALSE(apiGet(url, result));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("get http://localhost/api?fields=x",
                                             "ERROR curl_easy_perform() failed: write error"));
  fake::failTransfers(CURLE_GOT_NOTHING);
  EXPECT_FALSE(apiGet(url, result));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("get http://localhost/api?fields=x",
                                             "ERROR curl_easy_perform() failed: no reply"));
}

TEST_F(ApiClient, SaysNothingOfAQuietTransferThatFailed) {
  fake::failTransfers(CURLE_COULDNT_CONNECT);
  EXPECT_FALSE(apiGetQuiet(url, result));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("get http://localhost/api?fields=x"));
  EXPECT_EQ(result, Json::Value("as before"));
}

struct OptionCase {
  const char* title;
  CURLoption option;
  const char* record;
  std::size_t place;
};

const OptionCase optionCases[] = {
    {"SocketPath", CURLOPT_UNIX_SOCKET_PATH,
     "ERROR curl_easy_setopt(CURLOPT_URL) failed: no memory", 1},
    {"Url", CURLOPT_URL, "ERROR curl_easy_setopt(CURLOPT_URL) failed: no memory", 2},
    {"Header", CURLOPT_HEADER, "ERROR curl_easy_setopt(CURLOPT_HEADER) failed: no memory", 3},
    {"FollowLocation", CURLOPT_FOLLOWLOCATION,
     "ERROR curl_easy_setopt(CURLOPT_FOLLOWLOCATION) failed: no memory", 4},
    {"WriteFunction", CURLOPT_WRITEFUNCTION,
     "ERROR curl_easy_setopt(CURLOPT_WRITEFUNCTION) failed: no memory", 5},
    {"WriteData", CURLOPT_WRITEDATA, "ERROR curl_easy_setopt(CURLOPT_WRITEDATA) failed: no memory",
     6},
};

class ApiClientOption : public ApiClient, public testing::WithParamInterface<OptionCase> {
 protected:
  ApiClientOption() {
    fake::curlTrace = fake::CurlTrace::calls;
    fake::refuseOption(GetParam().option, CURLE_OUT_OF_MEMORY);
  }

  /// Everything up to the refused option, in its order.
  static std::vector<std::string> callsUpToTheOption() {
    const std::vector<std::string> calls = {
        "curl_easy_init",
        "curl_easy_setopt UNIX_SOCKET_PATH /var/run/api/http.sock",
        "curl_easy_setopt URL http://localhost/api?fields=x",
        "curl_easy_setopt HEADER 0",
        "curl_easy_setopt FOLLOWLOCATION 0",
        "curl_easy_setopt WRITEFUNCTION",
        "curl_easy_setopt WRITEDATA"};
    return {calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(GetParam().place) + 1};
  }
};

TEST_P(ApiClientOption, EndsTheRequestWhenItIsRefused) {
  EXPECT_FALSE(apiGet(url, result));
  std::vector<std::string> expected = callsUpToTheOption();
  expected.emplace_back(GetParam().record);
  expected.emplace_back("curl_easy_cleanup");
  EXPECT_EQ(fake::takeTrace(), expected);
  EXPECT_EQ(result, Json::Value("as before"));
}

TEST_P(ApiClientOption, EndsTheQuietRequestWithoutARecord) {
  EXPECT_FALSE(apiGetQuiet(url, result));
  std::vector<std::string> expected = callsUpToTheOption();
  expected.emplace_back("curl_easy_cleanup");
  EXPECT_EQ(fake::takeTrace(), expected);
  EXPECT_EQ(result, Json::Value("as before"));
}

INSTANTIATE_TEST_SUITE_P(Table, ApiClientOption, testing::ValuesIn(optionCases),
                         [](const auto& row) { return std::string(row.param.title); });

TEST_F(ApiClient, ReadsTheReplyAfterTheHandleIsGone) {
  fake::curlTrace = fake::CurlTrace::calls;
  fake::scriptReply("no json");
  EXPECT_FALSE(apiGet(url, result));
  const std::vector<std::string> trace = fake::takeTrace();
  ASSERT_EQ(trace.size(), 10U);
  EXPECT_EQ(trace[8], "curl_easy_cleanup");
  EXPECT_EQ(trace[9], badJson);
}

// --- the envelope

struct ReplyCase {
  const char* title;
  const char* body;
  /// The result on success, else null.
  const char* result;
  /// The record of a failure.
  const char* record;
};

const ReplyCase replyCases[] = {
    {"EmptyListAsResult", R"({"code": 200, "result": []})", "[]", ""},
    {"OtherMembers", R"({"a": {}, "result": {"b": 1}, "code": 200, "z": null})", R"({"b": 1})", ""},
    {"NoResult", R"({"code": 200})", "null", ""},
    {"NullAsResult", R"({"code": 200, "result": null})", "null", ""},
    {"WhiteSpaceAround", "\n\t {\"code\": 200, \"result\": 1} \r\n", "1", ""},
    {"CodeWithAFraction", R"({"code": 200.0, "result": 1})", "1", ""},
    {"NotFound", R"({"code": 404, "result": []})", nullptr, "ERROR api returned error code [404]"},
    {"ServerError", R"({"code": 500})", nullptr, "ERROR api returned error code [500]"},
    {"Created", R"({"code": 201, "result": []})", nullptr, "ERROR api returned error code [201]"},
    {"NoCode", R"({"result": []})", nullptr, "ERROR api returned error code [0]"},
    {"EmptyObject", "{}", nullptr, "ERROR api returned error code [0]"},
    {"NullAsCode", R"({"code": null, "result": 1})", nullptr, "ERROR api returned error code [0]"},
    {"CodeInOtherLetters", R"({"Code": 200, "result": 1})", nullptr,
     "ERROR api returned error code [0]"},
    {"Empty", "", nullptr, badJson},
    {"WhiteSpace", " \n", nullptr, badJson},
    {"NoJson", "<html>301 Moved</html>", nullptr, badJson},
    {"Truncated", R"({"code": 200, "result": [)", nullptr, badJson},
    {"TrailingText", R"({"code": 200, "result": 1} x)", nullptr, badJson},
    {"TrailingObject", R"({"code": 200, "result": 1}{})", nullptr, badJson},
    {"StringAsRoot", R"("code")", nullptr, badJson},
    {"NumberAsRoot", "200", nullptr, badJson},
    {"TrueAsRoot", "true", nullptr, badJson},
    {"NullAsRoot", "null", nullptr, badJson},
    {"LineComment", "{\"code\": // yes\n 200}", nullptr, badJson},
    {"BlockComment", R"({"code": /* yes */ 200})", nullptr, badJson},
    {"CommentAfter", R"({"code": 200} /* yes */)", nullptr, badJson},
    {"CommentBefore", "/* yes */ {\"code\": 200}", nullptr, badJson},
    {"DuplicateKey", R"({"code": 200, "code": 200})", nullptr, badJson},
    {"DuplicateKeyInside", R"({"code": 200, "result": {"a": 1, "a": 2}})", nullptr, badJson},
    {"SingleQuotes", R"({'code': 200})", nullptr, badJson},
    {"KeyWithoutQuotes", "{code: 200}", nullptr, badJson},
    {"NumberAsKey", "{1: 200}", nullptr, badJson},
    {"TrailingComma", R"({"code": 200, "result": [1,]})", nullptr, badJson},
    {"NotANumber", R"({"code": NaN})", nullptr, badJson},
};

class ApiClientReply : public ApiClient, public testing::WithParamInterface<ReplyCase> {
 protected:
  ApiClientReply() { fake::scriptReply(GetParam().body); }

  void expectResult(bool succeeded) {
    EXPECT_EQ(succeeded, GetParam().result != nullptr);
    EXPECT_EQ(result, GetParam().result == nullptr
                          ? Json::Value("as before")
                          : json("[" + std::string(GetParam().result) + "]")[0]);
  }
};

TEST_F(ApiClient, ReadsWhatIsNestedAsDeepAsAnyReply) {
  fake::scriptReply({nestedReply(199)});
  EXPECT_TRUE(apiGet(url, result));
}

TEST_F(ApiClient, RefusesNestingThatAMonitorsStackCouldNotHold) {
  fake::scriptReply({nestedReply(200)});
  EXPECT_THROW(apiGet(url, result), Json::Exception);
  EXPECT_EQ(result, Json::Value("as before"));
}

TEST_P(ApiClientReply, IsReadStrictly) {
  expectResult(apiGet(url, result));
  std::vector<std::string> expected = {"get http://localhost/api?fields=x"};
  if (GetParam().result == nullptr) {
    expected.emplace_back(GetParam().record);
  }
  EXPECT_EQ(fake::takeTrace(), expected);
}

TEST_P(ApiClientReply, IsReadTheSameWayQuietly) {
  expectResult(apiGetQuiet(url, result));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("get http://localhost/api?fields=x"));
}

INSTANTIATE_TEST_SUITE_P(Table, ApiClientReply, testing::ValuesIn(replyCases),
                         [](const auto& row) { return std::string(row.param.title); });

TEST_F(ApiClient, ThrowsOnACodeThatIsNoUnsignedNumber) {
  for (const char* code : {"\"200\"", "-1", "4294967296", "1e30", "[]", "[200]", "{}"}) {
    fake::resetCurl();
    fake::scriptReply({R"({"code": )", code, R"(, "result": 1})"});
    EXPECT_THROW(apiGet(url, result), Json::Exception) << code;
    EXPECT_THROW(apiGetQuiet(url, result), Json::Exception) << code;
    EXPECT_EQ(result, Json::Value("as before")) << code;
    EXPECT_THAT(fake::takeTrace(), ElementsAre("get http://localhost/api?fields=x",
                                               "get http://localhost/api?fields=x"));
  }
}

TEST_F(ApiClient, ThrowsOnAListInPlaceOfTheEnvelope) {
  fake::scriptReply("[200]");
  EXPECT_THROW(apiGet(url, result), Json::Exception);
  EXPECT_THROW(apiGetQuiet(url, result), Json::Exception);
  EXPECT_EQ(result, Json::Value("as before"));
}

TEST_F(ApiClient, SaysNothingWhenErrorsAreNotPrintable) {
  fake::setPrintLevel(9);
  fake::scriptReply(R"({"code": 404})");
  EXPECT_FALSE(apiGet(url, result));
  EXPECT_THAT(fake::takeTrace(), ElementsAre("get http://localhost/api?fields=x"));
}

TEST_F(ApiClient, KeepsBytesThatAreNoUtf8) {
  fake::scriptReply("{\"code\": 200, \"result\": \"\xff\xfe\"}");
  EXPECT_TRUE(apiGet(url, result));
  EXPECT_EQ(result.asString(), "\xff\xfe");
}

// --- the write callback

TEST(ApiWriteCallback, AppendsEveryByte) {
  std::string body = "a";
  char data[] = {'b', '\0', 'c', 'd', 'e', 'f'};
  EXPECT_EQ(apiWriteCallback(data, 2, 3, &body), 6U);
  EXPECT_EQ(body, std::string("ab\0cdef", 7));
  EXPECT_EQ(apiWriteCallback(data, 1, 1, &body), 1U);
  EXPECT_EQ(body, std::string("ab\0cdefb", 8));
}

TEST(ApiWriteCallback, TakesNothingOfNothing) {
  std::string body = "a";
  char data[] = {'b'};
  EXPECT_EQ(apiWriteCallback(data, 1, 0, &body), 0U);
  EXPECT_EQ(body, "a");
}

TEST(ApiWriteCallback, EndsTheTransferWithoutABody) {
  char data[] = {'b'};
  EXPECT_EQ(apiWriteCallback(data, 1, 1, nullptr), 0U);
}

// --- what is asked for

TEST(ApiUrls, NameTheLocalHost) {
  EXPECT_STREQ(wansUrl, "http://localhost/api/waninfo/wans");
  EXPECT_STREQ(tunnelsUrl, "http://localhost/api?fields=greTunnels,ipsecTunnels");
}

}  // namespace
}  // namespace tunnel_mngr
