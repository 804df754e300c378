// Walking a repository for the files to index.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "marsk_quorvi/errors.hpp"
#include "quorvi/gitignore.hpp"

namespace marsk_quorvi::cli {

struct WalkEntry {
  enum class Kind { regular, other };
  std::string path;  // relative to the repository, '/'-separated
  Kind kind = Kind::regular;
  std::string other_kind;  // for Kind::other: "fifo", "socket", "device"
  std::int64_t size = 0;   // as listed; the read tells for sure
};

struct WalkResult {
  std::vector<WalkEntry> files;  // sorted by path
  // What the index leaves out and says so, in walk order: a refused
  // .gitignore, folders that could not be listed, symbolic links that are
  // not followed because they lead outside or cannot be resolved.
  std::vector<PathProblem> problems;
  std::int64_t pruned = 0;  // directories and files left out by the rules
};

// The walk as a whole failed: the repository itself could not be resolved,
// opened or listed. An index built from such a walk would silently lose
// every file, so nothing may be built from it.
class WalkError : public OSError {
 public:
  WalkError(const std::filesystem::path& repo, const std::string& what, int error_number);
  [[nodiscard]] const char* kind() const noexcept override { return "WalkError"; }
};

// Whether a directory named `name` holds build output by its name alone:
// `build` and `_build` at the top of the repository only (a folder of that
// name deeper down is as often source), the tools' cache and package folders
// and `cmake-build-*` anywhere. The walker also leaves out every folder that
// holds a CMakeCache.txt.
bool is_build_output(std::string_view name, bool top_level);

// Walks `repo` depth-first in name order, leaving out version-control
// folders, the service's own `memory/` folder at the top, build output and
// what `rules` exclude; `rules.problem()` becomes the first problem.
//
// Nothing is read through a symbolic link. A link whose target (resolved)
// lies outside the (resolved) repository is a problem of kind
// OUTSIDE_ERROR; one that cannot be resolved (dangling, a loop) is an
// IO_ERROR problem. A link to a file inside the repository is left out as a
// duplicate: its target is walked under its own name, or is excluded on
// purpose, and reading both would index one file twice. A link to a folder
// inside is not followed either, so no loop can form. Folders are opened one
// level at a time without following links, so a folder replaced by a link
// during the walk is not entered.
//
// Raises WalkError when the repository itself cannot be listed; a folder
// below it that cannot be listed is a problem, and the walk goes on.
// `on_progress` gets the number of files found so far now and then.
WalkResult walk_repository(const std::filesystem::path& repo, const IgnoreRules& rules,
                           const std::function<void(std::size_t)>& on_progress = {});

}  // namespace marsk_quorvi::cli
