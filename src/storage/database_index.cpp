// Index replacement and health records: emptying the index for a full
// rebuild, swapping a staging file in atomically, and the figures and
// per-file error rows that health reporting reads.
#include <array>
#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <cerrno>

#include <sqlite3.h>

#include "database_impl.hpp"
#include "log.hpp"
#include "marsk_quorvi/models/symbol.hpp"
#include "migrations.hpp"
#include "undo.hpp"

namespace marsk_quorvi::storage::detail {

namespace {

// Children before parents: counting and deleting.
constexpr std::array<const char*, 6> cleared_tables = {"edges",         "external_imports", "symbols",
                                                       "files",         "components",       "index_errors"};
// Parents before children: every copied row finds the row its foreign key
// names already in place.
constexpr std::array<const char*, 6> insert_tables = {"components",       "files",       "symbols", "edges",
                                                      "external_imports", "index_errors"};

// The six deletions shared by clear_all and the swap. code_chunks has been
// dropped and re-created before this runs, so the trigger on files finds no
// chunk to delete row by row.
void delete_index_rows(Cursor& cursor) {
  cursor.execute("DELETE FROM edges");
  cursor.execute("DELETE FROM external_imports");
  cursor.execute("DELETE FROM symbols");
  cursor.execute("DELETE FROM files");
  cursor.execute("DELETE FROM components");
  cursor.execute("DELETE FROM index_errors");
}

// A rowcount reported as negative (not applicable) counts as no rows.
std::int64_t rows_changed(const Cursor& cursor) { return cursor.rowcount() > 0 ? cursor.rowcount() : 0; }

// The live table's columns, in table order, joined by ", ". The pragma names
// no schema, so with `stg` attached it still resolves to the live table,
// which is what decides the columns copied.
std::string column_list(Connection& conn, const char* table) {
  Cursor cursor = conn.execute(std::string("PRAGMA table_info(") + table + ")");
  std::string joined;
  for (const Row& row : cursor.fetchall()) {
    if (!joined.empty()) joined += ", ";
    joined += row[1].to_text();
  }
  cursor.close();
  return joined;
}

// A staging file with a write-ahead log beside it is read through that log.
// When the detachment closes the last connection to it, SQLite would write
// the log back into the file and delete the log: the file handed over to be
// read would change under its owner. While such a file is attached, closing
// it leaves its log alone; the previous setting comes back afterwards.
class KeepStagingLog {
 public:
  KeepStagingLog(sqlite3* db, const std::filesystem::path& staging_path) : db_(db) {
    std::error_code ec;
    if (db_ == nullptr || !std::filesystem::exists(staging_path.string() + "-wal", ec)) return;
    sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, -1, &previous_);
    sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    active_ = true;
  }
  ~KeepStagingLog() {
    if (active_) sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, previous_, nullptr);
  }
  KeepStagingLog(const KeepStagingLog&) = delete;
  KeepStagingLog& operator=(const KeepStagingLog&) = delete;

 private:
  sqlite3* db_;
  int previous_ = 0;
  bool active_ = false;
};

// Detaches a `stg` that an earlier swap could not detach. A statement still
// open on the writer connection (a cursor from `execute` is read after the
// lock is gone) keeps the attached file locked, so that swap's DETACH failed
// and was let pass; left attached, it would make every later ATTACH fail with
// "database stg is already in use". Once that statement has ended it goes.
void detach_leftover_staging(Connection& conn) {
  bool attached = false;
  for (const Row& row : conn.execute("PRAGMA database_list").fetchall()) attached = attached || row[1].to_text() == "stg";
  if (!attached) return;
  try {
    conn.execute("DETACH DATABASE stg");
  } catch (const Error&) {
    // Still held: the ATTACH below then reports it.
  }
}

// What the swap changes on the writer connection for the copy, and gives
// back after it, whatever happened. It holds the lock, so no other statement
// runs there meanwhile.
//
// Foreign keys: row-by-row enforcement makes the copy several times slower
// (every copied row looks up its parents, every parent row looks for children
// already in place, and no deletion may simply truncate its table). When no
// table outside the index tables refers to them, enforcement is off for the
// copy and every copied key is checked once, inside the transaction, before
// the commit: a staging file with a dangling reference still fails the swap
// and changes nothing. Where another table refers to the index tables, its
// cascades must run, and enforcement stays on.
//
// Cache: the copy rewrites every page of the index tables and their indexes,
// whose rows arrive in another order than each index's; with SQLite's
// default cache of 2 MiB most index pages would be written out and read back
// many times over. 48 MiB does as well as 64 or 128 and keeps what the swap
// adds to the process under 64 MiB.
class SwapSettings {
 public:
  static constexpr std::int64_t kCacheKiB = 49152;

  explicit SwapSettings(Connection& conn) : conn_(conn), cache_size_(pragma_int(conn, "cache_size")) {
    const bool keys_off = may_check_keys_once(conn);
    try {
      if (keys_off) {
        conn.execute("PRAGMA foreign_keys=OFF");
        keys_checked_once_ = true;
      }
      conn.execute("PRAGMA cache_size=-" + std::to_string(kCacheKiB));
    } catch (...) {
      restore();
      throw;
    }
  }
  ~SwapSettings() { restore(); }
  SwapSettings(const SwapSettings&) = delete;
  SwapSettings& operator=(const SwapSettings&) = delete;

  // The error that enforcement would have raised at the copy.
  void check_keys(Cursor& cursor) const {
    if (!keys_checked_once_) return;
    for (const char* table : insert_tables) {
      cursor.execute(std::string("PRAGMA main.foreign_key_check(") + table + ")");
      if (!cursor.fetchall().empty()) throw Error("FOREIGN KEY constraint failed", SQLITE_CONSTRAINT_FOREIGNKEY);
    }
  }

 private:
  static bool may_check_keys_once(Connection& conn) {
    // Inside a transaction the foreign_keys pragma would be ignored.
    if (sqlite3_get_autocommit(conn.handle()) == 0 || pragma_int(conn, "foreign_keys") == 0) return false;
    std::string tables;
    for (const char* table : insert_tables) tables += std::string(tables.empty() ? "'" : ", '") + table + "'";
    return !conn.execute("SELECT 1 FROM main.sqlite_master AS m, pragma_foreign_key_list(m.name, 'main') AS k "
                         "WHERE m.type = 'table' AND lower(m.name) NOT IN (" + tables +
                         ") AND lower(k.\"table\") IN (" + tables + ") LIMIT 1")
                .fetchone()
                .has_value();
  }
  void restore() noexcept {
    for (const std::string& sql : {std::string(keys_checked_once_ ? "PRAGMA foreign_keys=ON" : ""),
                                   "PRAGMA cache_size=" + std::to_string(cache_size_)}) {
      try {
        if (!sql.empty()) conn_.execute(sql);
      } catch (...) {
        log_swallowed("giving the writer connection its settings back after a swap");
      }
    }
  }

  Connection& conn_;
  const std::int64_t cache_size_;
  bool keys_checked_once_ = false;
};

}  // namespace

// ------------------------------------------------------------------ code_chunks

bool _has_code_chunks(Cursor& cursor, std::string_view schema) {
  // The schema name is one of this layer's own fixed names ("main", "stg"),
  // never a caller's value.
  std::string sql = "SELECT 1 FROM ";
  sql += schema;
  sql += ".sqlite_master WHERE type = 'table' AND name = 'code_chunks'";
  cursor.execute(sql);
  // Read to the end so the statement holds no read lock on the schema while
  // the caller goes on to drop the table through another statement.
  return !cursor.fetchall().empty();
}

bool _empty_code_chunks(Cursor& cursor) {
  if (!_has_code_chunks(cursor)) return false;
  // Dropping the whole FTS5 table costs one schema change; deleting its rows
  // would make the table tokenize every row again to take it out.
  cursor.execute("DROP TABLE code_chunks");
  migrations::run_ddl(cursor, migrations::CODE_CHUNKS_DDL);
  return true;
}

// ------------------------------------------------------------------ clearing and swap

void DatabaseImpl::_copy_staging(Cursor& cursor, const std::vector<std::pair<const char*, std::string>>& col_lists,
                                RowCounts& row_counts) {
  // The live chunks are emptied whenever the live file has the table; they
  // are refilled only when the staging file has it too.
  const bool chunks = _empty_code_chunks(cursor) && _has_code_chunks(cursor, "stg");
  delete_index_rows(cursor);
  for (const auto& [table, columns] : col_lists) {
    // One INSERT ... SELECT per table: no row passes through the program.
    cursor.execute(std::string("INSERT INTO ") + table + " (" + columns + ") SELECT " + columns + " FROM stg." + table);
    row_counts.set(table, rows_changed(cursor));
  }
  if (chunks) {
    // FTS5 merges its segments while rows arrive, and a copy of a whole
    // index would make it rewrite them over and over. Merging is off for the
    // copy and back at FTS5's defaults after it: queries read the unmerged
    // segments about as fast, and later writes merge them.
    cursor.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES ('automerge', 0)");
    cursor.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES ('crisismerge', 1999)");
    cursor.execute(
        "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
        "SELECT rowid, text, start_line, end_line, exact FROM stg.code_chunks");
    row_counts.set("code_chunks", rows_changed(cursor));
    cursor.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES ('automerge', 4)");
    cursor.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES ('crisismerge', 16)");
  }
  // In the same commit as the rows: every process sees the new generation
  // together with the new file ids.
  _bump_index_generation(&cursor);
}

void DatabaseImpl::clear_all() {
  RowCounts row_counts;
  _transaction([&](Cursor& cursor) {
    for (const char* table : cleared_tables) {
      cursor.execute(std::string("SELECT COUNT(*) FROM ") + table);
      auto row = cursor.fetchone();
      row_counts.set(table, row ? (*row)[0].as_int() : 0);
    }
    _empty_code_chunks(cursor);
    delete_index_rows(cursor);
  });
  log(spdlog::level::info, "clear_all: cleared all index data (rows removed: %s)", row_counts.to_string());
}

RowCounts DatabaseImpl::swap_index_from(const std::filesystem::path& staging_path) {
  _require_writable();
  std::error_code ec;
  const bool present = std::filesystem::exists(staging_path, ec);
  // A path that cannot even be looked at (a folder without search permission)
  // is not a missing file: the error says what the system said.
  if (ec) raise_os_error(ec.value(), staging_path);
  if (!present) throw FileNotFoundError("Staging database not found: " + staging_path.string(), ENOENT, staging_path);

  RowCounts row_counts;
  {
    // Held from the attachment to the detachment, so no other statement on
    // the writer connection ever sees `stg`; the transaction below re-enters it.
    std::lock_guard lock(_lock);
    std::shared_ptr<Connection> conn = connection();
    detach_leftover_staging(*conn);
    // Declared before the attachment, so it also covers a failed one, and
    // ends after the detachment.
    KeepStagingLog keep_log(conn->handle(), staging_path);
    conn->execute("ATTACH DATABASE ? AS stg", {staging_path.string()});
    const auto detach = [&] { conn->execute("DETACH DATABASE stg"); };
    undo_on_failure(
        [&] {
          // Read before the transaction begins, so that the write transaction
          // holds only the emptying, the copies and the generation bump.
          std::vector<std::pair<const char*, std::string>> col_lists;
          for (const char* table : insert_tables) col_lists.emplace_back(table, column_list(*conn, table));
          const SwapSettings settings(*conn);
          _transaction([&](Cursor& cursor) {
            _copy_staging(cursor, col_lists, row_counts);
            settings.check_keys(cursor);
          });
        },
        detach);
    try {
      detach();
    } catch (const Error&) {
      // A committed swap stays a success: the attachment ends with the
      // connection at the latest, and the next swap detaches a leftover first.
    }
  }

  log(spdlog::level::info, "swap_index_from: replaced live index from %s (rows inserted: %s)",
              staging_path.string(), row_counts.to_string());
  // Outside the lock: compaction takes it in short steps of its own, and
  // declines on the event loop. Its result is not this operation's concern.
  compact();
  return row_counts;
}

// ------------------------------------------------------------------ health

RowCounts DatabaseImpl::get_stats() {
  RowCounts stats;
  stats.set("files", _count("SELECT COUNT(*) FROM files"));
  stats.set("symbols", _count("SELECT COUNT(*) FROM symbols WHERE " + models::listed_sql()));
  stats.set("edges", _count("SELECT COUNT(*) FROM edges"));
  stats.set("components", _count("SELECT COUNT(*) FROM components"));
  stats.set("errors", _count("SELECT COUNT(*) FROM index_errors"));
  return stats;
}

bool DatabaseImpl::check_integrity() {
  // Not a read statement by the routing rule: it runs on the writer
  // connection under the lock.
  auto result = fetchone("PRAGMA integrity_check");
  return result && (*result)[0].type() == Value::Type::Text && (*result)[0].as_text() == "ok";
}

void DatabaseImpl::record_error(std::string_view file_path, std::string_view error_type,
                                const std::optional<std::string>& message, std::optional<std::int64_t> line) {
  _require_writable();
  execute("INSERT INTO index_errors (file_path, error_type, message, line) VALUES (?, ?, ?, ?)",
          {file_path, error_type, message, line});
}

void DatabaseImpl::clear_file_errors(std::string_view file_path, const std::optional<std::string>& error_type) {
  _require_writable();
  if (!error_type) {
    execute("DELETE FROM index_errors WHERE file_path = ?", {file_path});
  } else {
    execute("DELETE FROM index_errors WHERE file_path = ? AND error_type = ?", {file_path, *error_type});
  }
}

std::int64_t DatabaseImpl::get_error_count() { return _count("SELECT COUNT(DISTINCT file_path) FROM index_errors"); }

}  // namespace marsk_quorvi::storage::detail
