// Walking a repository for the files to index.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "quorvi/gitignore.hpp"

namespace marsk_quorvi::cli {

struct WalkEntry {
  enum class Kind { regular, symlink, other };
  std::string path;  // relative to the repository, '/'-separated
  Kind kind = Kind::regular;
  std::string other_kind;  // for Kind::other: "fifo", "socket", "device"
};

struct WalkResult {
  std::vector<WalkEntry> files;  // sorted by path
  // Directories that could not be listed, with the reason: the indexer
  // records them as errors rather than silently losing a subtree.
  std::vector<std::pair<std::string, std::string>> unlisted;
  std::int64_t pruned = 0;  // directories and files left out by the rules
};

// Whether a directory named `name` at `dir` holds build output: the usual
// build folder names, and any folder that holds a CMakeCache.txt.
bool is_build_output(std::string_view name, const std::filesystem::path& dir);

// Walks `repo` depth-first in name order, leaving out version-control
// folders, the service's own `memory/` folder at the top, build output and
// what the top-level .gitignore excludes. Symbolic links to directories are
// not followed (a link loop would never end); links to anything else are
// listed as Kind::symlink and read through. `on_progress` gets the number of
// files found so far now and then.
WalkResult walk_repository(const std::filesystem::path& repo, const IgnoreRules& rules,
                           const std::function<void(std::size_t)>& on_progress = {});

}  // namespace marsk_quorvi::cli
