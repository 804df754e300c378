// Globs with ten `**` pieces against a path of 80 characters that they do not
// match, the case that costs a backtracking matcher the most, next to a plain
// `*.cpp` on the same path.
//
//   glob_bench [CALLS]     (calls per sample, default 2000)
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "harness.hpp"
#include "marsk_quorvi/utils/path_filter.hpp"

using marsk_quorvi::bench::Clock;
using marsk_quorvi::bench::quantile;
using marsk_quorvi::bench::report;
using marsk_quorvi::bench::seconds_since;
namespace mu = marsk_quorvi::utils;

namespace {

std::string repeat(const std::string& s, int n) {
  std::string out;
  while (n-- > 0) out += s;
  return out;
}

volatile bool sink = false;

// Microseconds per call, the median of 21 samples of `calls` calls each.
template <class Match>
double micros_per_call(int calls, Match&& match) {
  std::vector<double> samples;
  for (int s = 0; s < 21; ++s) {
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i) sink = match();
    samples.push_back(seconds_since(start) / calls * 1e6);
  }
  return quantile(samples, 0.5);
}

}  // namespace

int main(int argc, char** argv) {
  const int calls = argc > 1 ? std::max(1, std::atoi(argv[1])) : 2000;
  const std::string path = repeat("a/", 37) + "aa.cpp";
  const std::string pattern = repeat("**/a", 10) + ".hpp";
  const std::string ignore_line = repeat("**/a/", 10) + "*.hpp";
  std::printf("# path (%zu characters): %s\n# path_glob pattern: %s\n# .gitignore line: %s\n", path.size(),
              path.c_str(), pattern.c_str(), ignore_line.c_str());

  // path_glob compiles its pattern at every call, as a caller outside SQL pays.
  const double ten = micros_per_call(calls, [&] { return mu::path_glob(path, pattern); });
  const double plain = micros_per_call(calls, [&] { return mu::path_glob(path, "*.cpp"); });
  report("path_glob, ten ** pieces, 80-character path, no match", ten, "µs", "path_glob *.cpp, same path", plain,
         "under 50 µs");

  // Ignore rules are compiled once, when the file is read.
  const mu::Glob rule(ignore_line, mu::GlobSyntax::gitignore);
  const mu::Glob plain_rule("*.cpp", mu::GlobSyntax::gitignore);
  const double ten_rule = micros_per_call(calls, [&] { return rule.matches(path); });
  const double plain_rule_time = micros_per_call(calls, [&] { return plain_rule.matches(path); });
  report(".gitignore rule, ten **/ segments, 80-character path, no match", ten_rule, "µs",
         ".gitignore rule *.cpp, same path", plain_rule_time, "under 50 µs");
  return 0;
}
