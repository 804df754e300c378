// The handle of one repository's index file and every connection to it.
//
// A process makes one `Database` per index file and shares it among all its
// threads. Writes go through one writer connection under a reentrant lock;
// queries run on a pool of read-only WAL connections and never wait for a
// write in progress. Order of use: construct (opens nothing), `connect()`,
// `create_schema()`, `migrate_schema()`, `refresh_extractor_stamp(versions)`,
// then any operation from any thread, and finally `close()`.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "marsk_quorvi/errors.hpp"
#include "marsk_quorvi/storage/figures.hpp"
#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::storage {

// schema_info keys and index_errors kinds.
inline constexpr const char* EXTRACTOR_VERSIONS_KEY = "extractor_versions";
inline constexpr const char* LAST_INDEX_KEY = "last_index";
inline constexpr const char* FQN_COLLISION_ERROR = "fqn_collision";
inline constexpr const char* PARTIAL_PARSE_ERROR = "partial_parse";

// Compaction: when enough of the file is free, pages released a step at a
// time; a file without auto-vacuum converted only up to a size; the data's
// size plus a margin free on disk before any rewrite.
inline constexpr std::int64_t COMPACT_DISK_MARGIN_BYTES = 67108864;  // 64 MiB
inline constexpr std::int64_t COMPACT_MIN_FREE_PAGES = 2048;
inline constexpr double COMPACT_MIN_FREE_RATIO = 0.1;
inline constexpr std::int64_t COMPACT_STEP_PAGES = 1024;
inline constexpr std::int64_t COMPACT_CONVERT_MAX_BYTES = 1073741824;  // 1024 MiB

// What one call of `compact` did.
struct Compaction {
  bool converted = false;
  std::int64_t pages_released = 0;
  std::optional<std::string> skipped;  // why nothing was done, when a problem stopped it
  bool operator==(const Compaction&) const = default;
};

// ReadOnly opens an existing index for reading only: no directory made, no
// pragma that writes, no schema work, only read connections, so the file is
// never changed and a reader answers while another process writes.
enum class OpenMode { ReadWrite, ReadOnly };

// Size of the read pool from QUORVI_DB_READERS, read at every call: 0 to 32,
// 6 when unset, blank or not a decimal integer.
[[nodiscard]] int reader_count();

// Alive on the thread that runs the host's event loop: blocking maintenance
// declines there. Markers nest.
class EventLoopThread {
 public:
  EventLoopThread() noexcept;
  ~EventLoopThread();
  EventLoopThread(const EventLoopThread&) = delete;
  EventLoopThread& operator=(const EventLoopThread&) = delete;
};

namespace detail {
class DatabaseImpl;
struct DatabaseAccess;
}  // namespace detail

// Thread safety: after `connect()`, which runs before the handle is shared,
// every operation may be called from any thread. Operations that need the
// connection raise RuntimeError before `connect()` and after `close()`.
class Database {
 public:
  explicit Database(std::filesystem::path db_path, OpenMode mode = OpenMode::ReadWrite);  // opens nothing
  ~Database();                                       // closes what is open; never throws
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // Makes the directory (OSError when it cannot), opens the writer connection
  // (WAL, incremental auto-vacuum, the storage page size for a new file),
  // registers the path functions and opens the read pool. ReadOnly: the file
  // must exist (FileNotFoundError) and hold the index tables
  // (NotAnIndexError); every write then raises RuntimeError.
  void connect();
  // Closes the read pool, then the writer connection, each after the work
  // running on it. Harmless on a handle never connected or already closed.
  void close();
  [[nodiscard]] bool closed() const noexcept;
  std::shared_ptr<Connection> connection() const;  // the writer connection

  // Runs `body` with a cursor on the writer connection inside a transaction
  // and returns its result. The outermost scope begins and commits, or rolls
  // back on any exception and rethrows it unchanged; a nested scope on the
  // same thread joins the outermost.
  template <class Body>
  auto transaction(Body&& body) -> std::invoke_result_t<Body&, Cursor&> {
    using R = std::invoke_result_t<Body&, Cursor&>;
    if constexpr (std::is_void_v<R>) {
      run_transaction([&](Cursor& c) { body(c); });
    } else {
      std::optional<R> out;
      run_transaction([&](Cursor& c) { out.emplace(body(c)); });
      return std::move(*out);
    }
  }
  // One statement (once per parameter set) on the writer connection; the
  // cursor holds its rows, and `rowcount` the rows changed.
  Cursor execute(std::string_view sql, ParamsRef params = {});
  Cursor executemany(std::string_view sql, const std::vector<Params>& params_list);
  // Queries: on a read connection when possible, on the writer otherwise.
  std::optional<Row> fetchone(std::string_view sql, ParamsRef params = {});
  // The same into `row`, whose storage is reused: a caller that reads one row
  // after another allocates nothing per row once its texts have their size.
  // False, with `row` as it was, when the query gives no row.
  bool fetchone(std::string_view sql, ParamsRef params, Row& row);
  std::vector<Row> fetchall(std::string_view sql, ParamsRef params = {});

  void create_schema();  // the missing tables; existing ones are left alone
  // Migrates a file of an older build (SchemaMigrationError names the failed
  // step) and rewrites a file made with smaller pages once.
  void migrate_schema();
  [[nodiscard]] std::int64_t index_generation();  // the header's user version; 0 in a new file
  // Stores the extractor stamp and, in the same transaction, marks stale the
  // files of every language whose extractor changed. Returns the files marked.
  std::int64_t refresh_extractor_stamp(const ExtractorVersions& versions);

  void clear_all();  // empties every index table in one transaction
  // Replaces the index tables with the staging file's in one transaction that
  // raises the generation, then compacts; returns the rows copied. Any
  // failure (FileNotFoundError for a missing file) changes neither file.
  RowCounts swap_index_from(const std::filesystem::path& staging_path);
  RowCounts get_stats();                   // files, listed symbols, edges, components, errors
  [[nodiscard]] bool check_integrity();    // SQLite's integrity check answered "ok"
  void record_error(std::string_view file_path, std::string_view error_type,
                    std::optional<std::string> message = std::nullopt, std::optional<std::int64_t> line = std::nullopt);
  // All of a file's error rows, or those of one kind.
  void clear_file_errors(std::string_view file_path, std::optional<std::string> error_type = std::nullopt);
  std::int64_t get_error_count();  // files with at least one error row

  // Gives free pages back to the file system in short steps. Never raises for
  // what the database or the disk does: the result carries the reason.
  Compaction compact();
  PageCounts page_counts();

  const std::filesystem::path db_path;

 private:
  friend struct detail::DatabaseAccess;
  void run_transaction(const std::function<void(Cursor&)>& body);
  std::unique_ptr<detail::DatabaseImpl> impl_;
};

}  // namespace marsk_quorvi::storage
