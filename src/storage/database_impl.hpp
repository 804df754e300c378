// The implementation behind `Database`: its lock, connections and pool, and
// the internal operations of each subsystem. Private to the library and its
// tests, which reach a handle's implementation through `internals(db)`.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>

#include <spdlog/common.h>

#include "marsk_quorvi/storage/database.hpp"
#include "reader_pool.hpp"

namespace marsk_quorvi::storage::detail {

// ------------------------------------------------------------------ constants

inline constexpr const char* kReadersEnv = "QUORVI_DB_READERS";  // _READERS_ENV
inline constexpr int kDefaultReaders = 6;                         // _DEFAULT_READERS
inline constexpr int kMaxReaders = 32;                            // _MAX_READERS
// _READER_CANNOT_SERVE: fragments of an OperationalError's message that mean
// a read connection cannot run the statement and the writer connection has to.
inline constexpr const char* kReaderCannotServe[] = {"readonly database", "unable to open database file"};

inline constexpr std::int64_t kMiB = 1048576;             // _MIB
inline constexpr std::int64_t kAutoVacuumNone = 0;         // _AUTO_VACUUM_NONE
inline constexpr std::int64_t kAutoVacuumIncremental = 2;  // _AUTO_VACUUM_INCREMENTAL

// _Space: how much of a database file is in use, as SQLite reports it.
struct Space {
  std::int64_t mode = 0;       // auto-vacuum mode: 0 none, 1 full, 2 incremental
  std::int64_t pages = 0;      // pages in the file
  std::int64_t free = 0;       // pages on the free list
  std::int64_t page_size = 0;  // bytes per page
  bool operator==(const Space&) const = default;
};

// ------------------------------------------------------------------ free functions

// The QUORVI_DB_READERS rule applied to a raw value (null when unset).
int _parse_reader_count(const char* raw);
// Whether `sql` only reads, so that a read connection may run it.
bool _is_read_statement(std::string_view sql);
// Whether a failure on a read connection means the writer has to run it.
bool _reader_cannot_serve(const OperationalError& error);

// Runs `sql` with `params` on a new cursor of `connection`, applies `fetch`
// and closes the cursor on every path. Takes no lock.
template <class Fetch>
auto _run_query(Connection& connection, std::string_view sql, ParamsRef params, Fetch&& fetch)
    -> std::invoke_result_t<Fetch&, Cursor&> {
  Cursor cursor = connection.cursor();
  cursor.execute(sql, params);
  return fetch(cursor);  // the cursor's destructor gives the statement back
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
// The integer a "PRAGMA name" answers on `connection`.
std::int64_t pragma_int(Connection& connection, const std::string& name);
bool _same_volume(const std::filesystem::path& first, const std::filesystem::path& second);
// Why the disk cannot hold a VACUUM of `used_bytes` of data, or none.
// Raises OSError when a free-space query fails.
std::optional<std::string> _disk_shortfall(const std::filesystem::path& db_dir, std::int64_t used_bytes);

// True exactly on the thread the host marked as its event loop.
bool _on_event_loop();

// A shared pointer that threads read and replace without a data race, for
// the fields that queries read without the connection lock. A reader keeps
// what it loaded alive while another thread replaces it. (libstdc++'s
// atomic<shared_ptr> would do the same, but its lock bit is invisible to
// ThreadSanitizer, which then reports every replacement as a race.)
template <class T, bool kKeepAll = false>
class SharedSlot {
 public:
  std::shared_ptr<T> load() const {
    std::lock_guard lock(mu_);
    return ptr_;
  }
  // The old value is handed back, to be released outside the mutex (its
  // destructor may close a connection) or, when the slot keeps every value
  // (see peek), for the caller to close.
  std::shared_ptr<T> exchange(std::shared_ptr<T> ptr) {
    std::lock_guard lock(mu_);
    if constexpr (kKeepAll) {
      if (ptr) kept_.push_back(ptr);
      raw_.store(ptr.get(), std::memory_order_release);
    }
    return std::exchange(ptr_, std::move(ptr));
  }
  void store(std::shared_ptr<T> ptr) { exchange(std::move(ptr)); }
  // The value without a reference count or the mutex, for the hot path of
  // every query. Valid for the slot's lifetime: a slot that keeps all keeps
  // every value ever stored (one per connect, closed once replaced), so a
  // pointer read just before a replacement still points at a live object.
  T* peek() const noexcept
    requires kKeepAll
  {
    return raw_.load(std::memory_order_acquire);
  }

 private:
  mutable std::mutex mu_;
  std::shared_ptr<T> ptr_;
  std::atomic<T*> raw_{nullptr};
  std::vector<std::shared_ptr<T>> kept_;
};

// ------------------------------------------------------------------ DatabaseImpl

// Everything `Database` does. Every member is public so that the tests can
// reach the internal operations and fields by name.
class DatabaseImpl {
 public:
  explicit DatabaseImpl(std::filesystem::path path, OpenMode mode = OpenMode::ReadWrite)
      : db_path(std::move(path)), _mode(mode) {}
  // Closes what is still open; what that raises is logged at DEBUG.
  ~DatabaseImpl();
  DatabaseImpl(const DatabaseImpl&) = delete;
  DatabaseImpl& operator=(const DatabaseImpl&) = delete;

  // The operations of `Database`, each documented there.
  void connect();
  void close();
  bool closed() const noexcept { return _closed.load(); }
  std::shared_ptr<Connection> connection() const;
  Cursor execute(std::string_view sql, ParamsRef params = {});
  Cursor executemany(std::string_view sql, const std::vector<Params>& params_list);
  Cursor executemany(std::string_view sql, std::span<const ParamsRef> params_list);  // named sets too
  std::optional<Row> fetchone(std::string_view sql, ParamsRef params = {});
  bool fetchone(std::string_view sql, ParamsRef params, Row& row);
  std::vector<Row> fetchall(std::string_view sql, ParamsRef params = {});
  void create_schema();
  void migrate_schema();
  std::int64_t index_generation();
  std::int64_t refresh_extractor_stamp(const ExtractorVersions& versions);
  void clear_all();
  RowCounts swap_index_from(const std::filesystem::path& staging_path);
  RowCounts get_stats();
  bool check_integrity();
  void record_error(std::string_view file_path, std::string_view error_type, const std::optional<std::string>& message,
                    std::optional<std::int64_t> line);
  void clear_file_errors(std::string_view file_path, const std::optional<std::string>& error_type);
  std::int64_t get_error_count();
  Compaction compact();
  PageCounts page_counts();

  // Internal operations.
  void _connect_read_only();
  void _require_writable() const;
  void _transaction(const std::function<void(Cursor&)>& body);
  // The two halves of `_transaction`, for a host whose scopes are not one
  // call (a Python `with` block). `_begin_scope` takes the lock and keeps it
  // until the matching `_end_scope` on the same thread, which is handed the
  // cursor `_begin_scope` returned. The outermost scope begins and, at its
  // end, commits when `ok` or else rolls back; a nested scope joins it. A
  // failed COMMIT is rolled back and raised; a failed ROLLBACK is not raised,
  // since the caller already has the failure that caused it.
  Cursor _begin_scope();
  void _end_scope(Cursor& cursor, bool ok);
  std::shared_ptr<ReaderPool> _open_readers(const std::string& journal_mode);
  void _replace_readers(const std::string& journal_mode);
  // Runs `run` on a read connection when the pool may serve `sql`, else on
  // the writer connection under the lock.
  template <class Run>
  auto _query(std::string_view sql, Run&& run) -> std::invoke_result_t<Run&, Connection&>;
  std::int64_t _count(std::string_view sql);
  ReaderPool* _readers_for(std::string_view sql) const;
  void _rewrite_pages();
  void _bump_index_generation(Cursor* cursor = nullptr);
  // The swap's copy, inside its transaction with `stg` attached.
  void _copy_staging(Cursor& cursor, const std::vector<std::pair<const char*, std::string>>& col_lists,
                     RowCounts& row_counts);
  static Space _space(Connection& connection);
  Compaction _compact();
  std::int64_t _release_free_pages();
  void _shrink_file(Connection& connection);
  Compaction _skip_compaction(const std::string& kind, const std::string& reason,
                              spdlog::level::level_enum level = spdlog::level::info, bool exc_info = false);
  Compaction _convert_to_incremental(const Space& space);
  static void _vacuum(Connection& connection);

  const std::filesystem::path db_path;
  const OpenMode _mode;
  // How long every connection of the handle waits for another's lock before
  // failing with "database is locked". Set before connect(); tests shorten it.
  int _busy_timeout_ms = 5000;

  // Read without the lock (atomically): _connection, _closed, _readers,
  // _tx_owner. Changed only under _lock, except by connect(), which runs
  // before the handle is shared.
  SharedSlot<Connection> _connection;
  // The connection lock. Reentrant on purpose: a transaction's owner runs
  // nested scopes, execute and writer-path queries while holding it.
  mutable std::recursive_mutex _lock;
  int _tx_depth = 0;  // guarded by _lock
  std::atomic<bool> _closed{false};
  SharedSlot<ReaderPool, true> _readers;
  std::atomic<std::thread::id> _tx_owner{};  // default id: no owner
  std::set<std::string> _compaction_noted;   // guarded by _compaction_noted_mu
  std::mutex _compaction_noted_mu;
  std::atomic<bool> _conversion_failed{false};
};

// The implementation behind a handle.
struct DatabaseAccess {
  static DatabaseImpl& of(Database& db) noexcept { return *db.impl_; }
};
inline DatabaseImpl& internals(Database& db) noexcept { return DatabaseAccess::of(db); }

}  // namespace marsk_quorvi::storage::detail
