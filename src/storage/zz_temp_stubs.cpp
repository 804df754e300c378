// Temporary stand-ins until the schema and space units land; weak so the real
// definitions win.
#include "marsk_quorvi/storage/core_schema.hpp"
#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/migrations.hpp"

namespace marsk_quorvi::storage {

namespace migrations {
__attribute__((weak)) void run_ddl(Cursor& cursor, std::string_view ddl) {
  cursor.connection().executescript(std::string(ddl));
}
__attribute__((weak)) extern const std::string CODE_CHUNKS_DDL =
    "CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line UNINDEXED, end_line UNINDEXED, exact UNINDEXED);"
    "CREATE TRIGGER IF NOT EXISTS files_chunks_delete AFTER DELETE ON files BEGIN "
    "DELETE FROM code_chunks WHERE rowid BETWEEN (old.id << 20) AND (old.id << 20) + 1048575; END;";
}  // namespace migrations

namespace core_schema {
__attribute__((weak)) void create_tables(Cursor& cursor) {
  cursor.connection().executescript(R"(
CREATE TABLE IF NOT EXISTS schema_info (key TEXT PRIMARY KEY, value TEXT);
CREATE TABLE IF NOT EXISTS components (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE);
CREATE TABLE IF NOT EXISTS files (id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, language TEXT,
  content_hash TEXT, size INTEGER, mtime REAL, stale INTEGER NOT NULL DEFAULT 0,
  component_id INTEGER REFERENCES components(id));
CREATE TABLE IF NOT EXISTS symbols (id INTEGER PRIMARY KEY, file_id INTEGER NOT NULL REFERENCES files(id) ON DELETE CASCADE,
  name TEXT NOT NULL, fqn TEXT, kind TEXT NOT NULL, start_line INTEGER, end_line INTEGER,
  parent_id INTEGER REFERENCES symbols(id));
CREATE TABLE IF NOT EXISTS edges (id INTEGER PRIMARY KEY, source_id INTEGER NOT NULL REFERENCES symbols(id) ON DELETE CASCADE,
  target_id INTEGER REFERENCES symbols(id) ON DELETE CASCADE, kind TEXT NOT NULL, resolution TEXT);
CREATE TABLE IF NOT EXISTS external_imports (id INTEGER PRIMARY KEY, file_id INTEGER NOT NULL REFERENCES files(id) ON DELETE CASCADE,
  module TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS pending_references (id INTEGER PRIMARY KEY, file_id INTEGER, name TEXT);
CREATE TABLE IF NOT EXISTS index_errors (id INTEGER PRIMARY KEY, file_path TEXT NOT NULL, error_type TEXT NOT NULL,
  message TEXT, line INTEGER);
)");
  if (cursor.connection().execute("SELECT 1 FROM sqlite_master WHERE name = 'code_chunks'").fetchall().empty())
    migrations::run_ddl(cursor, migrations::CODE_CHUNKS_DDL);
}
}  // namespace core_schema

__attribute__((weak)) void Database::create_schema() {
  transaction([&](Cursor& c) { core_schema::create_tables(c); });
}
__attribute__((weak)) std::int64_t Database::index_generation() {
  auto r = fetchone("PRAGMA user_version");
  return r ? (*r)[0].as_int() : 0;
}
__attribute__((weak)) void Database::_bump_index_generation(Cursor* cursor) {
  const std::string sql = "PRAGMA user_version = " + std::to_string(index_generation() + 1);
  if (cursor) cursor->execute(sql); else execute(sql);
}
__attribute__((weak)) Compaction Database::compact() { return Compaction{}; }

}  // namespace marsk_quorvi::storage
