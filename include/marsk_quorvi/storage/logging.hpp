// The module logger of the storage layer. Its default sink writes warnings
// and above to standard error; a host replaces the sinks or the level.
#pragma once

#include <memory>

#include <spdlog/logger.h>

namespace marsk_quorvi::storage {

inline constexpr const char* LOGGER_NAME = "marsk_quorvi.storage.database";

// Created once and registered with spdlog under LOGGER_NAME.
std::shared_ptr<spdlog::logger> database_logger();

}  // namespace marsk_quorvi::storage
