#include "monitor/fake_lookup.hpp"

#include "fake/fake_platform.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>

namespace fake {

namespace {

std::deque<Lookup> lookups;

/// Where the next part of an answer goes; everything lies in the caller's buffer, as it
/// does with the C library.
class Buffer {
 public:
  explicit Buffer(char* start) : next(start) {}

  template <typename T>
  T* take(std::size_t count) {
    T* const taken = new (next) T[count];
    next += sizeof(T) * count;
    return taken;
  }

 private:
  char* next;
};

void fillEntry(const Lookup& answer, hostent& entry, char* buffer) {
  Buffer space(buffer);
  const std::size_t count = answer.addresses.size();
  entry = hostent();
  entry.h_addrtype = answer.family;
  entry.h_length = answer.family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  entry.h_addr_list = space.take<char*>(count + 1);
  for (std::size_t i = 0; i < count; ++i) {
    entry.h_addr_list[i] = space.take<char>(static_cast<std::size_t>(entry.h_length));
    inet_pton(answer.family, answer.addresses[i].c_str(), entry.h_addr_list[i]);
  }
  entry.h_addr_list[count] = nullptr;
}

/// Scripts are read without being changed when several threads look names up.
const Lookup& nextLookup() {
  static Lookup current;
  if (lookups.size() > 1) {
    current = lookups.front();
    lookups.pop_front();
    return current;
  }
  return lookups.front();
}

int lookUp(const char* name, hostent* entry, char* buffer, std::size_t size, hostent** result,
           int* hostError) {
  if (traceLookups) {
    record(std::string("lookup ") + name + (traceBuffers ? " " + std::to_string(size) : ""));
  }
  *result = nullptr;
  if (size < lookups.front().space) {
    *hostError = NETDB_INTERNAL;
    return ERANGE;
  }
  const Lookup& answer = nextLookup();
  if (onLookup) {
    onLookup();
  }
  *hostError = answer.hostError;
  if (!answer.addresses.empty()) {
    fillEntry(answer, *entry, buffer);
    *result = entry;
  }
  return answer.result;
}

}  // namespace

std::size_t refusedGrowth = 0;
std::function<void()> onLookup;
bool traceBuffers = false;
bool traceLookups = true;

Lookup resolved(const std::vector<std::string>& addresses) {
  Lookup answer;
  answer.addresses = addresses;
  return answer;
}

Lookup failed(int hostError) {
  Lookup answer;
  answer.hostError = hostError;
  return answer;
}

void resetLookups() {
  lookups.clear();
  refusedGrowth = 0;
  onLookup = nullptr;
  traceBuffers = false;
  traceLookups = true;
}

void scriptLookup(const Lookup& answer) {
  lookups.push_back(answer);
}

}  // namespace fake

// The linker sends the room's calls here.
// NOLINTBEGIN(bugprone-reserved-identifier): the names that --wrap prescribes.
extern "C" {

void* __real_realloc(void* memory, std::size_t size);
void* __wrap_realloc(void* memory, std::size_t size);
int __wrap_gethostbyname_r(const char* name, hostent* entry, char* buffer, std::size_t size,
                           hostent** result, int* hostError);

void* __wrap_realloc(void* memory, std::size_t size) {
  if (fake::traceBuffers) {
    fake::record("realloc " + std::to_string(size));
  }
  return size == fake::refusedGrowth ? nullptr : __real_realloc(memory, size);
}

int __wrap_gethostbyname_r(const char* name, hostent* entry, char* buffer, std::size_t size,
                           hostent** result, int* hostError) {
  return fake::lookUp(name, entry, buffer, size, result, hostError);
}
}
// NOLINTEND(bugprone-reserved-identifier)
