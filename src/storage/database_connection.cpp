// Connection and query routing: reader settings, statement classification,
// the handle's lifecycle, transactions and writes, and the query router.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

#include "database_impl.hpp"
#include "log.hpp"
#include "text.hpp"
#include "undo.hpp"
#include "marsk_quorvi/storage/storage_size.hpp"
#include "marsk_quorvi/utils/path_filter.hpp"

namespace marsk_quorvi::storage::detail {


thread_local int event_loop_depth = 0;

// ------------------------------------------------------------------ reader settings

int _parse_reader_count(const char* raw) {
  if (raw == nullptr) return kDefaultReaders;
  std::string_view value = strip(raw);
  if (value.empty()) return kDefaultReaders;
  bool negative = false;
  if (value.front() == '+' || value.front() == '-') {
    negative = value.front() == '-';
    value.remove_prefix(1);
  }
  if (value.empty() || !std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return kDefaultReaders;
  }
  // Any number of digits parses; past 32 it only matters that it is large.
  long long n = 0;
  auto [p, ec] = std::from_chars(value.data(), value.data() + value.size(), n);
  if (ec == std::errc::result_out_of_range) n = static_cast<long long>(kMaxReaders) + 1;
  (void)p;
  if (negative) n = -n;
  return static_cast<int>(std::max<long long>(std::min<long long>(n, kMaxReaders), 0));
}

bool _is_read_statement(std::string_view sql) {
  std::size_t at = 0;
  while (at < sql.size() && is_ascii_space(sql[at])) ++at;
  // Only the head is compared: this decides the route of every query. The
  // keywords are letters, whose case bit alone tells upper from lower, so
  // their bytes are compared all at once.
  const auto starts_with = [&](std::string_view keyword) {
    if (sql.size() - at < keyword.size()) return false;
    std::uint64_t head = 0, want = 0, letters = 0;
    std::memcpy(&head, sql.data() + at, keyword.size());
    std::memcpy(&want, keyword.data(), keyword.size());
    std::memset(&letters, 0xdf, keyword.size());
    return (head & letters) == want;
  };
  if (starts_with("SELECT") || starts_with("WITH")) return true;

  std::string_view whole = strip(sql);
  while (!whole.empty() && whole.back() == ';') whole.remove_suffix(1);
  return ascii_upper(strip(whole)) == "PRAGMA USER_VERSION";
}

bool _on_event_loop() { return event_loop_depth > 0; }

bool _reader_cannot_serve(const OperationalError& error) {
  const std::string message = ascii_lower(error.what());
  for (const char* fragment : kReaderCannotServe) {
    if (message.find(fragment) != std::string::npos) return true;
  }
  return false;
}

// ------------------------------------------------------------------ lifecycle

DatabaseImpl::~DatabaseImpl() {
  try {
    close();
  } catch (...) {
    log_swallowed("closing the database");
  }
}

void DatabaseImpl::connect() {
  if (_mode == OpenMode::ReadOnly) return _connect_read_only();
  const auto parent = db_path.parent_path();
  std::error_code ec;
  if (!parent.empty() && !std::filesystem::create_directories(parent, ec) && ec) {
    raise_os_error(ec.value(), parent);
  }
  _closed.store(false);
  Connection::Options options;
  options.busy_timeout_ms = _busy_timeout_ms;
  auto conn = Connection::open(db_path.string(), options);
  // A handle connected again lets go of the file it had open.
  if (auto previous = _connection.exchange(conn)) previous->close();
  conn->execute("PRAGMA page_size=" + std::to_string(storage_size::PAGE_SIZE));
  conn->execute("PRAGMA auto_vacuum=INCREMENTAL");
  auto journal = conn->execute("PRAGMA journal_mode=WAL").fetchone();
  conn->execute("PRAGMA foreign_keys=ON");
  conn->execute("PRAGMA synchronous=NORMAL");
  utils::register_path_functions(*conn);
  _replace_readers(journal ? ascii_lower((*journal)[0].to_text()) : std::string());
}

void DatabaseImpl::_connect_read_only() {
  // Only a regular file can be an index, and a FIFO would block the open.
  struct stat status {};
  if (::stat(db_path.c_str(), &status) != 0) raise_os_error(errno, db_path);
  if (!S_ISREG(status.st_mode)) throw OSError("not a regular file: " + quoted_repr(db_path.string()), 0, db_path);
  Connection::Options options;
  options.readonly = true;
  options.busy_timeout_ms = _busy_timeout_ms;
  std::shared_ptr<Connection> conn;
  std::vector<Row> tables;
  auto open = [&] {
    conn = Connection::open(db_path.string(), options);
    tables = conn->execute("SELECT name FROM sqlite_master WHERE type = 'table'").fetchall();
  };
  try {
    open();
  } catch (const OperationalError& e) {
    // A WAL file needs its -shm to be read, and a reader who may not write
    // the folder cannot make one. Without a -wal every commit is in the main
    // file, so it is read as it stands.
    const auto dir = db_path.has_parent_path() ? db_path.parent_path() : std::filesystem::path(".");
    std::error_code ec;
    const bool no_wal = !std::filesystem::exists(db_path.string() + "-wal", ec) && !ec;
    if (!e.permission_denied() || !no_wal || ::access(dir.c_str(), W_OK) == 0) throw;
    options.immutable = true;
    open();
  }
  for (const char* required : {"files", "symbols"}) {
    if (std::none_of(tables.begin(), tables.end(), [&](const Row& r) { return r[0].to_text() == required; })) {
      throw NotAnIndexError("not an index: " + quoted_repr(db_path.string()) +
                            (status.st_size == 0 ? " is empty" : std::string(" has no table ") + required));
    }
  }
  utils::register_path_functions(*conn);
  _closed.store(false);
  if (auto previous = _connection.exchange(conn)) previous->close();
  auto journal = conn->execute("PRAGMA journal_mode").fetchone();
  _replace_readers(journal && !options.immutable ? ascii_lower((*journal)[0].to_text()) : std::string());
}

void DatabaseImpl::_replace_readers(const std::string& journal_mode) {
  // A second connect replaces the pool; the old one is closed here.
  if (auto previous = _readers.exchange(_open_readers(journal_mode))) previous->close();
}

void DatabaseImpl::_require_writable() const {
  if (_mode == OpenMode::ReadOnly) throw RuntimeError("the index is open read-only");
}

std::shared_ptr<ReaderPool> DatabaseImpl::_open_readers(const std::string& journal_mode) {
  const int count = reader_count();
  // A read connection only escapes the writer's lock in WAL mode.
  if (count == 0 || journal_mode != "wal") return nullptr;
  return std::make_shared<ReaderPool>(db_path.string(), count, &utils::register_path_functions, _busy_timeout_ms);
}

void DatabaseImpl::close() {
  // Never hold the lock while waiting for the pool's queries.
  if (auto readers = _readers.load()) readers->close();
  std::lock_guard lock(_lock);
  if (auto conn = _connection.load()) {
    conn->close();
    _connection.store(nullptr);
    _closed.store(true);
  }
}

std::shared_ptr<Connection> DatabaseImpl::connection() const {
  auto conn = _connection.load();
  if (!conn) {
    if (_closed.load()) throw RuntimeError("Database is closed.");
    throw RuntimeError("Database not connected. Call connect() first.");
  }
  return conn;
}

// ------------------------------------------------------------------ transactions and writes

void DatabaseImpl::_transaction(const std::function<void(Cursor&)>& body) {
  Cursor cursor = _begin_scope();
  try {
    body(cursor);
  } catch (...) {
    _end_scope(cursor, false);
    throw;
  }
  _end_scope(cursor, true);
}

Cursor DatabaseImpl::_begin_scope() {
  _require_writable();
  std::unique_lock lock(_lock);
  // Opened before any state changes: without a writer connection this raises
  // and leaves the handle as it was.
  Cursor cursor = connection()->cursor();
  if (_tx_depth > 0) {
    // A nested scope joins the transaction this thread already has open: no
    // BEGIN of its own (SQLite refuses one inside a transaction), and its
    // failure is left to the outermost scope.
    ++_tx_depth;
    lock.release();
    return cursor;
  }
  _tx_depth = 1;
  _tx_owner.store(std::this_thread::get_id());
  try {
    cursor.execute("BEGIN");
  } catch (...) {
    lock.release();  // handed to _end_scope, which lets it go
    _end_scope(cursor, false);
    throw;
  }
  lock.release();
  return cursor;
}

void DatabaseImpl::_end_scope(Cursor& cursor, bool ok) {
  // Adopts the hold `_begin_scope` kept, so the lock goes on every path.
  std::unique_lock lock(_lock, std::adopt_lock);
  if (_tx_depth > 1) {
    --_tx_depth;
    cursor.close();
    return;
  }
  struct OuterExit {
    DatabaseImpl& db;
    Cursor& cursor;
    ~OuterExit() {
      db._tx_depth = 0;
      db._tx_owner.store(std::thread::id());
      cursor.close();
    }
  } outer{*this, cursor};
  const auto rollback = [&] {
    try {
      cursor.execute("ROLLBACK");
    } catch (const Error&) {
      // The caller learns the state from the failure that ended the scope.
    }
  };
  if (!ok) return rollback();
  undo_on_failure([&] { cursor.execute("COMMIT"); }, rollback);
}

Cursor DatabaseImpl::execute(std::string_view sql, ParamsRef params) {
  std::lock_guard lock(_lock);
  return connection()->execute(sql, params);
}

Cursor DatabaseImpl::executemany(std::string_view sql, const std::vector<Params>& params_list) {
  const std::vector<ParamsRef> refs(params_list.begin(), params_list.end());
  return executemany(sql, std::span<const ParamsRef>(refs));
}

Cursor DatabaseImpl::executemany(std::string_view sql, std::span<const ParamsRef> params_list) {
  _require_writable();
  std::lock_guard lock(_lock);
  return connection()->executemany(sql, params_list);
}

// ------------------------------------------------------------------ query routing

ReaderPool* DatabaseImpl::_readers_for(std::string_view sql) const {
  ReaderPool* readers = _readers.peek();
  if (!readers) return nullptr;
  if (_tx_owner.load() == std::this_thread::get_id()) return nullptr;
  return _is_read_statement(sql) ? readers : nullptr;
}

template <class Run>
auto DatabaseImpl::_query(std::string_view sql, Run&& run) -> std::invoke_result_t<Run&, Connection&> {
  if (ReaderPool* readers = _readers_for(sql)) {
    try {
      auto lease = readers->lease();
      return run(lease.connection());
    } catch (const ReaderUnavailable&) {
      // fall through to the writer connection
    } catch (const OperationalError& e) {
      if (!_reader_cannot_serve(e)) throw;
    }
  }
  std::lock_guard lock(_lock);
  return run(*connection());
}

std::optional<Row> DatabaseImpl::fetchone(std::string_view sql, ParamsRef params) {
  return _query(sql, [&](Connection& c) { return c.fetchone(sql, params); });
}

bool DatabaseImpl::fetchone(std::string_view sql, ParamsRef params, Row& row) {
  return _query(sql, [&](Connection& c) { return c.fetchone(sql, params, row); });
}

std::vector<Row> DatabaseImpl::fetchall(std::string_view sql, ParamsRef params) {
  return _query(sql, [&](Connection& c) { return _run_query(c, sql, params, [](Cursor& cur) { return cur.fetchall(); }); });
}

std::int64_t DatabaseImpl::_count(std::string_view sql) {
  auto r = fetchone(sql);
  return r ? (*r)[0].as_int() : 0;
}

}  // namespace marsk_quorvi::storage::detail

namespace marsk_quorvi::storage {

int reader_count() { return detail::_parse_reader_count(std::getenv(detail::kReadersEnv)); }

// ------------------------------------------------------------------ event loop

EventLoopThread::EventLoopThread() noexcept { ++detail::event_loop_depth; }
EventLoopThread::~EventLoopThread() { --detail::event_loop_depth; }

// ------------------------------------------------------------------ RowCounts

void RowCounts::set(std::string_view key, std::int64_t value) {
  for (auto& [k, v] : items_) {
    if (k == key) {
      v = value;
      return;
    }
  }
  items_.emplace_back(std::string(key), value);
}

bool RowCounts::contains(std::string_view key) const noexcept {
  return std::any_of(items_.begin(), items_.end(), [&](const value_type& kv) { return kv.first == key; });
}

std::int64_t RowCounts::at(std::string_view key) const {
  for (const auto& [k, v] : items_) {
    if (k == key) return v;
  }
  throw std::out_of_range("no count for " + std::string(key));
}

std::string RowCounts::to_string() const {
  std::string out = "{";
  for (std::size_t i = 0; i < items_.size(); ++i) {
    if (i) out += ", ";
    out += detail::quoted_repr(items_[i].first);
    out += ": ";
    out += std::to_string(items_[i].second);
  }
  out += "}";
  return out;
}

// ------------------------------------------------------------------ Database

Database::Database(std::filesystem::path path, OpenMode mode)
    : db_path(path), impl_(std::make_unique<detail::DatabaseImpl>(std::move(path), mode)) {}
Database::~Database() = default;

void Database::connect() { impl_->connect(); }
void Database::close() { impl_->close(); }
bool Database::closed() const noexcept { return impl_->closed(); }
std::shared_ptr<Connection> Database::connection() const { return impl_->connection(); }
void Database::run_transaction(const std::function<void(Cursor&)>& body) { impl_->_transaction(body); }
Cursor Database::execute(std::string_view sql, ParamsRef params) { return impl_->execute(sql, params); }
Cursor Database::executemany(std::string_view sql, const std::vector<Params>& params_list) {
  return impl_->executemany(sql, params_list);
}
std::optional<Row> Database::fetchone(std::string_view sql, ParamsRef params) { return impl_->fetchone(sql, params); }
bool Database::fetchone(std::string_view sql, ParamsRef params, Row& row) { return impl_->fetchone(sql, params, row); }
std::vector<Row> Database::fetchall(std::string_view sql, ParamsRef params) { return impl_->fetchall(sql, params); }
void Database::create_schema() { impl_->create_schema(); }
void Database::migrate_schema() { impl_->migrate_schema(); }
std::int64_t Database::index_generation() { return impl_->index_generation(); }
std::int64_t Database::refresh_extractor_stamp(const ExtractorVersions& versions) {
  return impl_->refresh_extractor_stamp(versions);
}
void Database::clear_all() { impl_->clear_all(); }
RowCounts Database::swap_index_from(const std::filesystem::path& staging_path) {
  return impl_->swap_index_from(staging_path);
}
RowCounts Database::get_stats() { return impl_->get_stats(); }
bool Database::check_integrity() { return impl_->check_integrity(); }
void Database::record_error(std::string_view file_path, std::string_view error_type, std::optional<std::string> message,
                            std::optional<std::int64_t> line) {
  impl_->record_error(file_path, error_type, message, line);
}
void Database::clear_file_errors(std::string_view file_path, std::optional<std::string> error_type) {
  impl_->clear_file_errors(file_path, error_type);
}
std::int64_t Database::get_error_count() { return impl_->get_error_count(); }
Compaction Database::compact() { return impl_->compact(); }
PageCounts Database::page_counts() { return impl_->page_counts(); }

}  // namespace marsk_quorvi::storage
