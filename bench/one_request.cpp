// The least program that does what the daemon does with its libraries: one request with
// libcurl, its reply read by jsoncpp, and then rest. Its memory is the daemon's measure.
#include "api/api_client.hpp"
#include "platform/logger.hpp"

#include <unistd.h>

#include <cstdio>

namespace VEXA {

bool Logger::isPrintable(int /*level*/) {
  return true;
}

void Logger::printfGeneric(int /*level*/, const char* /*label*/, const char* /*format*/, ...) {
  std::fputs("one_request: the request failed\n", stderr);
}

}  // namespace VEXA

int main() {
  Json::Value result;
  if (!tunnel_mngr::apiGet(tunnel_mngr::tunnelsUrl, result)) {
    return 1;
  }
  std::puts("done");
  std::fflush(stdout);
  pause();
  return 0;
}
