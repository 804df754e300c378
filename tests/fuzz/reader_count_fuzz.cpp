// QUORVI_DB_READERS sizes the read pool; a value out of range would open
// hundreds of connections or none by accident. Properties: the result is
// always within 0.._MAX_READERS; a value with optional blanks, an optional
// sign and decimal digits gives that number clamped (a negative one 0, a
// long one _MAX_READERS, leading zeros harmless); any other value gives
// _DEFAULT_READERS; and reader_count() reads the variable the same way.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"
#include "storage/database_impl.hpp"

namespace {

namespace st = marsk_quorvi::storage;

constexpr std::string_view kSpace = " \t\n\r\v\f";

// Within the reserved capacity, so the environment's pointer stays valid.
constexpr std::size_t kMaxEnvValue = 8192;

// The expected size, computed from the digits as text so that no integer
// type can overflow.
int expected(std::string_view raw) {
  const auto first = raw.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return st::detail::kDefaultReaders;
  std::string_view v = raw.substr(first, raw.find_last_not_of(kSpace) - first + 1);
  bool negative = false;
  if (v.front() == '+' || v.front() == '-') {
    negative = v.front() == '-';
    v.remove_prefix(1);
  }
  if (v.empty() || v.find_first_not_of("0123456789") != std::string_view::npos) return st::detail::kDefaultReaders;
  const auto nonzero = v.find_first_not_of('0');
  if (nonzero == std::string_view::npos || negative) return 0;
  const std::string_view digits = v.substr(nonzero);
  if (digits.size() > 2) return st::detail::kMaxReaders;
  const int n = std::stoi(std::string(digits));
  return n > st::detail::kMaxReaders ? st::detail::kMaxReaders : n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An environment value ends at its first NUL.
  std::string raw(reinterpret_cast<const char*>(data), size);
  raw.resize(raw.find('\0') == std::string::npos ? raw.size() : raw.find('\0'));

  const int n = st::detail::_parse_reader_count(raw.c_str());
  FUZZ_CHECK(n >= 0 && n <= st::detail::kMaxReaders);
  FUZZ_CHECK(n == expected(raw));
  FUZZ_CHECK(st::detail::_parse_reader_count(nullptr) == st::detail::kDefaultReaders);

  // Plain digits give their decimal value up to the bound.
  std::string digits;
  for (char c : raw) {
    if (c >= '0' && c <= '9') digits.push_back(c);
  }
  if (!digits.empty()) {
    const int plain = st::detail::_parse_reader_count(digits.c_str());
    const auto significant = digits.find_first_not_of('0');
    if (significant == std::string::npos) {
      FUZZ_CHECK(plain == 0);
    } else if (digits.size() - significant <= 2) {
      FUZZ_CHECK(plain == std::min(std::stoi(digits.substr(significant)), st::detail::kMaxReaders));
    } else {
      FUZZ_CHECK(plain == st::detail::kMaxReaders);
    }
    FUZZ_CHECK(st::detail::_parse_reader_count(("-" + digits).c_str()) == 0);
    FUZZ_CHECK(st::detail::_parse_reader_count((" +" + digits + "\t").c_str()) == plain);
  }

  // glibc's setenv keeps every value it was ever given, so millions of
  // inputs would exhaust memory; one entry owned here is rewritten instead.
  static std::string entry = [] {
    std::string e = std::string(st::detail::kReadersEnv) + "=";
    e.reserve(e.size() + kMaxEnvValue + 1);
    return e;
  }();
  if (raw.size() <= kMaxEnvValue) {
    entry.resize(std::string_view(st::detail::kReadersEnv).size() + 1);
    entry += raw;
    ::putenv(entry.data());
    FUZZ_CHECK(st::reader_count() == n);
    ::unsetenv(st::detail::kReadersEnv);
    FUZZ_CHECK(st::reader_count() == st::detail::kDefaultReaders);
  }
  return 0;
}
