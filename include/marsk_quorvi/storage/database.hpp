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

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <spdlog/common.h>

#include "marsk_quorvi/errors.hpp"
#include "marsk_quorvi/storage/reader_pool.hpp"
#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::storage {

// ------------------------------------------------------------------ constants

// Read pool size.
inline constexpr const char* _READERS_ENV = "QUORVI_DB_READERS";
inline constexpr int _DEFAULT_READERS = 6;
inline constexpr int _MAX_READERS = 32;
// Fragments of an OperationalError's message that mean a read connection
// cannot run the statement and the writer connection has to.
inline constexpr const char* _READER_CANNOT_SERVE[] = {"readonly database", "unable to open database file"};

// schema_info keys and index_errors kinds.
inline constexpr const char* EXTRACTOR_VERSIONS_KEY = "extractor_versions";
inline constexpr const char* LAST_INDEX_KEY = "last_index";
inline constexpr const char* FQN_COLLISION_ERROR = "fqn_collision";
inline constexpr const char* PARTIAL_PARSE_ERROR = "partial_parse";

// Space reclamation.
inline constexpr std::int64_t COMPACT_DISK_MARGIN_BYTES = 67108864;  // 64 MiB
inline constexpr std::int64_t _MIB = 1048576;
inline constexpr std::int64_t _AUTO_VACUUM_NONE = 0;
inline constexpr std::int64_t _AUTO_VACUUM_INCREMENTAL = 2;
inline constexpr std::int64_t COMPACT_MIN_FREE_PAGES = 2048;
inline constexpr double COMPACT_MIN_FREE_RATIO = 0.1;
inline constexpr std::int64_t COMPACT_STEP_PAGES = 1024;
inline constexpr std::int64_t COMPACT_CONVERT_MAX_BYTES = 1073741824;  // 1024 MiB

// ------------------------------------------------------------------ records

// How much of a database file is in use, as SQLite reports it.
struct _Space {
  std::int64_t mode = 0;       // auto-vacuum mode: 0 none, 1 full, 2 incremental
  std::int64_t pages = 0;      // pages in the file
  std::int64_t free = 0;       // pages on the free list
  std::int64_t page_size = 0;  // bytes per page
  bool operator==(const _Space&) const = default;
};

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
  bool contains(std::string_view key) const noexcept;
  // Raises std::out_of_range for a missing key.
  std::int64_t at(std::string_view key) const;
  std::size_t size() const noexcept { return items_.size(); }
  bool empty() const noexcept { return items_.empty(); }
  auto begin() const noexcept { return items_.begin(); }
  auto end() const noexcept { return items_.end(); }
  std::vector<std::string> keys() const;
  // "{'edges': 3, 'files': 1}": the form log lines use.
  std::string to_string() const;
  bool operator==(const RowCounts&) const = default;

 private:
  std::vector<value_type> items_;
};

using ExtractorVersions = std::map<std::string, std::int64_t>;

// ------------------------------------------------------------------ free functions

// Size of the read pool from QUORVI_DB_READERS, read at every call: 0 to 32,
// 6 when unset, blank or not a decimal integer.
int reader_count();
// The same rule applied to a raw value (null when the variable is unset).
int _parse_reader_count(const char* raw);
// Whether `sql` only reads, so that a read connection may run it.
bool _is_read_statement(std::string_view sql);
// Whether a failure on a read connection means the writer has to run it.
bool _reader_cannot_serve(const OperationalError& error);

// Runs `sql` with `params` on a new cursor of `connection`, applies `fetch`
// and closes the cursor on every path. Takes no lock.
template <class Fetch>
auto _run_query(Connection& connection, std::string_view sql, const Params& params, Fetch&& fetch)
    -> std::invoke_result_t<Fetch&, Cursor&> {
  Cursor cursor = connection.cursor();
  struct Closer {
    Cursor& c;
    ~Closer() { c.close(); }
  } closer{cursor};
  cursor.execute(sql, params);
  return fetch(cursor);
}

// The stored extractor stamp as a map, or none when absent or of an unknown
// format (which is logged as a warning).
std::optional<ExtractorVersions> _parse_extractor_stamp(const std::optional<std::string>& raw);
// The stamp as stored: a JSON object in ascending key order, ", " and ": "
// as separators, characters outside ASCII as \u escapes.
std::string _stamp_json(const ExtractorVersions& versions);

// Whether `schema` ("main" or an attached name) has the table code_chunks.
bool _has_code_chunks(Cursor& cursor, std::string_view schema = "main");
// Drops and re-creates an existing live code_chunks inside the caller's
// transaction; false when the live database has none.
bool _empty_code_chunks(Cursor& cursor);

// Whether two directories are on one volume; unknown counts as one.
bool _same_volume(const std::filesystem::path& first, const std::filesystem::path& second);
// Why the disk cannot hold a VACUUM of `used_bytes` of data, or none.
// Raises OSError when a free-space query fails.
std::optional<std::string> _disk_shortfall(const std::filesystem::path& db_dir, std::int64_t used_bytes);

// True exactly on the thread the host marked as its event loop.
bool _on_event_loop();

// The host marks the thread that runs its asynchronous event loop by keeping
// one of these alive on it; blocking maintenance declines there. Markers nest.
class EventLoopThread {
 public:
  EventLoopThread() noexcept;
  ~EventLoopThread();
  EventLoopThread(const EventLoopThread&) = delete;
  EventLoopThread& operator=(const EventLoopThread&) = delete;
};

// ------------------------------------------------------------------ Database

namespace detail {

// A shared pointer that threads read and replace without a data race, for
// the fields that queries read without the connection lock. A reader keeps
// what it loaded alive while another thread replaces it. (libstdc++'s
// atomic<shared_ptr> would do the same, but its lock bit is invisible to
// ThreadSanitizer, which then reports every replacement as a race.)
template <class T>
class SharedSlot {
 public:
  std::shared_ptr<T> load() const {
    std::lock_guard lock(mu_);
    return ptr_;
  }
  void store(std::shared_ptr<T> ptr) {
    // The old value is released outside the mutex: its destructor may close
    // a connection.
    exchange(std::move(ptr));
  }
  std::shared_ptr<T> exchange(std::shared_ptr<T> ptr) {
    std::lock_guard lock(mu_);
    return std::exchange(ptr_, std::move(ptr));
  }

 private:
  mutable std::mutex mu_;
  std::shared_ptr<T> ptr_;
};

}  // namespace detail

// Thread safety: after `connect()` every operation may be called from any
// thread. `connect()` itself runs before the handle is shared.
class Database {
 public:
  explicit Database(std::filesystem::path db_path);
  // Closes what is still open; errors on that path are swallowed.
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // --- lifecycle
  // Makes the directory, opens the writer connection (WAL, incremental
  // auto-vacuum and the storage page size for a new file), registers the path
  // functions and opens the read pool. Failures propagate.
  void connect();
  // Closes the read pool (waiting for running queries), then the writer
  // connection under the lock (waiting for a running statement or
  // transaction). Harmless on a handle never connected or already closed.
  void close();
  bool closed() const noexcept { return _closed.load(); }
  // The writer connection. Raises RuntimeError "Database is closed." after
  // close, "Database not connected. Call connect() first." before connect.
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
      _transaction([&](Cursor& c) { body(c); });
    } else {
      std::optional<R> out;
      _transaction([&](Cursor& c) { out.emplace(body(c)); });
      return std::move(*out);
    }
  }
  // One statement on the writer connection under the lock.
  Cursor execute(std::string_view sql, const Params& params = {});
  // One statement once per parameter set under the lock.
  Cursor executemany(std::string_view sql, const std::vector<Params>& params_list);

  // --- queries (read pool when possible, writer connection otherwise)
  std::optional<Row> fetchone(std::string_view sql, const Params& params = {});
  std::vector<Row> fetchall(std::string_view sql, const Params& params = {});

  // --- schema and metadata
  void create_schema();
  void migrate_schema();
  // The index generation (the header's user version); 0 in a new file.
  std::int64_t index_generation();
  // Stores the extractor stamp and marks stale the files of every language
  // whose extractor changed, in one transaction. Returns the files marked.
  std::int64_t refresh_extractor_stamp(const ExtractorVersions& versions);

  // --- index replacement and health
  void clear_all();
  // Replaces the live index tables with those of the staging file in one
  // transaction that also raises the generation. Raises FileNotFoundError for
  // a missing staging file; any failure leaves the live index unchanged.
  RowCounts swap_index_from(const std::filesystem::path& staging_path);
  RowCounts get_stats();
  bool check_integrity();
  void record_error(std::string_view file_path, std::string_view error_type,
                    std::optional<std::string> message = std::nullopt, std::optional<std::int64_t> line = std::nullopt);
  void clear_file_errors(std::string_view file_path, std::optional<std::string> error_type = std::nullopt);
  std::int64_t get_error_count();

  // --- space reclamation
  // Gives free pages back to the file system in short steps. Never raises for
  // what the database or the disk does: the result carries the reason.
  Compaction compact();

  const std::filesystem::path db_path;

 protected:
  // Internal operations: protected so that tests can reach them by name.
  void _transaction(const std::function<void(Cursor&)>& body);
  std::shared_ptr<ReaderPool> _open_readers(const std::string& journal_mode);
  template <class Fetch>
  auto _query(std::string_view sql, const Params& params, Fetch&& fetch) -> std::invoke_result_t<Fetch&, Cursor&>;
  std::int64_t _count(std::string_view sql);
  std::shared_ptr<ReaderPool> _readers_for(std::string_view sql) const;
  void _rewrite_pages();
  void _bump_index_generation(Cursor* cursor = nullptr);
  static _Space _space(Connection& connection);
  Compaction _compact();
  std::int64_t _release_free_pages();
  void _shrink_file(Connection& connection);
  Compaction _skip_compaction(const std::string& kind, const std::string& reason,
                              spdlog::level::level_enum level = spdlog::level::info, bool exc_info = false);
  Compaction _convert_to_incremental(const _Space& space);
  static void _vacuum(Connection& connection);

  // Read without the lock (atomically): _connection, _closed, _readers,
  // _tx_owner. Changed only under _lock, except by connect(), which runs
  // before the handle is shared.
  detail::SharedSlot<Connection> _connection;
  // The connection lock. Reentrant on purpose: a transaction's owner runs
  // nested scopes, execute and writer-path queries while holding it.
  mutable std::recursive_mutex _lock;
  int _tx_depth = 0;  // guarded by _lock
  std::atomic<bool> _closed{false};
  detail::SharedSlot<ReaderPool> _readers;
  std::atomic<std::thread::id> _tx_owner{};  // default id: no owner
  std::set<std::string> _compaction_noted;   // guarded by _compaction_noted_mu
  std::mutex _compaction_noted_mu;
  std::atomic<bool> _conversion_failed{false};
};

// ------------------------------------------------------------------ routing

template <class Fetch>
auto Database::_query(std::string_view sql, const Params& params, Fetch&& fetch)
    -> std::invoke_result_t<Fetch&, Cursor&> {
  if (auto readers = _readers_for(sql)) {
    try {
      auto lease = readers->lease();
      return _run_query(lease.connection(), sql, params, fetch);
    } catch (const ReaderUnavailable&) {
      // fall through to the writer connection
    } catch (const OperationalError& e) {
      if (!_reader_cannot_serve(e)) throw;
    }
  }
  std::lock_guard lock(_lock);
  return _run_query(*connection(), sql, params, fetch);
}

}  // namespace marsk_quorvi::storage
