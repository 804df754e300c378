// QUORVI_DB_READERS sizes the read pool: a value out of range would open hundreds of connections.
#include <algorithm>
#include <iterator>

#include "fuzz_support.hpp"
#include "storage/database_impl.hpp"

namespace st = marsk_quorvi::storage;

// Blanks, a sign and digits give the number clamped to 0..32 (read as text: no overflow), all else 6.
static int expected(std::string_view raw) {
  const auto first = raw.find_first_not_of(" \t\n\r\v\f");
  if (first == std::string_view::npos) return st::detail::kDefaultReaders;
  std::string_view v = raw.substr(first, raw.find_last_not_of(" \t\n\r\v\f") - first + 1);
  const bool negative = v.front() == '-';
  if (v.front() == '+' || negative) v.remove_prefix(1);
  if (v.empty() || v.find_first_not_of("0123456789") != std::string_view::npos) return st::detail::kDefaultReaders;
  v.remove_prefix(std::min(v.size(), v.find_first_not_of('0')));
  if (v.empty() || negative) return 0;
  return v.size() > 2 ? st::detail::kMaxReaders : std::min(std::stoi(std::string(v)), st::detail::kMaxReaders);
}
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A value, as the environment holds it, ends at its first NUL.
  const std::string raw(reinterpret_cast<const char*>(data), std::find(data, data + size, 0) - data);
  const int n = st::detail::_parse_reader_count(raw.c_str());
  FUZZ_CHECK(n >= 0 && n <= st::detail::kMaxReaders);
  FUZZ_CHECK(n == expected(raw));
  // Its digits alone give their value up to the bound, whatever sign and blanks.
  std::string digits;
  std::copy_if(raw.begin(), raw.end(), std::back_inserter(digits), [](char c) { return c >= '0' && c <= '9'; });
  const int plain = st::detail::_parse_reader_count(digits.c_str());
  FUZZ_CHECK(plain == expected(digits));
  FUZZ_CHECK(digits.empty() || st::detail::_parse_reader_count(("-" + digits).c_str()) == 0);
  FUZZ_CHECK(st::detail::_parse_reader_count((" +" + digits + "\t").c_str()) == plain);
  FUZZ_CHECK(st::detail::_parse_reader_count(nullptr) == st::detail::kDefaultReaders);
  return 0;
}
