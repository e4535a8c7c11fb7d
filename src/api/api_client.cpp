#include "api/api_client.hpp"

#include "platform/logger.hpp"

#include <curl/curl.h>

#include <memory>
#include <sstream>

namespace tunnel_mngr {

namespace {

constexpr char apiSocket[] = "/var/run/api/http.sock";
constexpr unsigned codeSuccess = 200;

/// jsoncpp reads nested values by recursion. Its own limit of 1000 levels takes more stack than
/// a monitor's thread has; a reply of the API needs six.
constexpr unsigned deepestNesting = 200;

/// What becomes of a failure's text. It is told while the request is still open.
using Report = void (*)(const std::string& text);

void reportToLog(const std::string& text) {
  VEXA_LOG(ERROR, "%s", text.c_str());
}

void reportToNobody(const std::string&) {}

bool setOptions(CURL* handle, const std::string& url, std::string& body, Report report) {
  const auto accepted = [&](CURLoption option, auto value, const char* name) {
    const CURLcode code = curl_easy_setopt(handle, option, value);
    if (code != CURLE_OK) {
      report(std::string("curl_easy_setopt(") + name + ") failed: " + curl_easy_strerror(code));
    }
    return code == CURLE_OK;
  };
  // One name for the socket and for the URL: to an operator both are the address.
  return accepted(CURLOPT_UNIX_SOCKET_PATH, apiSocket, "CURLOPT_URL") &&
         accepted(CURLOPT_URL, url.c_str(), "CURLOPT_URL") &&
         accepted(CURLOPT_HEADER, 0L, "CURLOPT_HEADER") &&
         accepted(CURLOPT_FOLLOWLOCATION, 0L, "CURLOPT_FOLLOWLOCATION") &&
         accepted(CURLOPT_WRITEFUNCTION, &apiWriteCallback, "CURLOPT_WRITEFUNCTION") &&
         accepted(CURLOPT_WRITEDATA, static_cast<void*>(&body), "CURLOPT_WRITEDATA");
}

bool transfer(const std::string& url, std::string& body, Report report) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(),
                                                                   &curl_easy_cleanup);
  if (!handle) {
    report("Unable to initialize curl.");
    return false;
  }
  if (!setOptions(handle.get(), url, body, report)) {
    return false;
  }
  const CURLcode code = curl_easy_perform(handle.get());
  if (code != CURLE_OK) {
    report(std::string("curl_easy_perform() failed: ") + curl_easy_strerror(code));
  }
  return code == CURLE_OK;
}

bool readEnvelope(const std::string& body, Json::Value& result, Report report) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = deepestNesting;
  std::istringstream stream(body);
  Json::Value root;
  if (!Json::parseFromStream(builder, stream, &root, nullptr)) {
    report("api returned bad json");
    return false;
  }
  const unsigned code = root["code"].asUInt();
  if (code != codeSuccess) {
    report("api returned error code [" + std::to_string(static_cast<int>(code)) + "]");
    return false;
  }
  result = root["result"];
  return true;
}

bool request(const std::string& url, Json::Value& result, Report report) {
  std::string body;
  return transfer(url, body, report) && readEnvelope(body, result, report);
}

}  // namespace

bool apiGet(const std::string& url, Json::Value& result) {
  return request(url, result, reportToLog);
}

bool apiGetQuiet(const char* url, Json::Value& result) {
  return request(url, result, reportToNobody);
}

std::size_t apiWriteCallback(char* data, std::size_t size, std::size_t count, void* body) {
  if (body == nullptr) {
    return 0;
  }
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

}  // namespace tunnel_mngr
