#pragma once

#include <netdb.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

/// Answers the resolver's `gethostbyname_r` and `realloc` in place of the C library.
///
/// A look-up adds "lookup HOST" to the trace; with traceBuffers it is "lookup HOST 256", and
/// "realloc 256" for each growth of its buffer.
namespace fake {

/// One answer of the name service.
struct Lookup {
  std::vector<std::string> addresses;
  int family = AF_INET;
  int hostError = 0;
  /// What `gethostbyname_r` returns.
  int result = 0;
  /// Buffers below this size are refused with ERANGE; the answer waits for a larger one.
  std::size_t space = 0;
};

Lookup resolved(const std::vector<std::string>& addresses);
Lookup failed(int hostError);

/// Forgets answers and settings. fake::reset() does not do that.
void resetLookups();

/// Answers the next look-up of any name. When none is left, the last answer stays.
void scriptLookup(const Lookup& answer);

/// Refuses the growth of a look-up's buffer to this size; 0 refuses none.
extern std::size_t refusedGrowth;

/// Called, after the entry is written, by every look-up.
extern std::function<void()> onLookup;

extern bool traceBuffers;

/// Off for tests with several threads: the trace belongs to one.
extern bool traceLookups;

}  // namespace fake
