// The exclusion rules of a repository's top-level .gitignore.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "marsk_quorvi/utils/path_filter.hpp"

namespace marsk_quorvi::cli {

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
  // The rules of `repo/.gitignore`, none when the file is missing or unreadable.
  static IgnoreRules load(const std::filesystem::path& repo);

  // Whether `path` (relative to the repository root, '/'-separated, no
  // leading slash) is excluded. The caller prunes excluded directories, so
  // the contents of an excluded directory never get asked about.
  bool ignored(std::string_view path, bool is_dir) const;
  std::size_t size() const noexcept { return rules_.size(); }

 private:
  struct Rule {
    utils::Glob glob{""};  // anchored: against the whole path; otherwise the last segment
    bool anchored = false;
    bool negated = false;
    bool dir_only = false;
  };
  std::vector<Rule> rules_;
};

}  // namespace marsk_quorvi::cli
