// The quoted form ("%r") puts stored text into log lines, where a raw
// control character or a broken byte sequence would corrupt the log or the
// terminal that shows it. Properties of `detail::quoted_repr` on any bytes:
// the result is enclosed in the quote character the rule picks, is valid
// UTF-8 without control characters, and decodes back to exactly the input;
// and `detail::log` puts that text into the line unchanged, whatever '%'
// signs it holds, and formats nothing below the logger's level.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"
#include "storage/log.hpp"

namespace {

namespace st = marsk_quorvi::storage;
using marsk_quorvi::fuzz::captured_log;

// Strict UTF-8: no overlong forms, no surrogates, nothing past U+10FFFF.
// Calls `visit` with each code point; false at the first invalid sequence.
template <class Visit>
bool each_code_point(std::string_view s, Visit&& visit) {
  std::size_t i = 0;
  while (i < s.size()) {
    const auto b0 = static_cast<unsigned char>(s[i]);
    std::size_t len = 0;
    char32_t cp = 0;
    if (b0 < 0x80) {
      len = 1, cp = b0;
    } else if (b0 >= 0xc2 && b0 <= 0xdf) {
      len = 2, cp = b0 & 0x1f;
    } else if (b0 >= 0xe0 && b0 <= 0xef) {
      len = 3, cp = b0 & 0x0f;
    } else if (b0 >= 0xf0 && b0 <= 0xf4) {
      len = 4, cp = b0 & 0x07;
    } else {
      return false;
    }
    if (i + len > s.size()) return false;
    for (std::size_t k = 1; k < len; ++k) {
      const auto b = static_cast<unsigned char>(s[i + k]);
      if ((b & 0xc0) != 0x80) return false;
      cp = (cp << 6) | (b & 0x3f);
    }
    if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10ffff))) return false;
    if (cp >= 0xd800 && cp <= 0xdfff) return false;
    visit(cp);
    i += len;
  }
  return true;
}

void append_utf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xc0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xe0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3f)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
  } else {
    out.push_back(static_cast<char>(0xf0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3f)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3f)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
  }
}

std::optional<char32_t> hex(std::string_view s, std::size_t& i, std::size_t digits) {
  if (i + digits > s.size()) return std::nullopt;
  char32_t v = 0;
  for (std::size_t k = 0; k < digits; ++k) {
    const char c = s[i + k];
    // Lower-case digits only: one text has one quoted form.
    const int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (d < 0) return std::nullopt;
    v = v * 16 + static_cast<char32_t>(d);
  }
  i += digits;
  return v;
}

// Reads a quoted form back into the bytes it stands for; none when it is
// not one. A stray byte (not part of valid UTF-8) is shown as the lone
// surrogate U+DC00 + byte, which valid text can never hold.
std::optional<std::string> unquote(std::string_view q) {
  if (q.size() < 2 || q.front() != q.back() || (q.front() != '\'' && q.front() != '"')) return std::nullopt;
  const char quote = q.front();
  const std::string_view body = q.substr(1, q.size() - 2);
  std::string out;
  std::size_t i = 0;
  while (i < body.size()) {
    const char c = body[i++];
    if (c == quote) return std::nullopt;  // an unescaped quote ends the form early
    if (c != '\\') {
      out.push_back(c);
      continue;
    }
    if (i == body.size()) return std::nullopt;  // the closing quote was escaped
    const char e = body[i++];
    std::optional<char32_t> cp;
    switch (e) {
      case '\\': out.push_back('\\'); continue;
      case 'n': out.push_back('\n'); continue;
      case 't': out.push_back('\t'); continue;
      case 'r': out.push_back('\r'); continue;
      case 'x': cp = hex(body, i, 2); break;
      case 'u': cp = hex(body, i, 4); break;
      case 'U': cp = hex(body, i, 8); break;
      default:
        if (e != quote) return std::nullopt;
        out.push_back(quote);
        continue;
    }
    if (!cp || *cp > 0x10ffff) return std::nullopt;
    if (*cp >= 0xdc80 && *cp <= 0xdcff) {
      out.push_back(static_cast<char>(*cp - 0xdc00));
    } else if (*cp >= 0xd800 && *cp <= 0xdfff) {
      return std::nullopt;
    } else {
      append_utf8(out, *cp);
    }
  }
  return out;
}

bool shows_badly(char32_t cp) {
  return cp < 0x20 || (cp >= 0x7f && cp <= 0x9f) || cp == 0x2028 || cp == 0x2029;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string q = st::detail::quoted_repr(text);

  const bool single = text.find('\'') != std::string::npos;
  const bool dbl = text.find('"') != std::string::npos;
  const char quote = single && !dbl ? '"' : '\'';
  FUZZ_CHECK(q.size() >= 2 && q.front() == quote && q.back() == quote);
  bool clean = true;
  FUZZ_CHECK(each_code_point(q, [&](char32_t cp) { clean = clean && !shows_badly(cp); }));
  FUZZ_CHECK(clean);
  const auto back = unquote(q);
  FUZZ_CHECK(back.has_value());
  FUZZ_CHECK(*back == text);
  FUZZ_CHECK(st::detail::quoted_repr(text) == q);

  // The line carries the quoted text as it is; '%' inside it is not a format.
  auto& log = captured_log();
  st::detail::log(spdlog::level::warn, "Extractor stamp %s has %d members", q, static_cast<int>(size));
  st::detail::log(spdlog::level::info, "%s", text);
  FUZZ_CHECK(log.records.size() == 2);
  FUZZ_CHECK(log.records[0].first == spdlog::level::warn);
  FUZZ_CHECK(log.records[0].second == "Extractor stamp " + q + " has " + std::to_string(size) + " members");
  FUZZ_CHECK(log.records[1].second == text);

  auto logger = st::database_logger();
  logger->set_level(spdlog::level::warn);
  st::detail::log(spdlog::level::debug, "%s", q);
  logger->set_level(spdlog::level::trace);
  FUZZ_CHECK(log.records.size() == 2);
  return 0;
}
