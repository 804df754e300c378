// Shared by the fuzz targets: a property check that aborts (libFuzzer then
// keeps the input as a crash artifact) and the module logger's lines.
#pragma once

#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "marsk_quorvi/storage/logging.hpp"

#define FUZZ_CHECK(cond) \
  ((cond) ? void() : (std::fprintf(stderr, "property violated: %s (%s:%d)\n", #cond, __FILE__, __LINE__), std::abort()))

namespace marsk_quorvi::fuzz {

using LogRecords = std::vector<std::pair<spdlog::level::level_enum, std::string>>;

// The module logger's records at every level, emptied on each call; its only
// sink from the first call on. One fuzzing thread, so no lock.
inline LogRecords& captured_log() {
  struct Sink : spdlog::sinks::base_sink<spdlog::details::null_mutex> {
    LogRecords records;
    void sink_it_(const spdlog::details::log_msg& m) override {
      records.emplace_back(m.level, std::string(m.payload.begin(), m.payload.end()));
    }
    void flush_() override {}
  };
  static const auto sink = [] {
    auto created = std::make_shared<Sink>();
    storage::database_logger()->sinks() = {created};
    storage::database_logger()->set_level(spdlog::level::trace);
    return created;
  }();
  sink->records.clear();
  return sink->records;
}

}  // namespace marsk_quorvi::fuzz
