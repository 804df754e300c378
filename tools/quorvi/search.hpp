// Full-text search that puts definitions first, and the lookup of a symbol's
// definitions, over an index built by `quorvi-db index`.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"

namespace marsk_quorvi::cli {

// What the user typed, as an FTS5 query. Words, "phrases", prefix*, AND, OR,
// NOT, NEAR(...) and grouping parentheses keep their meaning; any other token
// (`a::b`, `foo(`, `x->y`, `a.b`, `foo-bar`, `#include`) becomes a quoted
// phrase, a trailing `*` staying a prefix mark.
struct FtsQuery {
  std::string text;
  std::size_t terms = 0;           // words, phrases and prefixes, operators not counted
  std::vector<std::string> names;  // identifiers the terms name, to find their definitions
};
FtsQuery fts_query(std::string_view typed);

// A query FTS5 rejects (an operator without an operand, an unterminated
// string, nothing to search for); the message is FTS5's.
class QueryError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Hit {
  std::string path;
  std::int64_t start_line = 0, end_line = 0;  // the lines from the first match to the last
  std::string snippet;                        // the first matching line, trimmed, at most 120 bytes
  bool defines = false;  // the chunk holds a definition, declaration or macro of a name the query names
  double rank = 0;       // bm25, lower is better
};

// The best `limit` chunks that match `typed`: those holding a symbol the
// query names first, in the order find_definitions puts those symbols (a
// type; the one that more files include; another definition, a
// declaration, a macro), then by bm25. The highlights are made for the
// chosen rows only. Raises QueryError for a query FTS5 rejects.
std::vector<Hit> search(storage::Database& db, std::string_view typed, std::int64_t limit);

// "path:start[-end]  snippet", one line without its newline.
std::string format_hit(const Hit& hit);

struct Definition {
  std::string kind, path;
  std::int64_t line = 0;
  std::string scope;      // the enclosing names ("ns::Class"), empty at file level
  std::string signature;  // empty when the extractor gave none
  std::string name, fqn;
};

// The definitions of `name`, best first: symbols of exactly that name, then
// those whose qualified name is `name` or ends in `::name` / `.name`, then,
// for `name*`, every name with that prefix. Within each group: types; then,
// for the first two groups, the symbols in files that more files include,
// directly or through others (a definition in a file that includes a
// declaration of the same qualified name, through other files too when the
// name has a scope, as far as that declaration; a file that only the
// declaring file includes behind it); then other definitions,
// declarations (prototypes, extern variables, members), macros; then the
// fewer enclosing scopes; then the shorter path. Raises
// std::invalid_argument for an empty name.
std::vector<Definition> find_definitions(storage::Database& db, std::string_view name, std::int64_t limit);

// How many files beyond the anchors the ranking of definitions follows
// include edges to in SQL before it loads the whole include graph instead.
// Both ways rank alike; a test sets 0 to take the second.
inline std::int64_t include_rows_in_sql = 512;

// "kind  path:line  scope  signature", the empty parts left out.
std::string format_definition(const Definition& d);

// Where one identifier's definition lands and how long it took, for the
// benchmark table: the 1-based position of the first row in `defining_path`
// among find_definitions(name) and among the hits of search(name) that
// define it, 0 when absent.
struct DefinitionProbe {
  std::int64_t def_rank = 0, search_rank = 0;
  double def_seconds = 0, search_seconds = 0;
};
DefinitionProbe probe_definition(storage::Database& db, std::string_view name, std::string_view defining_path,
                                 std::int64_t limit = 20);

// The lines of `text` (a chunk with FTS5 highlight marks \x01...\x02) on
// which the first and the last match fall, counted from 0; none without marks.
std::optional<std::pair<std::int64_t, std::int64_t>> marked_lines(const std::string& text);
// The line of the first mark, marks removed, leading blanks trimmed, cut to
// 120 bytes with "..." when longer; empty without marks.
std::string first_marked_line(const std::string& text);

}  // namespace marsk_quorvi::cli
