// The statement classifier picks a query's connection: a wrong answer sends a write to a read-only
// connection or a read into the writer's queue.
#include "fuzz_support.hpp"
#include "storage/database_impl.hpp"

using marsk_quorvi::storage::detail::_is_read_statement;

namespace {
constexpr std::string_view kSpace = " \t\n\r\v\f";

std::string_view trim(std::string_view s) {
  const auto first = s.find_first_not_of(kSpace);
  return first == std::string_view::npos ? std::string_view{} : s.substr(first, s.find_last_not_of(kSpace) - first + 1);
}
// Upper case, or every ASCII letter's case swapped.
std::string recased(std::string_view s, bool swap) {
  std::string out(s);
  for (auto& c : out) c = c >= 'a' && c <= 'z' ? c - 32 : (swap && c >= 'A' && c <= 'Z') ? c + 32 : c;
  return out;
}

// A read: a first word opening with SELECT or WITH, or the bare "PRAGMA user_version" (and any ';').
bool reads(std::string_view sql) {
  const std::string head = recased(trim(sql).substr(0, 6), false);
  std::string_view bare = trim(sql);
  while (!bare.empty() && bare.back() == ';') bare.remove_suffix(1);
  return head.starts_with("SELECT") || head.starts_with("WITH") || recased(trim(bare), false) == "PRAGMA USER_VERSION";
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string sql(reinterpret_cast<const char*>(data), size);
  const bool read = _is_read_statement(sql);
  FUZZ_CHECK(read == reads(sql));
  // White space and case never change the answer; nothing behind a comment or a parenthesis
  // reads; a read word in front always does.
  std::string blanks;
  for (unsigned i = 0, seed = size ? data[0] : 0; i <= seed % 4; ++i) blanks += kSpace[(seed >> (2 * i)) % kSpace.size()];
  for (const std::string& same : {sql, blanks + sql, sql + blanks, recased(sql, true)}) {
    FUZZ_CHECK(_is_read_statement(same) == read);
  }
  for (const char* opener : {"-- note\n", "/* note */ ", "("}) FUZZ_CHECK(!_is_read_statement(blanks + opener + sql));
  FUZZ_CHECK(_is_read_statement(blanks + "select" + sql) && _is_read_statement("WiTh" + sql));
  return 0;
}
