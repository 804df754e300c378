#include "quorvi/bench_table.hpp"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace marsk_quorvi::cli {

namespace {

std::vector<std::string> split_tabs(std::string_view line) {
  std::vector<std::string> out;
  std::size_t start = 0;
  while (true) {
    const auto tab = line.find('\t', start);
    out.emplace_back(line.substr(start, tab == std::string_view::npos ? std::string_view::npos : tab - start));
    if (tab == std::string_view::npos) return out;
    start = tab + 1;
  }
}

std::optional<double> number(std::string_view text) {
  std::string s(text);
  char* end = nullptr;
  const double v = std::strtod(s.c_str(), &end);
  if (end == s.c_str()) return std::nullopt;
  return v;
}

// Display width of UTF-8 text: code points, not bytes ("≤" is one column).
std::size_t width(const std::string& s) {
  return static_cast<std::size_t>(std::count_if(s.begin(), s.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

}  // namespace

std::optional<BenchRow> parse_bench_line(std::string_view line, std::string_view source) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  auto f = split_tabs(line);
  if (f.size() != 8 || f[0] != "BENCH" || f[1].empty()) return std::nullopt;
  return BenchRow{std::string(source), f[1], f[2], f[3], f[4], f[5], f[6], f[7]};
}

std::string verdict(const BenchRow& row) {
  const auto ratio = number(row.ratio);
  if (!ratio) return "";
  static const std::array<std::pair<std::string_view, std::string_view>, 6> ops{{
      {"<=", "<="}, {">=", ">="}, {"\u2264", "<="}, {"\u2265", ">="}, {"<", "<"}, {">", ">"}}};
  for (const auto& [token, op] : ops) {
    const auto at = row.target.find(token);
    if (at == std::string::npos) continue;
    const auto bound = number(std::string_view(row.target).substr(at + token.size()));
    if (!bound) return "";
    bool ok = op == "<=" ? *ratio <= *bound : op == ">=" ? *ratio >= *bound : op == "<" ? *ratio < *bound : *ratio > *bound;
    return ok ? "met" : "missed";
  }
  return "";
}

std::string format_table(const std::vector<BenchRow>& rows) {
  std::vector<std::array<std::string, 7>> cells;
  cells.push_back({"figure", "value", "peer", "peer value", "ratio", "target", "verdict"});
  for (const auto& r : rows) {
    cells.push_back({r.figure, r.value + (r.unit.empty() ? "" : " " + r.unit), r.peer,
                     r.peer == "-" ? "-" : r.peer_value + (r.unit.empty() ? "" : " " + r.unit), r.ratio, r.target,
                     verdict(r)});
  }
  std::array<std::size_t, 7> widths{};
  for (const auto& row : cells) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
  }
  std::string out;
  for (std::size_t r = 0; r < cells.size(); ++r) {
    std::string line;
    for (std::size_t i = 0; i < cells[r].size(); ++i) {
      line += cells[r][i];
      if (i + 1 < cells[r].size()) line += std::string(widths[i] - width(cells[r][i]) + 2, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out += line + "\n";
    if (r == 0) {
      std::size_t total = 0;
      for (auto w : widths) total += w + 2;
      out += std::string(total - 2, '-') + "\n";
    }
  }
  return out;
}

}  // namespace marsk_quorvi::cli
