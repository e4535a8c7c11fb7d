#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

/// What every benchmark needs: a clock, a median, and a line of the result.
///
/// What has a limit is a ratio of two measures of one run, taken in turns, so that whatever
/// else the machine does meets both.
namespace bench {

/// @return the seconds that the work takes, on the monotonic clock.
template <typename Work>
double secondsOf(const Work& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// @return the middle value; of an even number the upper one. There must be a value.
double median(std::vector<double> values);

/// What one long list costs in terms of many short ones with the same content: 1 when the
/// cost grows with the number alone. Both go through the same memory, so that the caches
/// make no difference.
///
/// @param seconds  Takes a length and returns what the whole content costs in lists of it.
template <typename Seconds>
double growth(std::size_t shortLength, std::size_t longLength, const Seconds& seconds) {
  constexpr std::size_t roundCount = 7;
  std::vector<double> ratios;
  for (std::size_t round = 0; round < roundCount; ++round) {
    const double inShort = seconds(shortLength);
    ratios.push_back(seconds(longLength) / inShort);
  }
  return median(ratios);
}

/// Prints one line for the table.
/// @param limit  The most that the value may be, as the table shows it.
void report(const std::string& measure, double value, const std::string& limit);

/// Ends the benchmark with a message when what it is to measure did not happen.
void require(bool condition, const char* message);

}  // namespace bench
