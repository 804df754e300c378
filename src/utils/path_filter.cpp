#include "marsk_quorvi/utils/path_filter.hpp"

#include <sqlite3.h>

#include <cctype>
#include <string>

namespace marsk_quorvi::utils {

namespace {

// Matches one segment-local pattern piece [p, pe) against [s, se); `*` and `?`
// never match '/'.
bool match_here(std::string_view pat, std::size_t p, std::string_view s, std::size_t i);

bool match_class(std::string_view pat, std::size_t& p, char c) {
  // pat[p] == '['; on return p is past the closing ']'.
  std::size_t q = p + 1;
  bool negate = false;
  if (q < pat.size() && (pat[q] == '!' || pat[q] == '^')) {
    negate = true;
    ++q;
  }
  bool matched = false;
  bool first = true;
  while (q < pat.size() && (first || pat[q] != ']')) {
    first = false;
    char lo = pat[q];
    if (q + 2 < pat.size() && pat[q + 1] == '-' && pat[q + 2] != ']') {
      char hi = pat[q + 2];
      if (lo <= c && c <= hi) matched = true;
      q += 3;
    } else {
      if (lo == c) matched = true;
      ++q;
    }
  }
  if (q >= pat.size()) {  // no closing bracket: '[' is literal
    p += 1;
    return c == '[';
  }
  p = q + 1;
  return matched != negate && c != '/';
}

bool match_here(std::string_view pat, std::size_t p, std::string_view s, std::size_t i) {
  while (p < pat.size()) {
    const char pc = pat[p];
    if (pc == '*') {
      if (p + 1 < pat.size() && pat[p + 1] == '*') {
        // '**' crosses segments; "**/" also matches no directory at all.
        std::size_t after = p + 2;
        if (after < pat.size() && pat[after] == '/') {
          if (match_here(pat, after + 1, s, i)) return true;
        }
        for (std::size_t k = i; k <= s.size(); ++k) {
          if (match_here(pat, after, s, k)) return true;
        }
        return false;
      }
      for (std::size_t k = i; k <= s.size(); ++k) {
        if (match_here(pat, p + 1, s, k)) return true;
        if (k < s.size() && s[k] == '/') break;
      }
      return false;
    }
    if (i >= s.size()) return false;
    if (pc == '?') {
      if (s[i] == '/') return false;
      ++p;
      ++i;
    } else if (pc == '[') {
      if (!match_class(pat, p, s[i])) return false;
      ++i;
    } else {
      if (pc != s[i]) return false;
      ++p;
      ++i;
    }
  }
  return i == s.size();
}

std::string_view last_segment(std::string_view path) {
  auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view text_arg(sqlite3_value* v) {
  const auto* p = reinterpret_cast<const char*>(sqlite3_value_text(v));
  return p ? std::string_view(p, static_cast<std::size_t>(sqlite3_value_bytes(v))) : std::string_view();
}

void result_text(sqlite3_context* ctx, std::string_view s) {
  // SQLite takes a null pointer for NULL; an empty view may carry one.
  sqlite3_result_text64(ctx, s.empty() ? "" : s.data(), s.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

bool any_null(int argc, sqlite3_value** argv) {
  for (int i = 0; i < argc; ++i) {
    if (sqlite3_value_type(argv[i]) == SQLITE_NULL) return true;
  }
  return false;
}

void sql_path_glob(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (any_null(argc, argv)) return sqlite3_result_null(ctx);
  sqlite3_result_int(ctx, path_glob(text_arg(argv[0]), text_arg(argv[1])) ? 1 : 0);
}

void sql_path_ext(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (any_null(argc, argv)) return sqlite3_result_null(ctx);
  std::string_view name = last_segment(text_arg(argv[0]));
  auto dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return result_text(ctx, "");
  std::string ext(name.substr(dot + 1));
  for (auto& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  result_text(ctx, ext);
}

void sql_path_dir(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (any_null(argc, argv)) return sqlite3_result_null(ctx);
  std::string_view path = text_arg(argv[0]);
  auto slash = path.rfind('/');
  result_text(ctx, slash == std::string_view::npos ? std::string_view() : path.substr(0, slash));
}

void sql_path_name(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (any_null(argc, argv)) return sqlite3_result_null(ctx);
  result_text(ctx, last_segment(text_arg(argv[0])));
}

}  // namespace

bool path_glob(std::string_view path, std::string_view pattern) { return match_here(pattern, 0, path, 0); }

void register_path_functions(storage::Connection& connection) {
  sqlite3* db = connection.handle();
  if (!db) throw storage::Error("Cannot operate on a closed database.", SQLITE_MISUSE);
  constexpr int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
  struct Fn {
    const char* name;
    int args;
    void (*fn)(sqlite3_context*, int, sqlite3_value**);
  };
  static constexpr Fn fns[] = {
      {"path_glob", 2, sql_path_glob},
      {"path_ext", 1, sql_path_ext},
      {"path_dir", 1, sql_path_dir},
      {"path_name", 1, sql_path_name},
  };
  for (const auto& f : fns) {
    int rc = sqlite3_create_function_v2(db, f.name, f.args, flags, nullptr, f.fn, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) storage::raise_error(db, rc);
  }
}

}  // namespace marsk_quorvi::utils
