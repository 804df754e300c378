// A property check that aborts (libFuzzer keeps the input as an artifact), and the logger's lines.
#pragma once

#include <spdlog/sinks/ostream_sink.h>

#include <cstdio>
#include <sstream>

#include "marsk_quorvi/storage/logging.hpp"

#define FUZZ_CHECK(cond) \
  ((cond) ? void() : (std::fprintf(stderr, "property violated: %s (%s:%d)\n", #cond, __FILE__, __LINE__), std::abort()))

namespace marsk_quorvi::fuzz {

// The module logger's lines at every level, "LEVEL text\n" each, emptied on each call.
inline std::ostringstream& captured_log() {
  static std::ostringstream lines;
  static const bool installed = [] {
    auto sink = std::make_shared<spdlog::sinks::ostream_sink_st>(lines);
    sink->set_pattern("%l %v");
    storage::database_logger()->sinks() = {sink};
    storage::database_logger()->set_level(spdlog::level::trace);
    return true;
  }();
  lines.str("");
  return lines;
}

}  // namespace marsk_quorvi::fuzz
