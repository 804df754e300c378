#include "marsk_quorvi/utils/path_filter.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <locale>
#include <memory>
#include <string>
#include <utility>

namespace marsk_quorvi::utils {

namespace {

using Bits = std::array<std::uint64_t, 4>;

void add_byte(Bits& bits, unsigned char b) { bits[b >> 6] |= std::uint64_t{1} << (b & 63); }
bool has_byte(const Bits& bits, unsigned char b) { return (bits[b >> 6] >> (b & 63)) & 1; }

// The named sets of a class in .gitignore lines, as in the C locale.
bool add_named_set(Bits& bits, std::string_view name) {
  using M = std::ctype_base;
  static constexpr std::pair<std::string_view, M::mask> sets[] = {
      {"alnum", M::alnum}, {"alpha", M::alpha}, {"blank", M::blank}, {"cntrl", M::cntrl},
      {"digit", M::digit}, {"graph", M::graph}, {"lower", M::lower}, {"print", M::print},
      {"punct", M::punct}, {"space", M::space}, {"upper", M::upper}, {"xdigit", M::xdigit}};
  const auto& ctype = std::use_facet<std::ctype<char>>(std::locale::classic());
  for (const auto& [n, mask] : sets) {
    if (n != name) continue;
    for (int b = 0; b < 256; ++b) {
      if (ctype.is(mask, static_cast<char>(b))) add_byte(bits, static_cast<unsigned char>(b));
    }
    return true;
  }
  return false;
}

enum class Parsed { set, unclosed, invalid };

// Reads the class opening at pat[p] == '[' into `bits`; on success `end` is
// just past its ']'. With `git`, the class ends with its segment, a
// backslash escapes, `[:name:]` is a named set and ranges compare unsigned
// bytes, as .gitignore rules always have here; path_glob's ranges have always
// compared `char`s.
Parsed parse_set(std::string_view pat, std::size_t p, bool git, Bits& bits, std::size_t& end) {
  const std::size_t n = git ? std::min(pat.size(), pat.find('/', p)) : pat.size();
  std::size_t q = p + 1;
  const bool negate = q < n && (pat[q] == '!' || pat[q] == '^');
  if (negate) ++q;
  bits = {};
  // One member at q, perhaps escaped; false when an escape has nothing after it.
  auto member = [&](char& c) {
    if (git && pat[q] == '\\') {
      if (++q >= n) return false;
    }
    c = pat[q++];
    return true;
  };
  for (bool first = true;; first = false) {
    if (q >= n) return Parsed::unclosed;
    if (!first && pat[q] == ']') break;
    if (git && pat[q] == '[' && q + 1 < n && pat[q + 1] == ':') {
      std::size_t r = q + 2;
      while (r < n && pat[r] >= 'a' && pat[r] <= 'z') ++r;
      if (r + 1 < n && pat[r] == ':' && pat[r + 1] == ']') {
        if (!add_named_set(bits, pat.substr(q + 2, r - q - 2))) return Parsed::invalid;
        q = r + 2;
        continue;
      }
    }
    char lo = 0;
    if (!member(lo)) return Parsed::invalid;
    if (git && q + 1 == n && pat[q] == '-') return Parsed::invalid;  // a range cut off by the segment's end
    if (q + 1 < n && pat[q] == '-' && pat[q + 1] != ']') {
      ++q;
      char hi = 0;
      if (!member(hi)) return Parsed::invalid;
      for (int b = 0; b < 256; ++b) {
        const auto u = static_cast<unsigned char>(b);
        const bool in = git ? static_cast<unsigned char>(lo) <= u && u <= static_cast<unsigned char>(hi)
                            : lo <= static_cast<char>(u) && static_cast<char>(u) <= hi;
        if (in) add_byte(bits, u);
      }
    } else {
      add_byte(bits, static_cast<unsigned char>(lo));
    }
  }
  end = q + 1;
  if (negate) {
    for (auto& w : bits) w = ~w;
  }
  bits['/' >> 6] &= ~(std::uint64_t{1} << ('/' & 63));
  return Parsed::set;
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
  // A pattern that is a constant or a bound parameter is compiled once per
  // statement, not once per row.
  if (const auto* glob = static_cast<const Glob*>(sqlite3_get_auxdata(ctx, 1))) {
    return sqlite3_result_int(ctx, glob->matches(text_arg(argv[0])) ? 1 : 0);
  }
  auto glob = std::make_unique<Glob>(text_arg(argv[1]));
  sqlite3_result_int(ctx, glob->matches(text_arg(argv[0])) ? 1 : 0);
  sqlite3_set_auxdata(ctx, 1, glob.release(), [](void* p) { delete static_cast<Glob*>(p); });
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

Glob::Glob(std::string_view pat, GlobSyntax syntax) {
  const bool git = syntax == GlobSyntax::gitignore;
  std::size_t p = 0;
  while (p < pat.size()) {
    const char c = pat[p];
    if (c == '*') {
      std::size_t run = p;
      while (run < pat.size() && pat[run] == '*') ++run;
      // A .gitignore line crosses segments only with a segment that is `**`.
      const bool pair = git ? run - p == 2 && (p == 0 || pat[p - 1] == '/') && (run == pat.size() || pat[run] == '/')
                            : run - p >= 2;
      if (!pair) {
        push_star();
        p = git ? run : p + 1;
      } else if (p + 2 < pat.size() && pat[p + 2] == '/') {
        push_globstar(true);
        p += 3;
      } else {
        push_globstar(false);
        p += 2;
      }
      continue;
    }
    if (c == '?') {
      tokens_.push_back({Op::any});
      ++p;
      continue;
    }
    if (c == '[') {
      Bits bits;
      std::size_t end = 0;
      const Parsed parsed = parse_set(pat, p, git, bits, end);
      if (parsed == Parsed::invalid) {
        never_ = true;
        break;
      }
      if (parsed == Parsed::set) {
        tokens_.push_back({Op::set, 0, static_cast<std::uint32_t>(sets_.size())});
        sets_.push_back(bits);
        p = end;
        continue;
      }
    }
    if (git && c == '\\') {
      if (p + 1 == pat.size() || pat[p + 1] == '/') {
        never_ = true;
        break;
      }
      ++p;
    }
    tokens_.push_back({Op::literal, pat[p++]});
  }
  if (never_) tokens_.clear();
}

bool Glob::ends_with(Op op) const { return !tokens_.empty() && tokens_.back().op == op; }

bool Glob::ends_with_globstar_slash() const {
  return tokens_.size() >= 3 && tokens_[tokens_.size() - 3].op == Op::skip;
}

// Neighbouring stars fold into one: `**` next to `*`, `**` or `**/` is `**`,
// `**/**/` is `**/` and `*` after `*` is `*`. Only `*` next to `**/` stays as
// two pieces.
void Glob::push_star() {
  if (!ends_with(Op::star) && !ends_with(Op::globstar)) tokens_.push_back({Op::star});
}

void Glob::push_globstar(bool with_slash) {
  if (with_slash) {
    if (ends_with(Op::globstar) || ends_with_globstar_slash()) return;
    tokens_.push_back({Op::skip});
    tokens_.push_back({Op::globstar});
    tokens_.push_back({Op::literal, '/'});
    return;
  }
  while (true) {
    if (ends_with(Op::star) || ends_with(Op::globstar)) {
      tokens_.pop_back();
    } else if (ends_with_globstar_slash()) {
      tokens_.resize(tokens_.size() - 3);
    } else {
      break;
    }
  }
  tokens_.push_back({Op::globstar});
}

// Adds every position reachable without reading a character: past a star
// that matches nothing, and from the start of a `**/` either into its `**`
// or past its '/'. Those moves only go forward, so one pass in order reaches
// them all.
void Glob::close(std::uint64_t* states) const {
  const std::size_t words = (tokens_.size() + 64) / 64;
  auto add = [&](std::size_t i) { states[i >> 6] |= std::uint64_t{1} << (i & 63); };
  for (std::size_t w = 0; w < words; ++w) {
    for (std::uint64_t todo = states[w]; todo != 0;) {
      const int b = std::countr_zero(todo);
      const std::size_t i = w * 64 + static_cast<std::size_t>(b);
      const Op op = i < tokens_.size() ? tokens_[i].op : Op::literal;
      if (op == Op::star || op == Op::globstar || op == Op::skip) add(i + 1);
      if (op == Op::skip) add(i + 3);
      todo = states[w] & ~((std::uint64_t{2} << b) - 1);
    }
  }
}

bool Glob::matches(std::string_view path) const {
  if (never_) return false;
  const std::size_t accept = tokens_.size();
  const std::size_t words = accept / 64 + 1;
  // Two state sets, on the stack for any pattern of up to 255 pieces.
  std::array<std::uint64_t, 8> small{};
  std::vector<std::uint64_t> large;
  std::uint64_t* cur = small.data();
  if (words > small.size() / 2) {
    large.assign(2 * words, 0);
    cur = large.data();
  }
  std::uint64_t* next = cur + words;
  cur[0] = 1;
  close(cur);
  for (const char ch : path) {
    std::fill(next, next + words, 0);
    auto add = [&](std::size_t i) { next[i >> 6] |= std::uint64_t{1} << (i & 63); };
    std::uint64_t live = 0;
    for (std::size_t w = 0; w < words; ++w) {
      for (std::uint64_t todo = cur[w]; todo != 0; todo &= todo - 1) {
        const std::size_t i = w * 64 + static_cast<std::size_t>(std::countr_zero(todo));
        if (i == accept) continue;
        const Token& t = tokens_[i];
        switch (t.op) {
          case Op::literal:
            if (ch == t.c) add(i + 1);
            break;
          case Op::any:
            if (ch != '/') add(i + 1);
            break;
          case Op::set:
            if (has_byte(sets_[t.set], static_cast<unsigned char>(ch))) add(i + 1);
            break;
          case Op::star:
            if (ch != '/') add(i);
            break;
          case Op::globstar:
            add(i);
            break;
          case Op::skip:
            break;
        }
      }
    }
    close(next);
    for (std::size_t w = 0; w < words; ++w) live |= next[w];
    if (live == 0) return false;
    std::swap(cur, next);
  }
  return (cur[accept >> 6] >> (accept & 63)) & 1;
}

bool path_glob(std::string_view path, std::string_view pattern) { return Glob(pattern).matches(path); }

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
