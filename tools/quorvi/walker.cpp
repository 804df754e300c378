#include "quorvi/walker.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace marsk_quorvi::cli {

namespace fs = std::filesystem;

namespace {

constexpr std::array<std::string_view, 4> kVcsDirs{".git", ".hg", ".svn", ".jj"};
constexpr std::array<std::string_view, 5> kBuildDirs{"build", "_build", "node_modules", "__pycache__", ".cache"};
// The folder in which the service keeps the index itself, at the top only.
constexpr std::string_view kMemoryDir = "memory";

std::string kind_name(mode_t mode) {
  if (S_ISFIFO(mode)) return "fifo";
  if (S_ISSOCK(mode)) return "socket";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "device";
  return "special file";
}

struct Walker {
  const fs::path& repo;
  const IgnoreRules& rules;
  const std::function<void(std::size_t)>& on_progress;
  WalkResult result;

  void visit(const fs::path& dir, const std::string& rel_dir) {
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
      names.push_back(it->path().filename().string());
    }
    if (ec) {
      result.unlisted.emplace_back(rel_dir.empty() ? "." : rel_dir, ec.message());
      return;
    }
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
      const fs::path full = dir / name;
      const std::string rel = rel_dir.empty() ? name : rel_dir + "/" + name;
      struct stat st {};
      if (::lstat(full.c_str(), &st) != 0) {
        // Vanished between listing and looking: report it like an unreadable file.
        result.files.push_back({rel, WalkEntry::Kind::symlink, {}});
        continue;
      }
      if (S_ISDIR(st.st_mode)) {
        const bool skip = std::find(kVcsDirs.begin(), kVcsDirs.end(), name) != kVcsDirs.end() ||
                          (rel_dir.empty() && name == kMemoryDir) || is_build_output(name, full) ||
                          rules.ignored(rel, true);
        if (skip) {
          ++result.pruned;
          continue;
        }
        visit(full, rel);
        continue;
      }
      // A link is judged by its own name; whether it points at a directory
      // decides only whether it is followed (it is not).
      bool link_to_dir = false;
      if (S_ISLNK(st.st_mode)) {
        struct stat target {};
        link_to_dir = ::stat(full.c_str(), &target) == 0 && S_ISDIR(target.st_mode);
      }
      if (rules.ignored(rel, link_to_dir) || link_to_dir) {
        ++result.pruned;
        continue;
      }
      WalkEntry entry{rel, WalkEntry::Kind::regular, {}};
      if (S_ISLNK(st.st_mode)) {
        entry.kind = WalkEntry::Kind::symlink;
      } else if (!S_ISREG(st.st_mode)) {
        entry.kind = WalkEntry::Kind::other;
        entry.other_kind = kind_name(st.st_mode);
      }
      result.files.push_back(std::move(entry));
      if (on_progress && result.files.size() % 256 == 0) on_progress(result.files.size());
    }
  }
};

}  // namespace

bool is_build_output(std::string_view name, const fs::path& dir) {
  if (std::find(kBuildDirs.begin(), kBuildDirs.end(), name) != kBuildDirs.end()) return true;
  if (name.starts_with("cmake-build-")) return true;
  std::error_code ec;
  return fs::exists(dir / "CMakeCache.txt", ec);
}

WalkResult walk_repository(const fs::path& repo, const IgnoreRules& rules,
                           const std::function<void(std::size_t)>& on_progress) {
  Walker w{repo, rules, on_progress, {}};
  w.visit(repo, "");
  if (on_progress) on_progress(w.result.files.size());
  return std::move(w.result);
}

}  // namespace marsk_quorvi::cli
