// The statement classifier decides which connection runs a query, so a wrong
// answer sends a write to a read-only connection or a read into the writer's
// queue. Properties: the answer is the same on every call; white space ahead
// of the statement or after it and the case of ASCII letters never change
// it; a statement that opens with a comment or a parenthesis is never a read;
// a first word starting with SELECT or WITH always is; and apart from that
// only the bare "PRAGMA user_version" (trailing semicolons allowed) reads.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"
#include "storage/database_impl.hpp"

namespace {

using marsk_quorvi::storage::detail::_is_read_statement;

constexpr std::string_view kSpace = " \t\n\r\v\f";

std::string_view trim(std::string_view s) {
  const auto first = s.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(kSpace) - first + 1);
}

std::string upper(std::string_view s) {
  std::string out(s);
  for (auto& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
  }
  return out;
}

std::string swap_case(std::string_view s) {
  std::string out(s);
  for (auto& c : out) {
    if (c >= 'a' && c <= 'z') {
      c = static_cast<char>(c - 32);
    } else if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c + 32);
    }
  }
  return out;
}

// White space made of the characters the classifier skips, chosen by `seed`.
std::string blanks(std::uint8_t seed) {
  std::string out;
  for (int i = 0; i < 1 + seed % 4; ++i) out.push_back(kSpace[(seed >> (i * 2)) % kSpace.size()]);
  return out;
}

bool opens_read_word(std::string_view sql) {
  const auto first = sql.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return false;
  const std::string head = upper(sql.substr(first, 6));
  return head.starts_with("SELECT") || head.starts_with("WITH");
}

bool bare_user_version(std::string_view sql) {
  std::string_view t = trim(sql);
  const auto last = t.find_last_not_of(';');
  t = last == std::string_view::npos ? std::string_view{} : t.substr(0, last + 1);
  return upper(trim(t)) == "PRAGMA USER_VERSION";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string sql(reinterpret_cast<const char*>(data), size);
  const std::uint8_t seed = size ? data[0] : 0;

  const bool read = _is_read_statement(sql);
  FUZZ_CHECK(_is_read_statement(sql) == read);
  FUZZ_CHECK(read == (opens_read_word(sql) || bare_user_version(sql)));

  FUZZ_CHECK(_is_read_statement(blanks(seed) + sql) == read);
  FUZZ_CHECK(_is_read_statement(sql + blanks(static_cast<std::uint8_t>(seed * 7 + 1))) == read);
  FUZZ_CHECK(_is_read_statement(swap_case(sql)) == read);

  // Neither rule looks past a leading comment or parenthesis.
  for (const char* opener : {"-- note\n", "/* note */ ", "("}) {
    FUZZ_CHECK(!_is_read_statement(blanks(seed) + opener + sql));
  }
  // The first-word rule has no end-of-word test: whatever follows counts.
  FUZZ_CHECK(_is_read_statement(blanks(seed) + "select" + sql));
  FUZZ_CHECK(_is_read_statement("WiTh" + sql));
  return 0;
}
