// ASCII text helpers shared by the storage sources. SQL keywords, pragma
// answers and SQLite's messages are ASCII; locale-dependent <cctype> calls
// would make their handling depend on the host's locale.
#pragma once

#include <string>
#include <string_view>

namespace marsk_quorvi::storage::detail {

constexpr bool is_ascii_space(char c) noexcept {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}
constexpr char ascii_lower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
constexpr char ascii_upper(char c) noexcept { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

inline std::string ascii_lower(std::string_view s) {
  std::string out(s);
  for (auto& c : out) c = ascii_lower(c);
  return out;
}

inline std::string ascii_upper(std::string_view s) {
  std::string out(s);
  for (auto& c : out) c = ascii_upper(c);
  return out;
}

constexpr bool iequals(std::string_view a, std::string_view b) noexcept {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (ascii_lower(a[i]) != ascii_lower(b[i])) return false;
  }
  return true;
}

constexpr std::string_view strip(std::string_view s) noexcept {
  while (!s.empty() && is_ascii_space(s.front())) s.remove_prefix(1);
  while (!s.empty() && is_ascii_space(s.back())) s.remove_suffix(1);
  return s;
}

}  // namespace marsk_quorvi::storage::detail
