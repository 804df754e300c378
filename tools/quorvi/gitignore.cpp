#include "quorvi/gitignore.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "quorvi/source_file.hpp"

namespace marsk_quorvi::cli {

namespace {

std::vector<std::string> split(std::string_view text, char sep) {
  std::vector<std::string> out;
  std::size_t start = 0;
  while (true) {
    const auto end = text.find(sep, start);
    out.emplace_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  return out;
}

}  // namespace

IgnoreRules::IgnoreRules(std::string_view text) {
  for (std::string line : split(text, '\n')) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    // Trailing blanks go unless escaped with a backslash.
    while (!line.empty() && line.back() == ' ' && !(line.size() >= 2 && line[line.size() - 2] == '\\')) {
      line.pop_back();
    }
    if (line.empty() || line[0] == '#') continue;
    Rule rule;
    if (line[0] == '!') {
      rule.negated = true;
      line.erase(0, 1);
    } else if (line.size() >= 2 && line[0] == '\\' && (line[1] == '!' || line[1] == '#')) {
      line.erase(0, 1);
    }
    if (!line.empty() && line.back() == '/') {
      rule.dir_only = true;
      line.pop_back();
    }
    if (line.empty()) continue;
    rule.anchored = line.find('/') != std::string::npos;
    if (line[0] == '/') line.erase(0, 1);
    if (line.empty()) continue;
    rule.glob = utils::Glob(line, utils::GlobSyntax::gitignore);
    rules_.push_back(std::move(rule));
  }
}

IgnoreRules IgnoreRules::load(const std::filesystem::path& repo) {
  // A repository that cannot be opened fails the walk, which says so.
  const FileHandle dir(::open(repo.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir) return {};
  constexpr const char* name = ".gitignore";
  struct stat st {};
  if (::fstatat(dir.get(), name, &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) return {};
  auto source = read_source(dir.get(), name, MAX_GITIGNORE_BYTES);
  if (source.ok()) return IgnoreRules(source.text);
  IgnoreRules none;
  none.problem_ = PathProblem{name, source.error_type, "rules not applied: " + source.message};
  return none;
}

bool IgnoreRules::ignored(std::string_view path, bool is_dir) const {
  if (rules_.empty()) return false;
  const std::string_view name = path.substr(path.rfind('/') + 1);
  bool excluded = false;
  for (const auto& rule : rules_) {
    if (rule.dir_only && !is_dir) continue;
    // Only a rule that would change the outcome needs matching.
    if (rule.negated != excluded) continue;
    if (rule.glob.matches(rule.anchored ? path : name)) excluded = !rule.negated;
  }
  return excluded;
}

}  // namespace marsk_quorvi::cli
