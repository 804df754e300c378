// The exclusion rules of a repository's top-level .gitignore.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "marsk_quorvi/utils/path_filter.hpp"

namespace marsk_quorvi::cli {

// A path the index leaves out for a reason worth an index_errors row.
struct PathProblem {
  std::string path;  // relative to the repository, '/'-separated
  std::string error_type;
  std::string message;
  bool operator==(const PathProblem&) const = default;
};

// The most of a .gitignore that is read: a larger one is refused whole.
inline constexpr std::int64_t MAX_GITIGNORE_BYTES = 1048576;

// Patterns in .gitignore syntax: blank lines and `#` comments are skipped,
// `!` re-includes, a trailing `/` matches directories only, a pattern with a
// `/` before its end is anchored at the repository root, `*`, `?` and `[...]`
// match within one path segment and `**` across segments (the whole syntax is
// utils::GlobSyntax::gitignore). The last pattern that matches decides.
// Immutable after construction; safe to share.
class IgnoreRules {
 public:
  IgnoreRules() = default;
  explicit IgnoreRules(std::string_view text);
  // The rules of `repo/.gitignore`, none when the file is missing. The file
  // is read only when it is a regular file (not through a symbolic link,
  // without blocking on a FIFO) of at most MAX_GITIGNORE_BYTES and no binary
  // content; otherwise there are no rules and `problem()` says why.
  static IgnoreRules load(const std::filesystem::path& repo);

  // Whether `path` (relative to the repository root, '/'-separated, no
  // leading slash) is excluded. The caller prunes excluded directories, so
  // the contents of an excluded directory never get asked about.
  bool ignored(std::string_view path, bool is_dir) const;
  std::size_t size() const noexcept { return rules_.size(); }
  // Why the .gitignore that `load` found was not applied, if it was not.
  const std::optional<PathProblem>& problem() const noexcept { return problem_; }

 private:
  struct Rule {
    utils::Glob glob{""};  // anchored: against the whole path; otherwise the last segment
    bool anchored = false;
    bool negated = false;
    bool dir_only = false;
  };
  std::vector<Rule> rules_;
  std::optional<PathProblem> problem_;
};

}  // namespace marsk_quorvi::cli
