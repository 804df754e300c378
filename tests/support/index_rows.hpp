// Rows of a code index for tests: a bulk seed, a staging file made from one, and probes of a database.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"

namespace marsk_quorvi::storage {
// Readable failure messages for count maps.
inline void PrintTo(const RowCounts& counts, std::ostream* os) { *os << counts.to_string(); }
}  // namespace marsk_quorvi::storage

namespace marsk_quorvi::testing {

namespace st = marsk_quorvi::storage;

// The tables a clear or a swap replaces.
inline const std::vector<std::string> kIndexTables = {"components",       "files",       "symbols", "edges",
                                                      "external_imports", "index_errors"};

// A bulk index made by SQL alone: `files` files in one component, `symbols`
// symbols spread over them, `edges` edges between consecutive symbols, one
// external import and one error row per 10 files, and, when `chunk_bytes` is
// positive, one chunk of that many bytes per file. `tag` makes the texts of
// one seed differ from another's.
struct Seed {
  std::int64_t files = 0, symbols = 0, edges = 0, chunk_bytes = 0;
  std::string tag = "a";
};

inline void seed_index(st::Database& db, const Seed& s) {
  // n(i) for i from 1 to the first parameter.
  const std::string n = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < ?) ";
  db.transaction([&](st::Cursor& c) {
    c.execute("INSERT INTO components (id, name) VALUES (1, ?)", {"core-" + s.tag});
    if (s.files <= 0) return;
    c.execute(n + "INSERT INTO files (id, path, language, content_hash, size, mtime) "
                  "SELECT i, ? || '/f' || i || '.py', 'py', 'h', i, 0 FROM n",
              {s.files, "src-" + s.tag});
    if (s.symbols > 0) {
      c.execute(n + "INSERT INTO symbols (id, file_id, name, fqn, kind, start_line, end_line) "
                    "SELECT i, 1 + (i % ?), ? || i, 'm.s' || i, 'function', i, i + 1 FROM n",
                {s.symbols, s.files, "s" + s.tag});
    }
    if (s.symbols > 1 && s.edges > 0) {
      c.execute(
          n + "INSERT INTO edges (source_id, target_id, kind) SELECT 1 + (i % ?), 1 + ((i + 1) % ?), 'calls' FROM n",
          {s.edges, s.symbols, s.symbols});
    }
    c.execute("INSERT INTO external_imports (file_id, module) SELECT id, 'os' FROM files WHERE id % 10 = 0");
    c.execute(
        "INSERT INTO index_errors (file_path, error_type, message, line) "
        "SELECT path, 'parse_error', 'bad', 1 FROM files WHERE id % 10 = 0");
    if (s.chunk_bytes > 0) {
      c.execute(
          "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
          "SELECT id << 20, ? || ' ' || id || ' ' || hex(randomblob(?)), 1, 100, 1 FROM files",
          {s.tag, s.chunk_bytes / 2});
    }
  });
}

// A complete staging file built by the same schema and seeded with `seed`,
// changed by `edit` before it is closed cleanly (WAL written back, log gone).
inline std::filesystem::path make_staging_file(const std::filesystem::path& p, const Seed& seed,
                                               const std::function<void(st::Database&)>& edit = {}) {
  st::Database staging(p);
  staging.connect();
  staging.create_schema();
  seed_index(staging, seed);
  if (edit) edit(staging);
  staging.close();
  return p;
}

inline std::int64_t count_rows(st::Database& db, const std::string& table) {
  return (*db.fetchone("SELECT COUNT(*) FROM " + table))[0].as_int();
}

inline bool has_table(st::Database& db, const std::string& name) {
  return !db.fetchall("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?", {name}).empty();
}

// Names of the databases attached to the writer connection ("main", ...).
inline std::vector<std::string> attached(st::Database& db) {
  std::vector<std::string> names;
  for (const auto& row : db.connection()->execute("PRAGMA database_list").fetchall()) names.push_back(row[1].to_text());
  return names;
}

}  // namespace marsk_quorvi::testing
