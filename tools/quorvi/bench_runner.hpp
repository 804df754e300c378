// The benchmark table: every benchmark program of the build, plus an
// indexing benchmark of the tool's own, in one run and one table.
#pragma once

#include <filesystem>
#include <ostream>
#include <vector>

#include "quorvi/bench_table.hpp"

namespace marsk_quorvi::cli {

struct BenchOptions {
  std::filesystem::path bench_dir;  // the build's bench/ folder
  std::filesystem::path tree;       // what the indexing benchmark indexes
  bool index = true;
  bool verbose = false;  // pass the programs' other output through to `err`
};

// Runs every executable `*_bench` in `bench_dir` (name order), collects
// their result lines, runs the indexing benchmark, and prints the table on
// `out`. False when a program failed or printed no result line (the table
// is printed all the same).
bool run_benchmarks(const BenchOptions& options, std::ostream& out, std::ostream& err);

// Indexes `tree` into a scratch index and reports each part against a peer
// measured in the same run: walk + extract against Universal Ctags alone
// over the same tree (one `ctags -R`), the staging build against the same
// rows written through the bare SQLite API, and the swap that replaces a
// full index against the swap into an empty one.
std::vector<BenchRow> index_benchmark(const std::filesystem::path& tree, std::ostream& err);

// A row in the format of bench/harness.hpp's report().
BenchRow bench_row(const std::string& source, const std::string& figure, double value, const std::string& unit,
                   const std::string& peer, double peer_value, const std::string& target);

}  // namespace marsk_quorvi::cli
