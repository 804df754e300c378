// The benchmark table: the result lines of every benchmark program, one row
// each, with the verdict of its target.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace marsk_quorvi::cli {

// One `BENCH\tfigure\tvalue\tunit\tpeer\tpeer value\tratio\ttarget` line.
struct BenchRow {
  std::string source;  // the program that printed it
  std::string figure;
  std::string value;
  std::string unit;
  std::string peer;
  std::string peer_value;
  std::string ratio;
  std::string target;
};

// The row of a result line, none for any other line.
std::optional<BenchRow> parse_bench_line(std::string_view line, std::string_view source = {});

// "met", "missed" or "" (no target, no ratio, or a target that is not a
// comparison): a target is a comparison of the ratio such as "<= 1.2",
// "ratio < 2", ">= 0.9x" or "≤ 1.5".
std::string verdict(const BenchRow& row);

// The rows as an aligned text table with a header line.
std::string format_table(const std::vector<BenchRow>& rows);

}  // namespace marsk_quorvi::cli
