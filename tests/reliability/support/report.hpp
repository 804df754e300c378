// Figures of the reliability suite: each test appends "key<TAB>value" lines to
// the file named by QUORVI_RELIABILITY_REPORT (when set), and
// scripts/reliability.sh adds them up. O_APPEND keeps lines of several
// processes whole.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>

namespace marsk_quorvi::testing {

inline void report_figure(std::string_view key, std::int64_t value) {
  const char* target = std::getenv("QUORVI_RELIABILITY_REPORT");
  if (target == nullptr || *target == '\0') return;
  const std::string line = std::string(key) + "\t" + std::to_string(value) + "\n";
  const int fd = ::open(target, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  [[maybe_unused]] auto written = ::write(fd, line.data(), line.size());
  ::close(fd);
}

// QUORVI_RELIABILITY_SCALE: "full" runs the long versions, "exhaustive" the
// long ones with every fault point visited (hours); anything else the quick
// ones CI can afford.
inline std::string_view reliability_scale() {
  const char* scale = std::getenv("QUORVI_RELIABILITY_SCALE");
  return scale ? scale : "quick";
}
inline bool exhaustive_scale() { return reliability_scale() == "exhaustive"; }
template <class T>
T scaled(T quick, T full) {
  return exhaustive_scale() || reliability_scale() == "full" ? full : quick;
}

// The seed of a randomised test: QUORVI_CRASH_SEED replays a failed run,
// whose seed the test prints; otherwise a fresh one.
inline std::uint32_t crash_seed() {
  if (const char* fixed = std::getenv("QUORVI_CRASH_SEED")) return static_cast<std::uint32_t>(std::stoul(fixed));
  return std::random_device{}();
}

}  // namespace marsk_quorvi::testing
