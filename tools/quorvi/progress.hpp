// A one-line progress display on standard error, shown only when standard
// error is a terminal, so that logs and pipes get no carriage returns.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

namespace marsk_quorvi::cli {

// Seconds on the monotonic clock since `start`.
inline double since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class Progress {
 public:
  explicit Progress(std::FILE* stream = stderr);
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  bool enabled() const noexcept { return enabled_; }
  // Replaces the line; updates closer together than a tenth of a second are
  // dropped unless `force`.
  void show(const std::string& text, bool force = false);
  // Erases the line.
  void clear();

 private:
  std::FILE* stream_;
  bool enabled_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point last_{};
};

}  // namespace marsk_quorvi::cli
