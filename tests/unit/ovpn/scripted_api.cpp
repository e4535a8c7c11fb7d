#include "ovpn/scripted_api.hpp"

#include "api/api_client.hpp"
#include "fake/fake_platform.hpp"

#include <map>
#include <sstream>

namespace {

std::map<std::string, std::string> answers;

}  // namespace

namespace scripted_api {

void reset() {
  answers.clear();
}

void answer(const std::string& url, const std::string& json) {
  answers[url] = json;
}

void answerTunnels(const std::string& jsonList, int logLevel) {
  answer(tunnelsUrl, R"({"ovpnTunnels":)" + jsonList + "}");
  answer(syslogUrl, R"({"syslog":{"logLevel":)" + std::to_string(logLevel) + "}}");
}

}  // namespace scripted_api

namespace tunnel_mngr {

bool apiGetQuiet(const char* url, Json::Value& result) {
  fake::record(std::string("api ") + url);
  const auto found = answers.find(url);
  if (found == answers.end()) {
    return false;
  }
  std::istringstream(found->second) >> result;
  return true;
}

}  // namespace tunnel_mngr
