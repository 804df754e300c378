#include "quorvi/gitignore.hpp"

#include <fnmatch.h>

#include <fstream>
#include <sstream>

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

bool segment_matches(const std::string& pattern, const std::string& name) {
  // fnmatch without FNM_PATHNAME handles `*`, `?`, `[...]` and backslash
  // escapes; segments never hold a '/', so it cannot cross one.
  return ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

// `**` stands for any number of whole segments; as the last segment it
// needs at least one ("dir/**" is everything inside dir, not dir itself).
bool match_segments(const std::vector<std::string>& pat, std::size_t pi, const std::vector<std::string>& path,
                    std::size_t si) {
  while (pi < pat.size()) {
    if (pat[pi] == "**") {
      if (pi + 1 == pat.size()) return si < path.size();
      for (std::size_t k = si; k <= path.size(); ++k) {
        if (match_segments(pat, pi + 1, path, k)) return true;
      }
      return false;
    }
    if (si >= path.size() || !segment_matches(pat[pi], path[si])) return false;
    ++pi;
    ++si;
  }
  return si == path.size();
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
    rule.segments = rule.anchored ? split(line, '/') : std::vector<std::string>{line};
    rules_.push_back(std::move(rule));
  }
}

IgnoreRules IgnoreRules::load(const std::filesystem::path& repo) {
  std::ifstream in(repo / ".gitignore", std::ios::binary);
  if (!in) return {};
  std::ostringstream text;
  text << in.rdbuf();
  return IgnoreRules(text.str());
}

bool IgnoreRules::ignored(std::string_view path, bool is_dir) const {
  if (rules_.empty()) return false;
  const auto segments = split(path, '/');
  bool excluded = false;
  for (const auto& rule : rules_) {
    if (rule.dir_only && !is_dir) continue;
    // Only a rule that would change the outcome needs matching.
    if (rule.negated != excluded) continue;
    const bool hit = rule.anchored ? match_segments(rule.segments, 0, segments, 0)
                                   : segment_matches(rule.segments[0], segments.back());
    if (hit) excluded = !rule.negated;
  }
  return excluded;
}

}  // namespace marsk_quorvi::cli
