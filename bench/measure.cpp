#include "bench/measure.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace bench {

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void report(const std::string& measure, double value, const std::string& limit) {
  std::printf("%s\t%.4f\t%s\n", measure.c_str(), value, limit.c_str());
  std::fflush(stdout);
}

void require(bool condition, const char* message) {
  if (!condition) {
    std::fprintf(stderr, "benchmark: %s\n", message);
    std::_Exit(1);
  }
}

}  // namespace bench
