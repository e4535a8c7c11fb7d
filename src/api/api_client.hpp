#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>

namespace tunnel_mngr {

/// The requests that more than one place knows.
inline constexpr char wansUrl[] = "http://localhost/api/waninfo/wans";
inline constexpr char tunnelsUrl[] = "http://localhost/api?fields=greTunnels,ipsecTunnels";

/// Asks the gateway's local configuration API, over its Unix-domain socket.
///
/// @param result  The reply's "result" member on success, else left as it was.
/// @return true when the reply was strict JSON whose "code" is 200. A failure has been
///         logged at ERROR.
/// @throws Json::Exception when "code" is not an unsigned number.
/// Any thread. Blocks until the API answers: there is no time-out.
bool apiGet(const std::string& url, Json::Value& result);

/// The same without any record: the caller reports failures.
bool apiGetQuiet(const char* url, Json::Value& result);

/// Appends what libcurl received to the request's body.
///
/// @param body  The `std::string` that gathers the reply.
/// @return the bytes taken: all, or 0 without a body, which ends the transfer.
std::size_t apiWriteCallback(char* data, std::size_t size, std::size_t count, void* body);

}  // namespace tunnel_mngr
