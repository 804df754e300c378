#include "quorvi/walker.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "quorvi/source_file.hpp"

namespace marsk_quorvi::cli {

namespace fs = std::filesystem;

namespace {

constexpr std::array<std::string_view, 4> kVcsDirs{".git", ".hg", ".svn", ".jj"};
constexpr std::array<std::string_view, 2> kTopBuildDirs{"build", "_build"};
constexpr std::array<std::string_view, 3> kBuildDirs{"node_modules", "__pycache__", ".cache"};
// The folder in which the service keeps the index itself, at the top only.
constexpr std::string_view kMemoryDir = "memory";

std::string kind_name(mode_t mode) {
  if (S_ISFIFO(mode)) return "fifo";
  if (S_ISSOCK(mode)) return "socket";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "device";
  return "special file";
}

bool contains(const auto& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

struct DirCloser {
  void operator()(DIR* d) const { ::closedir(d); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;

// The names in the folder open as `dir` (which it takes over), sorted; the
// errno of a failed listing otherwise.
int list(FileHandle dir, std::vector<std::string>& names, Dir& open_dir) {
  DIR* d = ::fdopendir(dir.get());
  if (!d) return errno;
  dir.release();
  open_dir.reset(d);
  while (true) {
    errno = 0;
    const dirent* e = ::readdir(d);
    if (!e) {
      if (errno != 0) return errno;
      break;
    }
    const std::string_view name = e->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return 0;
}

struct Walker {
  std::string root;  // resolved
  const IgnoreRules& rules;
  const std::function<void(std::size_t)>& on_progress;
  WalkResult result;

  void problem(const std::string& rel, const char* type, std::string message) {
    result.problems.push_back({rel, type, std::move(message)});
  }

  bool inside(const std::string& resolved) const {
    return resolved == root || (resolved.starts_with(root) && resolved[root.size()] == '/');
  }

  void link(const std::string& rel) {
    const std::string full = root + "/" + rel;
    std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(full.c_str(), nullptr), &std::free);
    if (!resolved) {
      const int e = errno;
      if (rules.ignored(rel, false)) {
        ++result.pruned;
      } else {
        problem(rel, IO_ERROR, "cannot resolve the symbolic link " + rel + ": " + std::strerror(e));
      }
      return;
    }
    struct stat target {};
    const bool is_dir = ::stat(resolved.get(), &target) == 0 && S_ISDIR(target.st_mode);
    if (rules.ignored(rel, is_dir) || inside(resolved.get())) {
      ++result.pruned;
      return;
    }
    // Where it leads is not told: the name of the target may itself be private.
    problem(rel, OUTSIDE_ERROR, "the symbolic link " + rel + " leads outside the repository; not followed");
  }

  // Returns the errno of a failed listing of `dir` itself.
  int visit(FileHandle dir, const std::string& rel_dir) {
    std::vector<std::string> names;
    Dir open_dir;
    if (const int e = list(std::move(dir), names, open_dir)) return e;
    const int fd = ::dirfd(open_dir.get());
    for (const auto& name : names) {
      const std::string rel = rel_dir.empty() ? name : rel_dir + "/" + name;
      struct stat st {};
      if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        // Gone between listing and looking: the read reports it.
        result.files.push_back({rel, WalkEntry::Kind::regular, {}, 0});
        continue;
      }
      if (S_ISLNK(st.st_mode)) {
        link(rel);
        continue;
      }
      if (S_ISDIR(st.st_mode)) {
        if (contains(kVcsDirs, name) || (rel_dir.empty() && name == kMemoryDir) ||
            is_build_output(name, rel_dir.empty()) || rules.ignored(rel, true)) {
          ++result.pruned;
          continue;
        }
        FileHandle sub(::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat cache {};
        if (sub && ::fstatat(sub.get(), "CMakeCache.txt", &cache, AT_SYMLINK_NOFOLLOW) == 0) {
          ++result.pruned;
          continue;
        }
        const int e = sub ? visit(std::move(sub), rel) : errno;
        if (e) problem(rel, IO_ERROR, std::string("cannot list: ") + std::strerror(e));
        continue;
      }
      if (rules.ignored(rel, false)) {
        ++result.pruned;
        continue;
      }
      WalkEntry entry{rel, WalkEntry::Kind::regular, {}, static_cast<std::int64_t>(st.st_size)};
      if (!S_ISREG(st.st_mode)) {
        entry.kind = WalkEntry::Kind::other;
        entry.other_kind = kind_name(st.st_mode);
      }
      result.files.push_back(std::move(entry));
      if (on_progress && result.files.size() % 256 == 0) on_progress(result.files.size());
    }
    return 0;
  }
};

}  // namespace

WalkError::WalkError(const fs::path& repo, const std::string& what, int error_number)
    : OSError("cannot " + what + " the repository " + repo.string() + ": " + std::strerror(error_number),
              error_number, repo) {}

bool is_build_output(std::string_view name, bool top_level) {
  return (top_level && contains(kTopBuildDirs, name)) || contains(kBuildDirs, name) ||
         name.starts_with("cmake-build-");
}

WalkResult walk_repository(const fs::path& repo, const IgnoreRules& rules,
                           const std::function<void(std::size_t)>& on_progress) {
  std::unique_ptr<char, decltype(&std::free)> root(::realpath(repo.c_str(), nullptr), &std::free);
  if (!root) throw WalkError(repo, "resolve", errno);
  FileHandle dir(::open(root.get(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
  if (!dir) throw WalkError(repo, "open", errno);
  Walker w{root.get(), rules, on_progress, {}};
  if (w.root == "/") w.root.clear();  // so that "/" + rel and the prefix test hold
  if (rules.problem()) w.result.problems.push_back(*rules.problem());
  if (const int e = w.visit(std::move(dir), "")) throw WalkError(repo, "list", e);
  if (on_progress) on_progress(w.result.files.size());
  return std::move(w.result);
}

}  // namespace marsk_quorvi::cli
