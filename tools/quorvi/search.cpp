#include "quorvi/search.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <numeric>
#include <span>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include <nlohmann/json.hpp>

#include "marsk_quorvi/errors.hpp"
#include "marsk_quorvi/storage/core_schema.hpp"

namespace marsk_quorvi::cli {

namespace {

using storage::Database;

// FTS5's bareword characters: ASCII letters and digits, '_', the substitute
// character and every byte of a multi-byte UTF-8 sequence.
bool bareword_char(unsigned char c) {
  return c >= 0x80 || c == 0x1a || c == '_' || (c >= '0' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z');
}
// Those of them that make up a symbol's name.
bool name_char(unsigned char c) { return c != 0x1a && bareword_char(c); }
bool blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

// The identifier a token names: the last one before an argument or template
// list, so `foo(`, `a::b`, `x->y` and `std::map<int>` name foo, b, y and map.
// None for several words or a leading digit.
std::string named_identifier(std::string_view token) {
  if (std::any_of(token.begin(), token.end(), blank)) return {};
  token = token.substr(0, token.find_first_of("(<[{"));
  auto end = token.size();
  while (end > 0 && !name_char(token[end - 1])) --end;
  auto begin = end;
  while (begin > 0 && name_char(token[begin - 1])) --begin;
  if (begin == end || (token[begin] >= '0' && token[begin] <= '9')) return {};
  return std::string(token.substr(begin, end - begin));
}

std::string quoted(std::string_view s) {
  std::string out = "\"";
  for (char c : s) out += c == '"' ? std::string("\"\"") : std::string(1, c);
  return out + '"';
}

// Writes the FTS5 query of what was typed, piece by piece (a piece ends at
// a blank, a string at its closing quote). With `grouping`, a '(' that opens
// a piece and a ')' that closes one are the query's own parentheses;
// without, they are code like any other punctuation.
class QueryWriter {
 public:
  QueryWriter(std::string_view typed, bool grouping) : typed_(typed), grouping_(grouping) {}

  // False when a group is left open, which only a reading without grouping
  // can make sense of (`(void)x`, `if (`).
  bool run() {
    while (true) {
      while (i_ < typed_.size() && blank(typed_[i_])) ++i_;
      if (i_ >= typed_.size()) break;
      const auto rest = typed_.substr(i_);
      if (grouping_ && (rest[0] == '(' || rest.starts_with("NEAR("))) {
        const bool near = rest[0] == 'N';
        emit(near ? "NEAR(" : "(");
        open_.push_back(near);
        i_ += near ? 5 : 1;
      } else if (rest[0] == '"') {
        string();
      } else {
        auto end = i_;
        while (end < typed_.size() && !blank(typed_[end])) ++end;
        piece(typed_.substr(i_, end - i_));
        i_ = end;
      }
    }
    return open_.empty();
  }

  FtsQuery query;

 private:
  void emit(std::string_view s) {
    if (!query.text.empty()) query.text += ' ';
    query.text += s;
  }
  void name(std::string n) {
    if (!n.empty() && std::find(query.names.begin(), query.names.end(), n) == query.names.end()) {
      query.names.push_back(std::move(n));
    }
  }

  // A quoted string, `""` standing for a quote, with an optional prefix mark.
  // An unterminated one goes to FTS5 as it is, which rejects it.
  void string() {
    auto close = i_ + 1;
    while ((close = typed_.find('"', close)) != std::string_view::npos && close + 1 < typed_.size() &&
           typed_[close + 1] == '"') {
      close += 2;
    }
    ++query.terms;
    after_comma_ = false;
    if (close == std::string_view::npos) {
      emit(typed_.substr(i_));
      i_ = typed_.size();
      return;
    }
    const bool prefix = close + 1 < typed_.size() && typed_[close + 1] == '*';
    emit(typed_.substr(i_, close + 1 + prefix - i_));
    if (!prefix) {
      std::string inner(typed_.substr(i_ + 1, close - i_ - 1));
      for (auto at = inner.find("\"\""); at != std::string::npos; at = inner.find("\"\"", at + 1)) inner.erase(at, 1);
      name(named_identifier(inner));
    }
    i_ = close + 1 + prefix;
  }

  void piece(std::string_view p) {
    if (p.empty()) return;
    // Inside NEAR(...) a comma ends the phrases; the distance follows.
    if (grouping_ && !open_.empty() && open_.back()) {
      if (const auto comma = p.find(','); comma != std::string_view::npos) {
        piece(p.substr(0, comma));
        emit(",");
        after_comma_ = true;
        piece(p.substr(comma + 1));
        return;
      }
    }
    // Trailing ')' close open groups, except those the piece's own '('
    // claim: `foo()` stays code.
    std::size_t closers = 0;
    if (grouping_) {
      const auto opens = static_cast<std::size_t>(std::count(p.begin(), p.end(), '('));
      const auto closes = static_cast<std::size_t>(std::count(p.begin(), p.end(), ')'));
      while (closers < open_.size() && closes - closers > opens && p[p.size() - 1 - closers] == ')') ++closers;
    }
    if (closers < p.size()) term(p.substr(0, p.size() - closers));
    for (std::size_t k = 0; k < closers; ++k) {
      emit(")");
      open_.pop_back();
    }
  }

  void term(std::string_view t) {
    if (t == "AND" || t == "OR" || t == "NOT") {
      emit(t);
      return;
    }
    const bool distance = std::exchange(after_comma_, false);
    if (distance && std::all_of(t.begin(), t.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      emit(t);
      return;
    }
    ++query.terms;
    const bool prefix = t.size() > 1 && t.back() == '*';
    const auto stem = prefix ? t.substr(0, t.size() - 1) : t;
    if (std::all_of(stem.begin(), stem.end(), bareword_char)) {
      emit(t);
    } else {
      emit(quoted(stem) + (prefix ? "*" : ""));
    }
    if (!prefix) name(named_identifier(stem));
  }

  std::string_view typed_;
  bool grouping_;
  std::size_t i_ = 0;
  std::vector<bool> open_;  // the groups open, true for NEAR(
  bool after_comma_ = false;
};

// How well a symbol of each kind answers "where is NAME defined", best
// highest: a type (one definition, where a function of the same name is
// often one of its members or one of an overload set), any other
// definition, a declaration (a prototype, an extern variable, a member),
// and last a macro, which for a name that is also declared is mostly a
// rename (`#define fopen fopen64`) or a checking wrapper.
constexpr const char* KIND_RANK =
    "CASE WHEN s.kind IN ('class', 'struct', 'union', 'enum', 'typedef', 'alias', 'interface', 'trait', 'type', "
    "'namespace') THEN 4 WHEN s.kind = 'macro' THEN 1 WHEN s.kind IN ('prototype', 'externvar', 'member', 'field', "
    "'parameter', 'local', 'label', 'macroparam', 'using', 'header', 'module', 'unknown') THEN 2 ELSE 3 END";
// The per-file anchor rows are bookkeeping, not symbols.
constexpr const char* NOT_ANCHOR = "NOT (s.kind = 'module' AND s.parent_id IS NULL)";

// Whole numbers (ids) as a JSON array, for json_each.
std::string json_numbers(const std::vector<std::int64_t>& numbers) {
  std::string out = "[";
  for (const auto n : numbers) out += (out.size() > 1 ? "," : "") + std::to_string(n);
  return out + "]";
}

std::string json_array(const std::vector<std::string>& names) {
  // Names are identifiers (named_identifier), so nothing needs escaping.
  std::string out = "[";
  for (const auto& n : names) out += (out.size() > 1 ? ",\"" : "\"") + n + "\"";
  return out + "]";
}

// syms: the symbols the query names, as (file id, line, score) in ?1 (see
// search). defs: the chunks that hold one, with the best score among them;
// each file's chunks are read once, as one rowid range. top: the matches ranked
// by bm25() sorted in SQLite (cheaper than FTS5's own ORDER BY rank), and
// without their line columns, which cost a read of the chunk's row. The
// outer select walks the matches again and reads lines and makes a
// highlight only for those in top: a lookup per chosen rowid would expand a
// prefix query once per row, which takes seconds for `a*`.
const std::string& search_sql() {
  static const std::string sql = [] {
    const std::string bits = std::to_string(storage::core_schema::CHUNK_ROWID_BITS);
    return "WITH syms(file_id, line, strength) AS MATERIALIZED ("
           "SELECT json_extract(value, '$[0]'), json_extract(value, '$[1]'), json_extract(value, '$[2]') "
           "FROM json_each(?1)), "
           "defs(rid, strength) AS MATERIALIZED ("
           "SELECT c.rowid, max(y.strength) FROM (SELECT DISTINCT file_id FROM syms) AS sf "
           "CROSS JOIN code_chunks AS c ON c.rowid BETWEEN sf.file_id << " + bits +
           " AND ((sf.file_id + 1) << " + bits + ") - 1 "
           "CROSS JOIN syms AS y ON y.file_id = sf.file_id AND y.line BETWEEN c.start_line AND c.end_line "
           "GROUP BY c.rowid), "
           "top(rid, strength, rank) AS MATERIALIZED ("
           "SELECT m.rowid, coalesce(d.strength, 0), bm25(code_chunks) "
           "FROM code_chunks AS m LEFT JOIN defs AS d ON d.rid = m.rowid WHERE code_chunks MATCH ?2 "
           "ORDER BY 2 DESC, 3, 1 LIMIT ?3) "
           "SELECT f.path, code_chunks.start_line, code_chunks.end_line, highlight(code_chunks, 0, char(1), char(2)), "
           "t.strength, t.rank FROM code_chunks CROSS JOIN top AS t ON t.rid = code_chunks.rowid "
           "JOIN files AS f ON f.id = t.rid >> " + bits + " WHERE code_chunks MATCH ?2 ORDER BY t.strength DESC, t.rank, t.rid";
  }();
  return sql;
}

// The symbols of the names in ?1: file, line, KIND_RANK and the name as
// qualified inside its file.
const std::string& symbols_sql() {
  static const std::string sql = "SELECT s.file_id, s.start_line, " + std::string(KIND_RANK) +
                                 ", substr(s.fqn, length(f.path) + 3) FROM symbols AS s JOIN files AS f ON "
                                 "f.id = s.file_id WHERE s.name IN (SELECT value FROM json_each(?1)) AND " + NOT_ANCHOR;
  return sql;
}

// Tier 0: the exact name; 1: the qualified name, whole (path::scope::name)
// or from a scope on (scope::name), its own name among the candidates in ?2;
// 2: the names in [?4, ?5), whose qualified name ends in ?6 followed by the
// name when ?6 is not empty. Every branch starts from idx_symbols_name: a
// qualified name ends in the symbol's name. Within a tier: by KIND_RANK,
// then the fewer enclosing scopes (q is the name as qualified inside its
// file), so that std::vector comes before a nested namespace's vector and a
// free function before a method, then the shorter path. Every row of tiers 0
// and 1 comes back, for see_by_includes; of tier 2 only ?3.
const std::string& definitions_sql() {
  static const std::string sql =
      "WITH m(id, tier) AS ("
      "SELECT id, 0 FROM symbols WHERE name = ?1 "
      "UNION ALL SELECT id, 1 FROM symbols WHERE name IN (SELECT value FROM json_each(?2)) AND (fqn = ?1 OR "
      "(substr(fqn, -length(?1)) = ?1 AND substr(fqn, -length(?1) - 1, 1) IN (':', '.'))) "
      "UNION ALL SELECT id, 2 FROM symbols WHERE name >= ?4 AND name < ?5 AND (?6 = '' OR "
      "(substr(fqn, -length(name) - length(?6)) = ?6 || name AND "
      "substr(fqn, -length(name) - length(?6) - 1, 1) IN (':', '.')))) "
      "SELECT s.kind, f.path, s.start_line, s.fqn, s.signature, s.name, min(m.tier) AS tier, "
      + std::string(KIND_RANK) + " AS kind_rank, "
      "substr(s.fqn, length(f.path) + 3) AS q, s.file_id "
      "FROM m JOIN symbols AS s ON s.id = m.id JOIN files AS f ON f.id = s.file_id WHERE " + NOT_ANCHOR +
      " GROUP BY s.id ORDER BY tier, kind_rank DESC, "
      "length(q) - length(replace(replace(q, '::', ':'), '.', '')), "
      "length(f.path), f.path, s.name, s.start_line LIMIT ?3 + (SELECT count(*) FROM m WHERE tier < 2)";
  return sql;
}

// The whole include and import graph, reversed: the files that include each
// file, by anchor, numbered densely so that a walk marks a flat array.
class IncludeGraph {
 public:
  explicit IncludeGraph(Database& db) {
    // Two text values rather than a row object per edge: the memory a query
    // first touches costs more than parsing numbers.
    const auto row = db.fetchone("SELECT count(*), group_concat(target_id), group_concat(source_id) FROM edges "
                                 "WHERE kind IN ('includes', 'imports')");
    if (!row || (*row)[1].is_null()) return;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> edges;  // (included, including)
    edges.reserve(static_cast<std::size_t>((*row)[0].as_int()));
    numbers_.reserve(edges.capacity() / 2);
    const auto number = [&](std::int64_t id) {
      const auto [it, added] = numbers_.emplace(id, static_cast<std::uint32_t>(ids_.size()));
      if (added) ids_.push_back(id);
      return it->second;
    };
    const std::string_view targets = (*row)[1].as_text(), sources = (*row)[2].as_text();
    for (const char *t = targets.data(), *s = sources.data(); t < targets.data() + targets.size();) {
      std::int64_t target = 0, source = 0;
      t = std::from_chars(t, targets.data() + targets.size(), target).ptr + 1;
      s = std::from_chars(s, sources.data() + sources.size(), source).ptr + 1;
      edges.emplace_back(number(target), number(source));
    }
    first_.assign(ids_.size() + 1, 0);
    for (const auto& e : edges) ++first_[e.first + 1];
    for (std::size_t i = 1; i < first_.size(); ++i) first_[i] += first_[i - 1];
    including_.resize(edges.size());
    auto next = first_;
    for (const auto& e : edges) including_[next[e.first]++] = e.second;
    mark_.assign(ids_.size(), 0);
  }

  // Whether `from` includes `to`: itself, or with `through`, by way of
  // other files too.
  bool includes(std::int64_t from, std::int64_t to, bool through) {
    const auto f = find(from), t = find(to);
    if (!f || !t) return false;
    if (!through) return std::find(including(*t).begin(), including(*t).end(), *f) != including(*t).end();
    bool found = false;
    walk(*t, [&](std::uint32_t n) {
      found = n == *f;
      return !found;
    });
    return found;
  }

  // The one file that includes `anchor`; none when no file or several do.
  std::optional<std::int64_t> only_includer(std::int64_t anchor) const {
    const auto n = find(anchor);
    if (!n || including(*n).size() != 1) return std::nullopt;
    return ids_[including(*n).front()];
  }

  // How many files include `anchor`, directly or through other files.
  std::int64_t reach(std::int64_t anchor) {
    const auto start = find(anchor);
    std::int64_t seen = 0;
    if (start) {
      walk(*start, [&](std::uint32_t) {
        ++seen;
        return true;
      });
    }
    return seen;
  }

 private:
  std::optional<std::uint32_t> find(std::int64_t id) const {
    const auto it = numbers_.find(id);
    if (it == numbers_.end()) return std::nullopt;
    return it->second;
  }
  // Calls `reached` once for every file that includes `start`, directly or
  // not, until it returns false.
  template <class Reached>
  void walk(std::uint32_t start, Reached&& reached) {
    ++walk_;
    mark_[start] = walk_;
    std::vector<std::uint32_t> todo{start};
    while (!todo.empty()) {
      const auto at = todo.back();
      todo.pop_back();
      for (const auto n : including(at)) {
        if (mark_[n] == walk_) continue;
        mark_[n] = walk_;
        if (!reached(n)) return;
        todo.push_back(n);
      }
    }
  }
  std::span<const std::uint32_t> including(std::uint32_t n) const {
    return std::span(including_).subspan(first_[n], first_[n + 1] - first_[n]);
  }

  std::unordered_map<std::int64_t, std::uint32_t> numbers_;  // anchor id -> number
  std::vector<std::int64_t> ids_;         // by number
  std::vector<std::uint32_t> first_;      // where each file's includers start in including_
  std::vector<std::uint32_t> including_;  // the includers, by number
  std::vector<std::uint32_t> mark_;       // the last walk that reached each file
  std::uint32_t walk_ = 0;
};

// What see_by_includes asks of the include graph, for a given set of anchors.
// Most names are defined in files that few others include: the files that
// include those, directly or not, come from one recursive query that stops
// after include_rows_in_sql rows. Past that, loading the whole graph once is
// cheaper than following it edge by edge in SQL.
class Includers {
 public:
  Includers(Database& db, const std::vector<std::int64_t>& anchors) {
    const std::string list = json_numbers(anchors);
    const auto budget = static_cast<std::int64_t>(anchors.size()) + include_rows_in_sql;
    const auto reached = db.fetchall(
        "WITH RECURSIVE r(a, id) AS (SELECT value, value FROM json_each(?1) UNION "
        "SELECT r.a, e.source_id FROM r JOIN edges AS e ON e.target_id = r.id AND e.kind IN ('includes', 'imports') "
        "LIMIT ?2) SELECT a, id FROM r",
        {list, budget});
    if (static_cast<std::int64_t>(reached.size()) >= budget) {
      whole_.emplace(db);
      return;
    }
    for (const auto& row : reached) {
      if (row[0].as_int() != row[1].as_int()) reached_[row[0].as_int()].insert(row[1].as_int());
    }
    for (const auto& row : db.fetchall("SELECT target_id, source_id FROM edges WHERE target_id IN "
                                       "(SELECT value FROM json_each(?1)) AND kind IN ('includes', 'imports')",
                                       {list})) {
      direct_[row[0].as_int()].insert(row[1].as_int());
    }
  }

  // Whether `from` includes `to` (one of the anchors): itself, or with
  // `through`, by way of other files too.
  bool includes(std::int64_t from, std::int64_t to, bool through) {
    if (whole_) return whole_->includes(from, to, through);
    const auto& within = through ? reached_ : direct_;
    const auto it = within.find(to);
    return it != within.end() && it->second.contains(from);
  }

  // The one file that includes `anchor`; none when no file or several do.
  std::optional<std::int64_t> only_includer(std::int64_t anchor) const {
    if (whole_) return whole_->only_includer(anchor);
    const auto it = direct_.find(anchor);
    if (it == direct_.end() || it->second.size() != 1) return std::nullopt;
    return *it->second.begin();
  }

  // How many files include `anchor`, directly or through other files.
  std::int64_t reach(std::int64_t anchor) {
    if (whole_) return whole_->reach(anchor);
    const auto it = reached_.find(anchor);
    return it == reached_.end() ? 0 : static_cast<std::int64_t>(it->second.size());
  }

 private:
  std::optional<IncludeGraph> whole_;
  std::unordered_map<std::int64_t, std::unordered_set<std::int64_t>> reached_, direct_;
};

// What see_by_includes needs of a symbol, and what it finds.
struct Seen {
  std::int64_t tier, kind_rank;
  std::string q;
  std::int64_t file_id;
  std::int64_t anchor = 0;  // the file's, 0 for a file without one
  std::int64_t by = 0;      // the files that see it
  bool piece = false;
  // Higher first within a tier.
  auto key() const { return std::make_tuple(kind_rank == 4, by, !piece); }
};

// Within a tier, the definition that more of the repository sees comes
// first: the one in the file that the most files include, directly or
// through others, so that the C library's header answers for printf before
// a project's own, and a fallback in a header that few include does not
// hide the definition that everybody gets. Two files that are one thing
// count as one: a definition in a file that includes a declaration of the
// same qualified name implements it (foo.cpp, foo.hpp) and is seen as
// widely; through other files too when the name has a scope, while a bare
// name may be another thing (a library's own printf that ends up including
// stdio.h); and a file that only the declaring file includes is a piece of it
// (stdio.h pulls in bits/stdio2.h for its checked variants), seen as widely
// but behind it. Types still come first, as KIND_RANK has it (Seen::key).
// Nothing is counted, and every key is equal, for symbols all in one file.
void see_by_includes(Database& db, std::vector<Seen>& rows) {
  std::unordered_map<std::int64_t, std::int64_t> anchors;  // file id -> its anchor
  for (const auto& r : rows) {
    if (r.tier < 2) anchors.emplace(r.file_id, 0);
  }
  if (anchors.size() < 2) return;
  // A file's anchor is its first row, as the index writes it: one seek in
  // idx_symbols_file, without reading the row. A file whose first row were
  // anything else would only find no include edge.
  std::vector<std::int64_t> file_ids;
  for (const auto& [file_id, anchor] : anchors) file_ids.push_back(file_id);
  for (const auto& row : db.fetchall("SELECT value, (SELECT min(id) FROM symbols WHERE file_id = value) "
                                     "FROM json_each(?1)", {json_numbers(file_ids)})) {
    if (!row[1].is_null()) anchors[row[0].as_int()] = row[1].as_int();
  }
  std::unordered_map<std::int64_t, std::int64_t> reach;  // anchor -> files that include it
  for (auto& r : rows) {
    if (r.tier >= 2) continue;
    r.anchor = anchors[r.file_id];
    if (r.anchor) reach.emplace(r.anchor, 0);
  }
  std::vector<std::int64_t> wanted;
  for (const auto& [anchor, n] : reach) wanted.push_back(anchor);
  Includers includers(db, wanted);
  for (auto& [anchor, n] : reach) n = includers.reach(anchor);
  std::unordered_map<std::string_view, std::vector<const Seen*>> declared;
  for (auto& r : rows) {
    if (r.tier >= 2 || !r.anchor) continue;
    r.by = reach.at(r.anchor);
    if (r.kind_rank == 2) declared[r.q].push_back(&r);
  }
  for (auto& r : rows) {
    if (r.tier >= 2 || !r.anchor || r.kind_rank == 2) continue;
    const auto it = declared.find(r.q);
    if (it == declared.end()) continue;
    const auto only = includers.only_includer(r.anchor);
    for (const auto* decl : it->second) {
      if (decl->anchor == r.anchor) continue;
      if (only == decl->anchor) {
        r.by = decl->by;
        r.piece = true;
        break;
      }
      const bool scoped = r.q.find_first_of(":.") != std::string::npos;
      if (r.kind_rank >= 3 && includers.includes(r.anchor, decl->anchor, scoped)) r.by = std::max(r.by, decl->by);
    }
  }
}

// Where the last part of a qualified name starts: after the last "::" or ".".
std::size_t last_part(std::string_view name) {
  const auto colons = name.rfind("::");
  const auto dot = name.rfind('.');
  std::size_t at = 0;
  if (colons != std::string_view::npos) at = colons + 2;
  if (dot != std::string_view::npos && dot + 1 > at) at = dot + 1;
  return at;
}

// The names that a qualified name may end in, as a JSON array: what follows
// each "::" and each "." in it, so that a name holding a dot itself is found
// too. Empty for a name without either: tier 0 has it.
std::string own_name_candidates(std::string_view qualified) {
  nlohmann::json names = nlohmann::json::array();
  for (std::size_t i = 0; i < qualified.size(); ++i) {
    if (qualified[i] == '.') names.push_back(qualified.substr(i + 1));
    if (qualified.substr(i).starts_with("::")) names.push_back(qualified.substr(i + 2));
  }
  // Typed text need not be UTF-8; a replaced byte matches no stored name.
  return names.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

double since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

FtsQuery fts_query(std::string_view typed) {
  QueryWriter grouped(typed, true);
  if (grouped.run()) return std::move(grouped.query);
  QueryWriter plain(typed, false);
  plain.run();
  return std::move(plain.query);
}

std::optional<std::pair<std::int64_t, std::int64_t>> marked_lines(const std::string& text) {
  const auto first = text.find('\x01');
  const auto last = text.rfind('\x02');
  if (first == std::string::npos || last == std::string::npos) return std::nullopt;
  auto lines_before = [&](std::size_t pos) {
    return static_cast<std::int64_t>(std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(pos), '\n'));
  };
  return std::make_pair(lines_before(first), lines_before(last));
}

std::string first_marked_line(const std::string& text) {
  const auto at = text.find('\x01');
  if (at == std::string::npos) return {};
  const auto newline = text.rfind('\n', at);
  const auto begin = newline == std::string::npos ? 0 : newline + 1;
  const auto end = text.find('\n', at);
  std::string line = text.substr(begin, (end == std::string::npos ? text.size() : end) - begin);
  std::erase(line, '\x01');
  std::erase(line, '\x02');
  const auto s = line.find_first_not_of(" \t");
  line = s == std::string::npos ? std::string() : line.substr(s);
  if (line.size() > 120) line = line.substr(0, 117) + "...";
  return line;
}

std::vector<Hit> search(Database& db, std::string_view typed, std::int64_t limit) {
  const auto query = fts_query(typed);
  // The chunks that hold a symbol the query names come first, in the order
  // find_definitions gives those symbols: each symbol's score packs Seen::key
  // and its KIND_RANK into one number that SQLite compares.
  std::vector<std::pair<std::int64_t, std::int64_t>> where;  // file id, line
  std::vector<Seen> seen;
  for (const auto& row : db.fetchall(symbols_sql(), {json_array(query.names)})) {
    where.emplace_back(row[0].as_int(), row[1].is_null() ? 0 : row[1].as_int());
    seen.push_back({0, row[2].as_int(), row[3].to_text(), row[0].as_int()});
  }
  see_by_includes(db, seen);
  std::string syms = "[";
  for (std::size_t i = 0; i < seen.size(); ++i) {
    const auto& r = seen[i];
    const std::int64_t score = ((((r.kind_rank == 4 ? std::int64_t{1} << 40 : 0) + r.by) * 2 + !r.piece) << 3) + r.kind_rank;
    syms += (i ? ",[" : "[") + std::to_string(where[i].first) + "," + std::to_string(where[i].second) + "," +
            std::to_string(score) + "]";
  }
  syms += "]";
  std::vector<storage::Row> rows;
  try {
    rows = db.fetchall(search_sql(), {syms, query.text, limit});
  } catch (const storage::Error& e) {
    // SQLITE_ERROR is what FTS5 raises for the query's text; locks and
    // damage are the caller's to report.
    if ((e.code() & 0xff) != 1) throw;
    throw QueryError(e.what());
  }
  std::vector<Hit> hits;
  hits.reserve(rows.size());
  for (const auto& row : rows) {
    Hit hit{row[0].to_text(), row[1].as_int(), row[2].as_int(), {}, row[4].as_int() > 0, row[5].as_double()};
    const auto& text = row[3].to_text();
    if (const auto lines = marked_lines(text)) {
      hit.end_line = hit.start_line + lines->second;
      hit.start_line += lines->first;
    }
    hit.snippet = first_marked_line(text);
    hits.push_back(std::move(hit));
  }
  return hits;
}

std::string format_hit(const Hit& hit) {
  std::string out = hit.path + ":" + std::to_string(hit.start_line);
  if (hit.end_line != hit.start_line) out += "-" + std::to_string(hit.end_line);
  if (!hit.snippet.empty()) out += "  " + hit.snippet;
  return out;
}

std::vector<Definition> find_definitions(Database& db, std::string_view name, std::int64_t limit) {
  const bool prefix = name.ends_with('*');
  const auto full = prefix ? name.substr(0, name.size() - 1) : name;
  if (full.empty()) throw std::invalid_argument("no name to look up");
  const auto at = last_part(full);
  std::string lo, hi, qualifier;
  if (prefix) {
    lo = full.substr(at);
    qualifier = full.substr(0, at);
    hi = lo;
    // The first string past every name that starts with `lo`; UTF-8 text
    // never holds 0xff, so the last byte can always be raised.
    while (!hi.empty() && static_cast<unsigned char>(hi.back()) == 0xff) hi.pop_back();
    if (hi.empty()) {
      hi = std::string(4, '\xff');
    } else {
      hi.back() = static_cast<char>(hi.back() + 1);
    }
  }
  std::vector<Definition> defs;
  std::vector<Seen> seen;
  for (const auto& row : db.fetchall(definitions_sql(), {full, own_name_candidates(full), limit, lo, hi, qualifier})) {
    Definition d{row[0].to_text(), row[1].to_text(), row[2].is_null() ? 0 : row[2].as_int(), {},
                 row[4].is_null() ? std::string() : row[4].to_text(), row[5].to_text(), row[3].to_text()};
    // fqn is "path::qualified name"; the scope is what precedes the name.
    std::string_view qualified = d.fqn;
    if (qualified.starts_with(d.path + "::")) qualified.remove_prefix(d.path.size() + 2);
    if (qualified.ends_with(d.name)) {
      qualified.remove_suffix(d.name.size());
      if (qualified.ends_with("::")) qualified.remove_suffix(2);
      else if (qualified.ends_with('.')) qualified.remove_suffix(1);
      d.scope = qualified;
    }
    defs.push_back(std::move(d));
    seen.push_back({row[6].as_int(), row[7].as_int(), row[8].to_text(), row[9].as_int()});
  }
  see_by_includes(db, seen);
  std::vector<std::size_t> order(defs.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  // definitions_sql's order decides between equals.
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return seen[a].tier != seen[b].tier ? seen[a].tier < seen[b].tier : seen[a].key() > seen[b].key();
  });
  std::vector<Definition> out;
  for (const auto i : order) {
    if (static_cast<std::int64_t>(out.size()) >= limit) break;
    out.push_back(std::move(defs[i]));
  }
  return out;
}

std::string format_definition(const Definition& d) {
  std::string out = d.kind + "  " + d.path + ":" + std::to_string(d.line) + "  ";
  if (!d.scope.empty()) out += d.scope + (d.fqn.ends_with("." + d.name) ? "." : "::");
  return out + d.name + d.signature;
}

DefinitionProbe probe_definition(Database& db, std::string_view name, std::string_view defining_path,
                                 std::int64_t limit) {
  DefinitionProbe probe;
  auto start = std::chrono::steady_clock::now();
  const auto defs = find_definitions(db, name, limit);
  probe.def_seconds = since(start);
  for (std::size_t i = 0; i < defs.size() && !probe.def_rank; ++i) {
    if (defs[i].path == defining_path) probe.def_rank = static_cast<std::int64_t>(i) + 1;
  }
  start = std::chrono::steady_clock::now();
  const auto hits = search(db, name, limit);
  probe.search_seconds = since(start);
  for (std::size_t i = 0; i < hits.size() && !probe.search_rank; ++i) {
    if (hits[i].defines && hits[i].path == defining_path) probe.search_rank = static_cast<std::int64_t>(i) + 1;
  }
  return probe;
}

}  // namespace marsk_quorvi::cli
