// The tables of a code index.
//
// Each table is created together with its own indexes and triggers, and only
// when the file has no object of that name: a table that exists keeps its
// shape, its indexes and its rows, whatever build made it. Bringing an older
// table to the current shape is the migration registry's work, which runs
// right after this at every open; an index on a column that a migration adds
// therefore belongs to that migration, not to the bundle here, because the
// bundle would fail on the older table that lacks the column.
//
// Foreign keys (enforced: every connection runs with foreign_keys=ON):
//   files.component_id  -> components.id  ON DELETE SET NULL
//   symbols.file_id     -> files.id       ON DELETE CASCADE
//   symbols.parent_id   -> symbols.id     ON DELETE CASCADE
//   edges.source_id     -> symbols.id     ON DELETE CASCADE
//   edges.target_id     -> symbols.id     ON DELETE CASCADE
//   external_imports.file_id -> files.id  ON DELETE CASCADE
// They are immediate, so a bulk copy has to insert parents first
// (components, files, symbols, edges, external_imports, index_errors) and a
// bulk delete has to remove children first. Every child column has an index,
// so that deleting a parent row does not scan its children.
//
// pending_references and index_errors name files by repository-relative path,
// not by id: a full rebuild renumbers `files`, and both tables describe a file
// whatever its id is now (pending_references also outlives a rebuild, which
// replaces only the index tables).
//
// Top-level anchors: the indexer keeps one `symbols` row per file with
// kind = 'module' and parent_id NULL, under which the file's other symbols
// hang. It is bookkeeping, never shown to users; every other kind is.
//
// code_chunks is an FTS5 table (text, start_line, end_line, exact). Its link to
// the file lives in the rowid (chunk_rowid: the file id in the high bits, the
// chunk number in the low CHUNK_ROWID_BITS). The rowid
// is one of the five columns a bulk copy carries (rowid, text, start_line,
// end_line, exact), so the link survives the copy without an extra column,
// and a file's chunks are one rowid range, which FTS5 scans directly. `exact`
// is 1 when the chunk is the file's text verbatim, 0 when it was derived
// (trimmed or normalised); only `text` is tokenised. The trigger
// files_delete_code_chunks deletes that range when a `files` row goes.
#include "marsk_quorvi/storage/core_schema.hpp"

#include <string>

#include "migrations.hpp"

namespace marsk_quorvi::storage::core_schema {

namespace {

struct TableDdl {
  const char* name;
  const char* ddl;
};

// Order matters only for foreign keys: a table is created after the tables it
// refers to.
constexpr TableDdl TABLES[] = {
    {"schema_info", R"sql(
CREATE TABLE schema_info (
  key TEXT PRIMARY KEY, value TEXT
);
)sql"},
    {"components", R"sql(
CREATE TABLE components (
  id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, root_path TEXT, description TEXT
);
)sql"},
    {"files", R"sql(
CREATE TABLE files (
  id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, language TEXT, content_hash TEXT,
  size INTEGER, mtime REAL, component_id INTEGER REFERENCES components(id) ON DELETE SET NULL,
  stale INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX IF NOT EXISTS idx_files_language ON files(language);
CREATE INDEX IF NOT EXISTS idx_files_component ON files(component_id);
CREATE INDEX IF NOT EXISTS idx_files_stale ON files(id) WHERE stale <> 0;
)sql"},
    {"symbols", R"sql(
CREATE TABLE symbols (
  id INTEGER PRIMARY KEY, file_id INTEGER NOT NULL REFERENCES files(id) ON DELETE CASCADE,
  name TEXT NOT NULL, fqn TEXT NOT NULL, kind TEXT NOT NULL, start_line INTEGER, end_line INTEGER,
  parent_id INTEGER REFERENCES symbols(id) ON DELETE CASCADE, signature TEXT, docstring TEXT
);
CREATE INDEX IF NOT EXISTS idx_symbols_file ON symbols(file_id);
CREATE INDEX IF NOT EXISTS idx_symbols_name ON symbols(name);
CREATE INDEX IF NOT EXISTS idx_symbols_parent ON symbols(parent_id);
)sql"},
    {"edges", R"sql(
CREATE TABLE edges (
  id INTEGER PRIMARY KEY, source_id INTEGER NOT NULL REFERENCES symbols(id) ON DELETE CASCADE,
  target_id INTEGER NOT NULL REFERENCES symbols(id) ON DELETE CASCADE, kind TEXT NOT NULL,
  resolution TEXT NOT NULL DEFAULT 'exact', line INTEGER
);
CREATE INDEX IF NOT EXISTS idx_edges_source ON edges(source_id, kind);
CREATE INDEX IF NOT EXISTS idx_edges_target ON edges(target_id, kind);
)sql"},
    {"external_imports", R"sql(
CREATE TABLE external_imports (
  id INTEGER PRIMARY KEY, file_id INTEGER NOT NULL REFERENCES files(id) ON DELETE CASCADE,
  module TEXT NOT NULL, name TEXT, alias TEXT, line INTEGER
);
CREATE INDEX IF NOT EXISTS idx_external_imports_file ON external_imports(file_id);
CREATE INDEX IF NOT EXISTS idx_external_imports_module ON external_imports(module);
)sql"},
    {"pending_references", R"sql(
CREATE TABLE pending_references (
  id INTEGER PRIMARY KEY, source_path TEXT NOT NULL, source_fqn TEXT NOT NULL,
  target_name TEXT NOT NULL, kind TEXT NOT NULL, line INTEGER
);
CREATE INDEX IF NOT EXISTS idx_pending_references_target ON pending_references(target_name);
CREATE INDEX IF NOT EXISTS idx_pending_references_source ON pending_references(source_path);
)sql"},
    {"index_errors", R"sql(
CREATE TABLE index_errors (
  id INTEGER PRIMARY KEY, file_path TEXT NOT NULL, error_type TEXT NOT NULL, message TEXT,
  line INTEGER
);
CREATE INDEX IF NOT EXISTS idx_index_errors_file ON index_errors(file_path, error_type);
)sql"},
};

bool has_object(Cursor& cursor, const char* name) {
  // Any object of the name counts: a view or an index of that name would make
  // the CREATE TABLE fail, and such a file is not ours to repair here.
  cursor.execute("SELECT 1 FROM main.sqlite_master WHERE name = ?", {name});
  return cursor.fetchone().has_value();
}

}  // namespace

void create_tables(Cursor& cursor) {
  const bool new_index = !has_object(cursor, "files");
  for (const auto& table : TABLES) {
    if (!has_object(cursor, table.name)) migrations::run_ddl(cursor, table.ddl);
  }
  if (!has_object(cursor, "code_chunks")) migrations::run_ddl(cursor, migrations::CODE_CHUNKS_DDL);
  // A file that had no index tables now has the current shape throughout, so
  // it starts at this build's version and the registry has nothing to do.
  // An existing version row is kept (OR IGNORE).
  if (new_index) {
    cursor.execute("INSERT OR IGNORE INTO schema_info (key, value) VALUES ('version', ?)",
                   {migrations::SCHEMA_VERSION});
  }
}

}  // namespace marsk_quorvi::storage::core_schema
