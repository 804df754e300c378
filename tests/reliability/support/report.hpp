// The reliability suite's figures: "key<TAB>value" lines appended (O_APPEND
// keeps the lines of several processes whole) to $QUORVI_RELIABILITY_REPORT,
// which scripts/reliability.sh adds up.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <string>

namespace marsk_quorvi::testing {

inline void report_figure(const std::string& key, std::int64_t value) {
  const char* target = std::getenv("QUORVI_RELIABILITY_REPORT");
  const int fd = target && *target ? ::open(target, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644) : -1;
  if (fd < 0) return;
  const std::string line = key + "\t" + std::to_string(value) + "\n";
  [[maybe_unused]] auto written = ::write(fd, line.data(), line.size());
  ::close(fd);
}

// QUORVI_RELIABILITY_SCALE "full" runs the long versions, "exhaustive" those
// with every fault point (hours); anything else the quick ones CI affords.
inline std::string scale() {
  const char* scale = std::getenv("QUORVI_RELIABILITY_SCALE");
  return scale ? scale : "";
}
inline bool exhaustive_scale() { return scale() == "exhaustive"; }
template <class T>
T scaled(T quick, T full) {
  return scale() == "full" || exhaustive_scale() ? full : quick;
}

// A randomised test's seed, which it prints: QUORVI_CRASH_SEED replays a run.
inline std::uint32_t crash_seed() {
  const char* fixed = std::getenv("QUORVI_CRASH_SEED");
  return fixed ? static_cast<std::uint32_t>(std::stoul(fixed)) : std::random_device{}();
}

}  // namespace marsk_quorvi::testing
