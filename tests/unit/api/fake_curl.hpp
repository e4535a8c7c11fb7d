#pragma once

#include <curl/curl.h>

#include <string>
#include <vector>

/// Answers in place of libcurl and of the API behind it.
///
/// A transfer adds "get URL" to the trace; with CurlTrace::calls every call is there instead:
///
///     curl_easy_init / curl_easy_perform / curl_easy_cleanup
///     curl_easy_setopt URL http://localhost/api
namespace fake {

enum class CurlTrace { nothing, requests, calls };

/// Forgets answers and settings. fake::reset() does not do that.
void resetCurl();

/// Answers the next transfer with this body, given to the write function piece by piece. When
/// none is left, the last answer stays.
void scriptReply(const std::vector<std::string>& pieces);
void scriptReply(const char* body);

/// Makes every transfer fail, every use of an option, or every start.
void failTransfers(CURLcode code);
void refuseOption(CURLoption option, CURLcode code);
void refuseHandles();

/// What the last CURLOPT_WRITEFUNCTION set.
curl_write_callback lastWriteFunction();

extern CurlTrace curlTrace;

}  // namespace fake
