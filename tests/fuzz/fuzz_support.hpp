// Shared by the fuzz targets: a property check that aborts (libFuzzer then
// keeps the input as a crash artifact) and a sink that records the module
// logger's lines.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>

#include "marsk_quorvi/storage/logging.hpp"

#define FUZZ_CHECK(cond)                                                                      \
  do {                                                                                        \
    if (!(cond)) {                                                                            \
      std::fprintf(stderr, "property violated: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
      std::abort();                                                                           \
    }                                                                                         \
  } while (0)

namespace marsk_quorvi::fuzz {

using LogRecord = std::pair<spdlog::level::level_enum, std::string>;

class CaptureSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  std::vector<LogRecord> records;

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    records.emplace_back(msg.level, std::string(msg.payload.data(), msg.payload.size()));
  }
  void flush_() override {}
};

// The module logger's only sink from the first call on, at every level; its
// records are cleared on each call. One fuzzing thread, so no lock.
inline CaptureSink& captured_log() {
  static const std::shared_ptr<CaptureSink> sink = [] {
    auto created = std::make_shared<CaptureSink>();
    auto logger = storage::database_logger();
    logger->sinks() = {created};
    logger->set_level(spdlog::level::trace);
    return created;
  }();
  sink->records.clear();
  return *sink;
}

}  // namespace marsk_quorvi::fuzz
