// The quoted form ("%r") puts stored text into log lines, where a control character, a bidi
// override or broken UTF-8 would corrupt the log or its terminal: any bytes must come out as
// printable UTF-8 that reads back to exactly the characters they were.
#include <algorithm>
#include <optional>

#include "fuzz_support.hpp"
#include "storage/log.hpp"

namespace {

#include "storage/unprintable_ranges.inc"

namespace st = marsk_quorvi::storage;

// A scan of the whole table, not the library's search, so that each checks the other.
bool unprintable(char32_t cp) {
  return std::any_of(std::begin(unprintable_ranges), std::end(unprintable_ranges),
                     [cp](const auto& range) { return range[0] <= cp && cp <= range[1]; });
}

// Strict UTF-8: the code point at `i`, moving past it; none, `i` unmoved, at an invalid sequence.
std::optional<char32_t> decode(std::string_view s, std::size_t& i) {
  const auto b0 = static_cast<unsigned char>(s[i]);
  const std::size_t len = b0 < 0x80 ? 1 : b0 < 0xc2 ? 0 : b0 <= 0xdf ? 2 : b0 <= 0xef ? 3 : b0 <= 0xf4 ? 4 : 0;
  if (len == 0 || i + len > s.size()) return std::nullopt;
  char32_t cp = len == 1 ? b0 : b0 & (0x7fu >> len);
  for (std::size_t k = 1; k < len; ++k) {
    if ((s[i + k] & 0xc0) != 0x80) return std::nullopt;
    cp = (cp << 6) | (s[i + k] & 0x3f);
  }
  if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) {
    return std::nullopt;
  }
  i += len;
  return cp;
}

// The characters of any bytes, a stray byte as the lone surrogate U+DC00 + its value.
std::u32string characters(std::string_view s) {
  std::u32string out;
  for (std::size_t i = 0; i < s.size();) {
    const auto cp = decode(s, i);
    out.push_back(cp ? *cp : 0xdc00 + static_cast<unsigned char>(s[i++]));
  }
  return out;
}

// The body of a quoted form read back, each raw character and escape checked against the table.
std::u32string read_back(std::string_view body, char quote) {
  std::u32string out;
  for (std::size_t i = 0; i < body.size();) {
    if (body[i] != '\\') {
      const auto cp = decode(body, i);
      FUZZ_CHECK(cp && !unprintable(*cp) && *cp != static_cast<char32_t>(quote));
      out.push_back(*cp);
      continue;
    }
    FUZZ_CHECK(++i < body.size());  // else the closing quote was escaped
    const char e = body[i++];
    const std::size_t digits = e == 'x' ? 2 : e == 'u' ? 4 : e == 'U' ? 8 : 0;
    if (digits == 0) {
      FUZZ_CHECK(e == '\\' || e == quote || e == 'n' || e == 't' || e == 'r');
      out.push_back(e == 'n' ? U'\n' : e == 't' ? U'\t' : e == 'r' ? U'\r' : static_cast<char32_t>(e));
      continue;
    }
    FUZZ_CHECK(i + digits <= body.size());
    char32_t cp = 0;
    for (const char c : body.substr(i, digits)) {
      FUZZ_CHECK((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'));  // lower case only: one text, one form
      cp = cp * 16 + static_cast<char32_t>(c <= '9' ? c - '0' : c - 'a' + 10);
    }
    i += digits;
    // The shortest numeric form, none for a named one; the table holds every surrogate (stray bytes).
    FUZZ_CHECK(unprintable(cp) && digits == (cp <= 0xff ? 2u : cp <= 0xffff ? 4u : 8u));
    FUZZ_CHECK(cp != '\n' && cp != '\t' && cp != '\r');
    out.push_back(cp);
  }
  return out;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string q = st::detail::quoted_repr(text);
  const char quote = text.find('\'') != std::string::npos && text.find('"') == std::string::npos ? '"' : '\'';
  FUZZ_CHECK(q.size() >= 2 && q.front() == quote && q.back() == quote);
  FUZZ_CHECK(read_back(std::string_view(q).substr(1, q.size() - 2), quote) == characters(text));

  // The line carries the quoted text as it is; '%' inside it is not a format.
  auto& log = marsk_quorvi::fuzz::captured_log();
  st::detail::log(spdlog::level::warn, "Extractor stamp %s has %d members", q, static_cast<int>(size));
  st::detail::log(spdlog::level::info, "%s", text);
  FUZZ_CHECK(log.str() ==
             "warning Extractor stamp " + q + " has " + std::to_string(size) + " members\ninfo " + text + "\n");
  return 0;
}
