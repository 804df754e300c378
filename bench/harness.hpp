// A small harness for benchmarks that compare a figure with a peer figure
// measured in the same run. Each result is printed as one tab-separated line
//   BENCH <figure> <value> <unit> <peer> <peer value> <ratio> <target>
// which the benchmark table runner collects; anything else a benchmark
// prints is for people.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace marsk_quorvi::bench {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// One row of the table. `peer` may be empty when a figure has no peer; the
// ratio is then printed as "-".
inline void report(const std::string& figure, double value, const std::string& unit, const std::string& peer,
                   double peer_value, const std::string& target) {
  std::string ratio = "-";
  if (!peer.empty() && peer_value > 0) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", value / peer_value);
    ratio = buf;
  }
  std::printf("BENCH\t%s\t%.6g\t%s\t%s\t%.6g\t%s\t%s\n", figure.c_str(), value, unit.c_str(),
              peer.empty() ? "-" : peer.c_str(), peer_value, ratio.c_str(), target.c_str());
  std::fflush(stdout);
}

// The q-quantile (0..1) of `samples` (sorted in place).
inline double quantile(std::vector<double>& samples, double q) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const auto i = static_cast<std::size_t>(q * static_cast<double>(samples.size() - 1) + 0.5);
  return samples[std::min(i, samples.size() - 1)];
}

}  // namespace marsk_quorvi::bench
