#include "log.hpp"

#include <algorithm>
#include <iterator>

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include "marsk_quorvi/errors.hpp"

namespace marsk_quorvi::storage {

std::shared_ptr<spdlog::logger> database_logger() {
  static const std::shared_ptr<spdlog::logger> logger = [] {
    if (auto existing = spdlog::get(LOGGER_NAME)) return existing;
    auto created = std::make_shared<spdlog::logger>(LOGGER_NAME, std::make_shared<spdlog::sinks::stderr_sink_mt>());
    created->set_level(spdlog::level::warn);
    created->set_pattern("%Y-%m-%d %H:%M:%S %l %n: %v");
    spdlog::register_logger(created);
    return created;
  }();
  return logger;
}

namespace detail {

namespace {

// Decodes one UTF-8 code point at `i`; returns false for an invalid sequence.
bool decode(std::string_view s, std::size_t& i, char32_t& cp) {
  const auto b0 = static_cast<unsigned char>(s[i]);
  int len = b0 < 0x80 ? 1 : (b0 >> 5) == 0x6 ? 2 : (b0 >> 4) == 0xe ? 3 : (b0 >> 3) == 0x1e ? 4 : 0;
  if (len == 0 || i + static_cast<std::size_t>(len) > s.size()) return false;
  cp = len == 1 ? b0 : len == 2 ? (b0 & 0x1f) : len == 3 ? (b0 & 0x0f) : (b0 & 0x07);
  for (int k = 1; k < len; ++k) {
    const auto b = static_cast<unsigned char>(s[i + static_cast<std::size_t>(k)]);
    if ((b >> 6) != 0x2) return false;
    cp = (cp << 6) | (b & 0x3f);
  }
  static constexpr char32_t min_for_len[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < min_for_len[len] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return false;
  i += static_cast<std::size_t>(len);
  return true;
}

// What Python's str.isprintable() accepts, so that a bidi override, an
// invisible format character or an unassigned code point never reaches a log
// line raw.
#include "unprintable_ranges.inc"

// Most logged text is ASCII, whose only unprintable characters are the C0
// controls and DEL; the table must agree. Its first range starting at 0 also
// gives every code point a range at or before it.
static_assert(unprintable_ranges[0][0] == 0 && unprintable_ranges[0][1] == 0x1f && unprintable_ranges[1][0] == 0x7f);

bool printable(char32_t cp) {
  if (cp < 0x80) return cp >= 0x20 && cp != 0x7f;
  const auto* after = std::upper_bound(std::begin(unprintable_ranges), std::end(unprintable_ranges), cp,
                                       [](char32_t c, const auto& range) { return c < range[0]; });
  return cp > (*std::prev(after))[1];
}

}  // namespace

std::string quoted_repr(std::string_view text) {
  const bool has_single = text.find('\'') != std::string_view::npos;
  const bool has_double = text.find('"') != std::string_view::npos;
  const char quote = has_single && !has_double ? '"' : '\'';
  std::string out;
  out.reserve(text.size() + 2);
  out.push_back(quote);
  std::size_t i = 0;
  while (i < text.size()) {
    const std::size_t start = i;
    char32_t cp = 0;
    if (!decode(text, i, cp)) {
      // A stray byte is not a character. "\\x85" would read the same as the
      // control character U+0085, so it is shown as the lone surrogate that
      // stands for it (U+DC00 + byte), which valid text can never contain.
      out += fmt::format("\\udc{:02x}", static_cast<unsigned char>(text[i]));
      ++i;
      continue;
    }
    if (cp == '\\' || cp == static_cast<char32_t>(quote)) {
      out.push_back('\\');
      out.push_back(static_cast<char>(cp));
    } else if (cp == '\n') {
      out += "\\n";
    } else if (cp == '\t') {
      out += "\\t";
    } else if (cp == '\r') {
      out += "\\r";
    } else if (printable(cp)) {
      out.append(text.substr(start, i - start));
    } else if (cp <= 0xff) {
      out += fmt::format("\\x{:02x}", static_cast<unsigned>(cp));
    } else if (cp <= 0xffff) {
      out += fmt::format("\\u{:04x}", static_cast<unsigned>(cp));
    } else {
      out += fmt::format("\\U{:08x}", static_cast<unsigned>(cp));
    }
  }
  out.push_back(quote);
  return out;
}

std::string describe_exception(std::exception_ptr error) {
  if (!error) return "";
  try {
    std::rethrow_exception(error);
  } catch (const QuorviError& e) {
    return std::string(e.kind()) + ": " + e.what();
  } catch (const std::exception& e) {
    return std::string("std::exception: ") + e.what();
  } catch (...) {
    return "unknown exception";
  }
}

void log_swallowed(const char* what) noexcept {
  try {
    log(spdlog::level::debug, "Ignored a failure while %s\n%s", what, describe_exception(std::current_exception()));
  } catch (...) {
    // Not even the log line could be made; there is nothing left to report to.
  }
}

}  // namespace detail
}  // namespace marsk_quorvi::storage
