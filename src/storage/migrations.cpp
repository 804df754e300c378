// The migration registry.
//
// Each step brings a file from the version before it to its own version and
// records that version in schema_info inside the same transaction, so a file
// is always exactly at the version of the last step that committed. Steps run
// after create_tables, which has already made every missing table in its
// current shape; each step therefore looks at the shape it finds and leaves a
// table that already has the current shape as it is.
#include "migrations.hpp"

#include <algorithm>
#include <charconv>
#include <exception>

#include "log.hpp"
#include "marsk_quorvi/storage/core_schema.hpp"

namespace marsk_quorvi::storage::migrations {

const std::string OLDEST_VERSION = "1.0.0";
const std::string SCHEMA_VERSION = "3.2.0";

namespace {
const std::string kBits = std::to_string(core_schema::CHUNK_ROWID_BITS);
const std::string kMaxChunks = std::to_string(core_schema::MAX_CHUNKS_PER_FILE);
const std::string kLastChunk = std::to_string(core_schema::MAX_CHUNKS_PER_FILE - 1);
}  // namespace

const std::string CODE_CHUNKS_DDL = R"sql(
CREATE VIRTUAL TABLE IF NOT EXISTS main.code_chunks USING fts5(
  text,
  start_line UNINDEXED,
  end_line UNINDEXED,
  exact UNINDEXED
);
CREATE TRIGGER IF NOT EXISTS main.files_delete_code_chunks AFTER DELETE ON files BEGIN
  DELETE FROM code_chunks WHERE rowid BETWEEN (old.id << )sql" +
                                    kBits + ") AND (old.id << " + kBits + ") + " + kLastChunk + R"sql(;
END;
)sql";

namespace {

// Dotted versions compare component by component as numbers, so that 3.10.0
// comes after 3.9.0 and a file made by a newer build (10.0.0) is not taken for
// an old one. Missing components count as 0 ("3.1" is "3.1.0"); a component
// that does not start with digits counts as 0 too.
std::vector<long long> version_parts(std::string_view version) {
  std::vector<long long> parts;
  std::size_t start = 0;
  while (true) {
    const std::size_t dot = version.find('.', start);
    const std::string_view part = version.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start);
    long long n = 0;
    std::from_chars(part.data(), part.data() + part.size(), n);
    parts.push_back(n);
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  while (!parts.empty() && parts.back() == 0) parts.pop_back();
  return parts;
}

int compare_versions(std::string_view a, std::string_view b) {
  const auto pa = version_parts(a);
  const auto pb = version_parts(b);
  const auto c = std::lexicographical_compare_three_way(pa.begin(), pa.end(), pb.begin(), pb.end());
  return c < 0 ? -1 : c > 0 ? 1 : 0;
}

// Table names come from the fixed list of the steps below, never from callers.
std::vector<std::string> columns(Cursor& cursor, const std::string& table) {
  std::vector<std::string> names;
  for (const auto& row : cursor.execute("PRAGMA table_info(" + table + ")").fetchall()) {
    names.push_back(row[1].to_text());
  }
  return names;
}

bool has_column(Cursor& cursor, const std::string& table, const std::string& column) {
  const auto names = columns(cursor, table);
  return std::find(names.begin(), names.end(), column) != names.end();
}

// 2.0.0: files carry a stale mark, set when an extractor changes so that the
// next index pass re-parses them.
void add_stale_mark(Cursor& c) {
  if (!has_column(c, "files", "stale")) {
    c.execute("ALTER TABLE files ADD COLUMN stale INTEGER NOT NULL DEFAULT 0");
  }
  c.execute("CREATE INDEX IF NOT EXISTS idx_files_stale ON files(id) WHERE stale <> 0");
}

// 3.0.0: an indexing error may name the line it is at.
void add_error_line(Cursor& c) {
  if (!has_column(c, "index_errors", "line")) c.execute("ALTER TABLE index_errors ADD COLUMN line INTEGER");
}

// 3.1.0: code_chunks links a chunk to its file through the rowid instead of a
// file_id column, and says whether the chunk is the file's verbatim text. The
// chunks of the 3.0 shape (file_id, text, start_line, end_line) are carried
// over, numbered per file in their old order; chunks of files that no longer
// exist are dropped. A table of any other shape cannot be read reliably: it is
// made again empty and every file is marked stale, so that the next index pass
// writes its chunks again. (The page-size rewrite that completes 3.1.0 runs
// after the registry, outside any step's transaction.)
void key_chunks_by_rowid(Cursor& c) {
  const auto shape = columns(c, "code_chunks");
  const std::vector<std::string> current{"text", "start_line", "end_line", "exact"};
  const std::vector<std::string> v3_0{"file_id", "text", "start_line", "end_line"};
  if (shape.empty() || shape == current) {
    // Missing table, or one already current whose trigger may be missing:
    // both statements of the DDL are conditional.
    run_ddl(c, CODE_CHUNKS_DDL);
    return;
  }
  // The old trigger deletes by file_id, a column the new table lacks.
  c.execute("DROP TRIGGER IF EXISTS files_delete_code_chunks");
  if (shape == v3_0) {
    c.execute("ALTER TABLE code_chunks RENAME TO code_chunks_v3_0");
    run_ddl(c, CODE_CHUNKS_DDL);
    c.execute(
        "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
        "SELECT (file_id << " + kBits + ") + n, text, start_line, end_line, 0 FROM ("
        "SELECT file_id, text, start_line, end_line, "
        "row_number() OVER (PARTITION BY file_id ORDER BY rowid) - 1 AS n "
        "FROM code_chunks_v3_0 WHERE file_id IN (SELECT id FROM files)) "
        "WHERE n < " + kMaxChunks);
    c.execute("DROP TABLE code_chunks_v3_0");
  } else {
    c.execute("DROP TABLE code_chunks");
    run_ddl(c, CODE_CHUNKS_DDL);
    c.execute("UPDATE files SET stale = 1");
  }
}

// 3.2.0: symbols lose their index on the qualified name. A qualified name
// ends in the symbol's own name, so a lookup by it starts from the index on
// `name`; the other index cost a fifth of the file and as much of every swap,
// which rewrites it whole.
void drop_qualified_name_index(Cursor& c) { c.execute("DROP INDEX IF EXISTS idx_symbols_fqn"); }

struct Step {
  const char* version;
  void (*apply)(Cursor&);
};

// Oldest first.
constexpr Step STEPS[] = {
    {"2.0.0", &add_stale_mark},
    {"3.0.0", &add_error_line},
    {"3.1.0", &key_chunks_by_rowid},
    {"3.2.0", &drop_qualified_name_index},
};

// Called from the handler of a step's failure; the step's transaction has
// rolled back, so the file is still at `reached`.
[[noreturn]] void fail(const std::string& reached, const char* version, const char* what) {
  detail::log(spdlog::level::warn, "Schema migration from %s to %s failed\n%s", reached, version,
              detail::describe_exception(std::current_exception()));
  throw SchemaMigrationError("Schema migration to " + std::string(version) + " failed: " + what);
}

}  // namespace

std::string migrate(const Transaction& transaction, const std::string& version) {
  std::string reached = version;
  for (const auto& step : STEPS) {
    if (compare_versions(step.version, version) <= 0) continue;
    try {
      transaction([&](Cursor& cursor) {
        step.apply(cursor);
        // A file may reach the registry without the table (it is made with the
        // other tables at open); the version must still be recorded.
        cursor.execute("CREATE TABLE IF NOT EXISTS schema_info (key TEXT PRIMARY KEY, value TEXT)");
        cursor.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES ('version', ?)", {step.version});
      });
    } catch (const std::exception& e) {
      fail(reached, step.version, e.what());
    } catch (...) {
      fail(reached, step.version, "unknown error");
    }
    reached = step.version;
  }
  // A file recorded as "3.2" is at this build's version as much as "3.2.0".
  if (reached == version && compare_versions(version, SCHEMA_VERSION) == 0) return SCHEMA_VERSION;
  return reached;
}

std::int64_t mark_files_stale(Cursor& cursor, const std::vector<std::string>& languages) {
  if (languages.empty()) return 0;
  std::string sql = "UPDATE files SET stale = 1 WHERE language IN (";
  Params params;
  for (std::size_t i = 0; i < languages.size(); ++i) {
    sql += i ? ", ?" : "?";
    params.emplace_back(languages[i]);
  }
  sql += ")";
  cursor.execute(sql, params);
  return std::max<std::int64_t>(cursor.rowcount(), 0);
}

void run_ddl(Cursor& cursor, std::string_view ddl) { cursor.connection().executescript(std::string(ddl)); }

}  // namespace marsk_quorvi::storage::migrations
