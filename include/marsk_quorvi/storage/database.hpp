// The handle of one repository's index file and every connection to it.
//
// A process makes one `Database` per index file and shares it among all its
// threads. Writes go through one writer connection under a reentrant
// connection lock; queries run on a pool of read-only WAL connections so that
// they never wait for a write in progress.
//
// Order of use: construct (opens nothing), `connect()`, `create_schema()`,
// `migrate_schema()`, `refresh_extractor_stamp(versions)`, then any operation
// from any thread, and finally `close()`.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "marsk_quorvi/errors.hpp"
#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::storage {

// schema_info keys and index_errors kinds.
inline constexpr const char* EXTRACTOR_VERSIONS_KEY = "extractor_versions";
inline constexpr const char* LAST_INDEX_KEY = "last_index";
inline constexpr const char* FQN_COLLISION_ERROR = "fqn_collision";
inline constexpr const char* PARTIAL_PARSE_ERROR = "partial_parse";

// Space reclamation: a compaction runs when at least COMPACT_MIN_FREE_PAGES
// pages and COMPACT_MIN_FREE_RATIO of the file are free, releases them
// COMPACT_STEP_PAGES at a time, converts a file without auto-vacuum only up
// to COMPACT_CONVERT_MAX_BYTES of data, and wants the data's size plus the
// margin free on disk before any rewrite.
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

// A map from table (or figure) name to a count that keeps insertion order.
class RowCounts {
 public:
  using value_type = std::pair<std::string, std::int64_t>;
  RowCounts() = default;
  RowCounts(std::initializer_list<value_type> items) : items_(items) {}

  // Sets `key` to `value`, appending it when new.
  void set(std::string_view key, std::int64_t value);
  [[nodiscard]] bool contains(std::string_view key) const noexcept;
  // Raises std::out_of_range for a missing key.
  [[nodiscard]] std::int64_t at(std::string_view key) const;
  [[nodiscard]] std::size_t size() const noexcept { return items_.size(); }
  [[nodiscard]] bool empty() const noexcept { return items_.empty(); }
  auto begin() const noexcept { return items_.begin(); }
  auto end() const noexcept { return items_.end(); }
  // "{'edges': 3, 'files': 1}": the form log lines use.
  [[nodiscard]] std::string to_string() const;
  bool operator==(const RowCounts&) const = default;

 private:
  std::vector<value_type> items_;
};

// Language name -> extractor version, in ascending key order.
using ExtractorVersions = std::map<std::string, std::int64_t>;

// Size of the read pool from QUORVI_DB_READERS, read at every call: 0 to 32,
// 6 when unset, blank or not a decimal integer.
[[nodiscard]] int reader_count();

// The host marks the thread that runs its asynchronous event loop by keeping
// one of these alive on it; blocking maintenance declines there. Markers nest.
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

// Thread safety: after `connect()` every operation may be called from any
// thread. `connect()` itself runs before the handle is shared. Every call
// raises RuntimeError before `connect()` and after `close()`.
class Database {
 public:
  // Opens nothing.
  explicit Database(std::filesystem::path db_path);
  // Closes what is still open; never throws.
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // --- lifecycle
  // Makes the directory (OSError when it cannot), opens the writer connection
  // (WAL, incremental auto-vacuum and the storage page size for a new file),
  // registers the path functions and opens the read pool.
  void connect();
  // Closes the read pool (waiting for running queries), then the writer
  // connection (waiting for a running statement or transaction). Harmless on
  // a handle never connected or already closed.
  void close();
  [[nodiscard]] bool closed() const noexcept;
  // The writer connection; hold the handle's lock by using `transaction`.
  std::shared_ptr<Connection> connection() const;

  // --- transactions and writes
  // Runs `body` with a cursor on the writer connection inside a transaction
  // and returns its result. The outermost scope begins and commits (or rolls
  // back on any exception, which is rethrown unchanged); a nested scope on
  // the same thread joins it.
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
  // One statement on the writer connection; the returned cursor holds its rows.
  Cursor execute(std::string_view sql, const Params& params = {});
  // One statement once per parameter set; `rowcount` is the total.
  Cursor executemany(std::string_view sql, const std::vector<Params>& params_list);

  // --- queries (a read connection when possible, the writer otherwise)
  std::optional<Row> fetchone(std::string_view sql, const Params& params = {});
  std::vector<Row> fetchall(std::string_view sql, const Params& params = {});

  // --- schema and metadata
  // Creates the missing tables; existing ones are left alone.
  void create_schema();
  // Brings a file of an older build to this build's schema (SchemaMigrationError
  // names the failed step), and rewrites a file made with smaller pages once.
  void migrate_schema();
  // The index generation (the header's user version); 0 in a new file.
  [[nodiscard]] std::int64_t index_generation();
  // Stores the extractor stamp and marks stale the files of every language
  // whose extractor changed, in one transaction. Returns the files marked.
  std::int64_t refresh_extractor_stamp(const ExtractorVersions& versions);

  // --- index replacement and health
  // Empties every index table in one transaction.
  void clear_all();
  // Replaces the live index tables with those of the staging file in one
  // transaction that also raises the generation, then compacts. Raises
  // FileNotFoundError for a missing staging file; any failure leaves the
  // live index and the staging file unchanged. Returns the rows copied.
  RowCounts swap_index_from(const std::filesystem::path& staging_path);
  // Files, listed symbols, edges, components and error rows.
  RowCounts get_stats();
  // SQLite's integrity check: true when it answers "ok".
  [[nodiscard]] bool check_integrity();
  void record_error(std::string_view file_path, std::string_view error_type,
                    std::optional<std::string> message = std::nullopt, std::optional<std::int64_t> line = std::nullopt);
  // Removes a file's error rows, or only those of one kind.
  void clear_file_errors(std::string_view file_path, std::optional<std::string> error_type = std::nullopt);
  // Files with at least one error row.
  std::int64_t get_error_count();

  // --- space reclamation
  // Gives free pages back to the file system in short steps. Never raises for
  // what the database or the disk does: the result carries the reason.
  Compaction compact();

  const std::filesystem::path db_path;

 private:
  friend struct detail::DatabaseAccess;
  void run_transaction(const std::function<void(Cursor&)>& body);
  std::unique_ptr<detail::DatabaseImpl> impl_;
};

}  // namespace marsk_quorvi::storage
