// The checking macros would stand in the way of these definitions.
#define CURL_DISABLE_TYPECHECK

#include "api/fake_curl.hpp"

#include "fake/fake_platform.hpp"

#include <cstdarg>
#include <deque>
#include <memory>

#undef curl_easy_setopt

// libcurl's prototype ends its named parameters with an enumeration.
#pragma GCC diagnostic ignored "-Wvarargs"

namespace fake {

namespace {

struct Request {
  std::string url;
  curl_write_callback write = nullptr;
  void* body = nullptr;
};

std::deque<std::vector<std::string>> replies;
CURLcode transferFailure = CURLE_OK;
CURLoption refusedOption = CURLOPT_LASTENTRY;
CURLcode refusal = CURLE_OK;
bool handlesRefused = false;
curl_write_callback writeFunction = nullptr;

void recordCall(const std::string& call) {
  if (curlTrace == CurlTrace::calls) {
    record(call);
  }
}

/// Replies are read without being changed when several threads ask.
std::vector<std::string> nextReply() {
  std::vector<std::string> reply = replies.front();
  if (replies.size() > 1) {
    replies.pop_front();
  }
  return reply;
}

std::string readText(va_list& values) {
  return va_arg(values, const char*);
}

/// Reads one option's value with the type that libcurl expects of it.
/// @return how the trace names option and value.
std::string setOption(Request& request, CURLoption option, va_list& values) {
  switch (option) {
    case CURLOPT_UNIX_SOCKET_PATH:
      return "UNIX_SOCKET_PATH " + readText(values);
    case CURLOPT_URL:
      request.url = readText(values);
      return "URL " + request.url;
    case CURLOPT_HEADER:
      return "HEADER " + std::to_string(va_arg(values, long));
    case CURLOPT_FOLLOWLOCATION:
      return "FOLLOWLOCATION " + std::to_string(va_arg(values, long));
    case CURLOPT_WRITEFUNCTION:
      request.write = va_arg(values, curl_write_callback);
      return "WRITEFUNCTION";
    case CURLOPT_WRITEDATA:
      request.body = va_arg(values, void*);
      return "WRITEDATA";
    default:
      return "option " + std::to_string(option);
  }
}

CURLcode perform(const Request& request) {
  if (curlTrace == CurlTrace::requests) {
    record("get " + request.url);
  }
  if (transferFailure != CURLE_OK) {
    return transferFailure;
  }
  for (std::string& piece : nextReply()) {
    if (request.write(&piece[0], 1, piece.size(), request.body) != piece.size()) {
      return CURLE_WRITE_ERROR;
    }
  }
  return CURLE_OK;
}

}  // namespace

CurlTrace curlTrace = CurlTrace::requests;

void resetCurl() {
  replies.clear();
  transferFailure = CURLE_OK;
  refusedOption = CURLOPT_LASTENTRY;
  handlesRefused = false;
  curlTrace = CurlTrace::requests;
}

void scriptReply(const std::vector<std::string>& pieces) {
  replies.push_back(pieces);
}

void scriptReply(const char* body) {
  replies.push_back({body});
}

void failTransfers(CURLcode code) {
  transferFailure = code;
}

void refuseOption(CURLoption option, CURLcode code) {
  refusedOption = option;
  refusal = code;
}

void refuseHandles() {
  handlesRefused = true;
}

curl_write_callback lastWriteFunction() {
  return writeFunction;
}

}  // namespace fake

extern "C" {

CURL* curl_easy_init() {
  fake::recordCall("curl_easy_init");
  return fake::handlesRefused ? nullptr : new fake::Request;
}

CURLcode curl_easy_setopt(CURL* curl, CURLoption option, ...) {
  auto& request = *static_cast<fake::Request*>(curl);
  va_list values;
  va_start(values, option);
  const std::string text = fake::setOption(request, option, values);
  va_end(values);
  fake::recordCall("curl_easy_setopt " + text);
  if (option == CURLOPT_WRITEFUNCTION && fake::curlTrace == fake::CurlTrace::calls) {
    fake::writeFunction = request.write;
  }
  return option == fake::refusedOption ? fake::refusal : CURLE_OK;
}

CURLcode curl_easy_perform(CURL* curl) {
  fake::recordCall("curl_easy_perform");
  return fake::perform(*static_cast<fake::Request*>(curl));
}

void curl_easy_cleanup(CURL* curl) {
  fake::recordCall("curl_easy_cleanup");
  delete static_cast<fake::Request*>(curl);
}

const char* curl_easy_strerror(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_CONNECT:
      return "no connection";
    case CURLE_WRITE_ERROR:
      return "write error";
    case CURLE_OUT_OF_MEMORY:
      return "no memory";
    case CURLE_GOT_NOTHING:
      return "no reply";
    default:
      return "another error";
  }
}
}
