// Internal: printf-style log lines on the module logger, filled in only when
// the line is written.
#pragma once

#include <exception>
#include <string>
#include <string_view>

#include <fmt/printf.h>
#include <spdlog/logger.h>

#include "marsk_quorvi/storage/logging.hpp"

namespace marsk_quorvi::storage::detail {

template <class... Args>
void log(spdlog::level::level_enum level, const char* format, const Args&... args) {
  const auto& logger = database_logger();
  if (!logger->should_log(level)) return;
  logger->log(level, spdlog::string_view_t(fmt::sprintf(format, args...)));
}

// The quoted form of a text for "%r": single quotes (double quotes when the
// text holds a single quote and no double quote), with backslashes, the quote
// character and non-printable characters escaped. A byte that is not part
// of valid UTF-8 is shown as \udcXX (XX its value), so the quoted form
// always reads back to exactly the bytes it came from.
std::string quoted_repr(std::string_view text);

// "TypeName: message" of the exception being handled, for a log record that
// carries an attached error.
std::string describe_exception(std::exception_ptr error);

// For a destructor's catch handler: logs at DEBUG what `what` raised, which
// the destructor swallows because it must not throw.
void log_swallowed(const char* what) noexcept;

}  // namespace marsk_quorvi::storage::detail
