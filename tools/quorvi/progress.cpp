#include "quorvi/progress.hpp"

#include <unistd.h>

namespace marsk_quorvi::cli {

Progress::Progress(std::FILE* stream) : stream_(stream), enabled_(::isatty(::fileno(stream)) == 1) {}

void Progress::show(const std::string& text, bool force) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && shown_ && now - last_ < std::chrono::milliseconds(100)) return;
  last_ = now;
  std::fprintf(stream_, "\r\033[K%s", text.c_str());
  std::fflush(stream_);
  shown_ = true;
}

void Progress::clear() {
  if (!enabled_ || !shown_) return;
  std::fputs("\r\033[K", stream_);
  std::fflush(stream_);
  shown_ = false;
}

}  // namespace marsk_quorvi::cli
