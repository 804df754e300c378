// QUORVI_DB_READERS sizes the read pool; a value out of range would open
// hundreds of connections or none by accident.
#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"
#include "storage/database_impl.hpp"

namespace st = marsk_quorvi::storage;
using st::detail::_parse_reader_count;

namespace {

// Blanks, a sign and decimal digits give the number clamped to 0.._MAX_READERS
// (read as text, so that no integer overflows); anything else the default.
int expected(std::string_view raw) {
  const auto first = raw.find_first_not_of(" \t\n\r\v\f");
  if (first == std::string_view::npos) return st::detail::kDefaultReaders;
  std::string_view v = raw.substr(first, raw.find_last_not_of(" \t\n\r\v\f") - first + 1);
  const bool negative = v.front() == '-';
  if (v.front() == '+' || negative) v.remove_prefix(1);
  if (v.empty() || v.find_first_not_of("0123456789") != std::string_view::npos) return st::detail::kDefaultReaders;
  const auto significant = v.find_first_not_of('0');
  if (significant == std::string_view::npos || negative) return 0;
  v.remove_prefix(significant);
  return v.size() > 2 ? st::detail::kMaxReaders : std::min(std::stoi(std::string(v)), st::detail::kMaxReaders);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An environment value ends at its first NUL.
  const std::string raw(reinterpret_cast<const char*>(data), std::find(data, data + size, 0) - data);
  const int n = _parse_reader_count(raw.c_str());
  FUZZ_CHECK(n >= 0 && n <= st::detail::kMaxReaders);
  FUZZ_CHECK(n == expected(raw));
  FUZZ_CHECK(_parse_reader_count(nullptr) == st::detail::kDefaultReaders);

  // Plain digits give their decimal value up to the bound, whatever sign and blanks.
  std::string digits;
  for (char c : raw) {
    if (c >= '0' && c <= '9') digits.push_back(c);
  }
  if (!digits.empty()) {
    const auto significant = digits.find_first_not_of('0');
    const int plain = significant == std::string::npos ? 0
                      : digits.size() - significant > 2 ? st::detail::kMaxReaders
                                                         : std::min(std::stoi(digits), st::detail::kMaxReaders);
    FUZZ_CHECK(_parse_reader_count(digits.c_str()) == plain);
    FUZZ_CHECK(_parse_reader_count(("-" + digits).c_str()) == 0);
    FUZZ_CHECK(_parse_reader_count((" +" + digits + "\t").c_str()) == plain);
  }

  // glibc's setenv keeps every value it was ever given, so millions of inputs
  // would exhaust memory; one entry owned here is rewritten instead.
  static std::string entry = std::string(st::detail::kReadersEnv) + "=" + std::string(8192, ' ');
  if (raw.size() <= 8192) {
    entry.replace(entry.find('=') + 1, std::string::npos, raw);
    ::putenv(entry.data());
    FUZZ_CHECK(st::reader_count() == n);
    ::unsetenv(st::detail::kReadersEnv);
    FUZZ_CHECK(st::reader_count() == st::detail::kDefaultReaders);
  }
  return 0;
}
