#include "monitor/resolver.hpp"

#include "platform/logger.hpp"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

namespace tunnel_mngr {

namespace {

struct Free {
  void operator()(char* memory) const { std::free(memory); }
};
using Buffer = std::unique_ptr<char, Free>;

bool isDottedAddress(const std::string& host) {
  in_addr ignored{};
  return inet_aton(host.c_str(), &ignored) != 0;
}

/// @return false when there is no more memory; the buffer is then as it was.
bool grow(Buffer& buffer, std::size_t size) {
  char* const grown = static_cast<char*>(std::realloc(buffer.get(), size));
  if (grown == nullptr) {
    return false;
  }
  static_cast<void>(buffer.release());
  buffer.reset(grown);
  return true;
}

void reportFailure(const char* host, int reason) {
  switch (reason) {
    case HOST_NOT_FOUND:
      VEXA_LOG(WARNING, "[FQDN_MONITOR] The host [%s] was not found.\n", host);
      break;
    case TRY_AGAIN:
      VEXA_LOG(WARNING,
               "[FQDN_MONITOR] The name server is temporarily unavailable.  Unable to resolve "
               "[%s]",
               host);
      break;
    case NO_RECOVERY:
      VEXA_LOG(WARNING,
               "[FQDN_MONITOR] A non-recoverable name server error occurred.  Unable to resolve "
               "[%s]\n",
               host);
      break;
    case NO_DATA:
      VEXA_LOG(WARNING, "[FQDN_MONITOR] The name [%s] is valid but it has no address.\n", host);
      break;
    default:
      break;
  }
}

/// The first address of a found host; it still lies in the look-up's buffer.
std::string firstAddress(const hostent& found) {
  if (found.h_addrtype != AF_INET) {
    VEXA_LOG(ERROR, "[FQDN_MONITOR] The address family is not supported (IPv6)\n");
    return "";
  }
  char text[INET_ADDRSTRLEN];
  // Unlike inet_ntoa this has no buffer that threads might share.
  const char* const address = inet_ntop(AF_INET, found.h_addr_list[0], text, sizeof text);
  return address == nullptr ? "" : address;
}

}  // namespace

std::string resolveHost(const std::string& host) {
  if (isDottedAddress(host)) {
    return host;
  }
  Buffer buffer;
  std::size_t size = 128;
  hostent entry{};
  hostent* result = nullptr;
  int reason = 0;
  int status = 0;
  do {
    size *= 2;
    if (!grow(buffer, size)) {
      VEXA_LOG(ERROR, "[FQDN_MONITOR] gethostbyname: not enough memory.\n");
      return "";
    }
    status = gethostbyname_r(host.c_str(), &entry, buffer.get(), size, &result, &reason);
  } while (status == ERANGE);

  if (result == nullptr) {
    reportFailure(host.c_str(), reason);
    return "";
  }
  return firstAddress(*result);
}

}  // namespace tunnel_mngr
