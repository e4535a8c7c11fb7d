#pragma once

#include <string>

/// The gateway's API as the OpenVPN room sees it: answers by URL, each request written to
/// the fake platform's trace ("api URL").
namespace scripted_api {

inline constexpr char tunnelsUrl[] = "http://localhost/api?fields=ovpnTunnels";
inline constexpr char syslogUrl[] = "http://localhost/api?fields=syslog";

/// Forgets all answers: every request fails.
void reset();

/// Makes the requests of a URL succeed with this JSON text as "result".
void answer(const std::string& url, const std::string& json);

/// Makes both requests succeed, with these lists of tunnels and level of the log.
void answerTunnels(const std::string& jsonList, int logLevel = 0);

}  // namespace scripted_api
