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
  std::filesystem::path self;       // this quorvi-db, run for each index
  bool index = true;
  bool verbose = false;  // pass the programs' other output through to `err`
};

// Runs every executable `*_bench` in `bench_dir` (name order), collects
// their result lines, runs the indexing benchmark, and prints the table on
// `out`. False when a program failed or printed no result line (the table
// is printed all the same).
bool run_benchmarks(const BenchOptions& options, std::ostream& out, std::ostream& err);

// Runs `quorvi` (this tool's executable) `index` on `tree` in child
// processes, each timed and its peak RSS read from wait4, and reports
// against peers measured in the same run: the wall time against Universal
// Ctags alone over the same tree with the same options (one `ctags -R`),
// and with the default fields the index leaves out;
// the peak RSS against a fixed limit and against the index of half the tree
// (the first half of its files, copied to a scratch folder); a re-index of
// the unchanged tree against the first index, and whether it left the same
// rows (integrity check, row counts); a re-index of the half tree after one
// file changed. Then, in this process over the half tree, the staging build
// as it is made (no journal, no syncs) against the same rows with SQLite's
// safe defaults (a rollback journal, full syncs) and against the bare SQLite
// API.
std::vector<BenchRow> index_benchmark(const std::filesystem::path& tree, const std::filesystem::path& quorvi,
                                      std::ostream& err);

// A row in the format of bench/harness.hpp's report().
BenchRow bench_row(const std::string& source, const std::string& figure, double value, const std::string& unit,
                   const std::string& peer, double peer_value, const std::string& target);

}  // namespace marsk_quorvi::cli
