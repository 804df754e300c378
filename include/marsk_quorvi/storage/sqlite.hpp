// The SQLite access layer: a thin, owned-handle wrapper over the SQLite C API
// through which the storage layer does every read and write.
//
// Thread safety: a `Connection` opened with `Options::serialized` (the default)
// may be used from any thread, one call at a time being enforced by SQLite
// itself; one opened without it belongs to one thread at a time. A `Cursor` and
// a `Row` are plain values owned by their user.
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

#include "marsk_quorvi/errors.hpp"

struct sqlite3;
struct sqlite3_stmt;

namespace marsk_quorvi::storage {

using Bytes = std::vector<std::uint8_t>;

// One SQL value: null, 64-bit integer, double, text (UTF-8) or blob.
class Param;
namespace detail {
struct RowFill;
}

class Value {
 public:
  enum class Type { Null, Integer, Real, Text, Blob };

  Value() noexcept = default;
  Value(std::nullptr_t) noexcept {}
  Value(std::nullopt_t) noexcept {}
  template <class T>
    requires std::is_integral_v<T>
  Value(T v) noexcept : v_(static_cast<std::int64_t>(v)) {}
  Value(double v) noexcept : v_(v) {}
  Value(std::string v) noexcept : v_(std::move(v)) {}
  Value(std::string_view v) : v_(std::string(v)) {}
  Value(const char* v) : v_(std::string(v)) {}
  Value(Bytes v) noexcept : v_(std::move(v)) {}
  template <class T>
  Value(const std::optional<T>& v) : Value() {
    if (v) *this = Value(*v);
  }

  Type type() const noexcept { return static_cast<Type>(v_.index()); }
  bool is_null() const noexcept { return v_.index() == 0; }

  // Integer value; a real is truncated, a text is parsed as a decimal integer.
  // Raises Error for null, blob and non-numeric text.
  std::int64_t as_int() const {
    if (const auto* i = std::get_if<std::int64_t>(&v_)) return *i;
    return converted_int();
  }
  // Real value; an integer is widened. Raises Error for null, text and blob.
  double as_double() const;
  // The text of a text value. Raises Error for any other type.
  const std::string& as_text() const {
    if (const auto* t = std::get_if<std::string>(&v_)) return *t;
    raise_not("text");
  }
  const Bytes& as_blob() const;
  // The value converted to text whatever its type: integers in decimal, reals
  // in their shortest round-trip form, blobs as their bytes, null as "NULL".
  std::string to_text() const;

  bool operator==(const Value&) const = default;

 private:
  friend class Param;
  friend struct detail::RowFill;
  std::int64_t converted_int() const;
  [[noreturn]] void raise_not(const char* what) const;
  std::variant<std::monostate, std::int64_t, double, std::string, Bytes> v_;
};

using Params = std::vector<Value>;

// One parameter as a call borrows it: NULL, a number, or a view of text or
// bytes that the caller keeps alive for the call. Made from a Value, a
// number, a string or bytes without copying them.
class Param {
 public:
  Param() noexcept = default;
  Param(std::nullptr_t) noexcept {}
  Param(std::nullopt_t) noexcept {}
  template <class T>
    requires std::is_integral_v<T>
  Param(T v) noexcept : type_(Value::Type::Integer), int_(static_cast<std::int64_t>(v)) {}
  Param(double v) noexcept : type_(Value::Type::Real), real_(v) {}
  Param(std::string_view v) noexcept : type_(Value::Type::Text), data_(v.data()), size_(v.size()) {}
  Param(const std::string& v) noexcept : Param(std::string_view(v)) {}
  Param(const char* v) noexcept : Param(std::string_view(v)) {}
  Param(const Bytes& v) noexcept : type_(Value::Type::Blob), data_(v.data()), size_(v.size()) {}
  Param(const Value& v) noexcept;
  template <class T>
  Param(const std::optional<T>& v) noexcept : Param() {
    if (v) *this = Param(*v);
  }

  Value::Type type() const noexcept { return type_; }
  std::int64_t as_int() const noexcept { return int_; }
  double as_double() const noexcept { return real_; }
  // Text or blob: the bytes viewed.
  const void* data() const noexcept { return data_; }
  std::size_t size() const noexcept { return size_; }

 private:
  Value::Type type_ = Value::Type::Null;
  union {
    std::int64_t int_ = 0;
    double real_;
    const void* data_;
  };
  std::size_t size_ = 0;
};

// The parameters of one call, borrowed for its duration: a Params vector, a
// braced list (`{id, path}`), which then copies and allocates nothing, or any
// array of values or of parameters. With `names`, value i binds the placeholder `:name`,
// `@name` or `$name` whose name (without its sign) is names[i]; a statement's
// placeholder that no name matches raises Error.
class ParamsRef {
 public:
  ParamsRef() noexcept = default;
  ParamsRef(const Params& params) noexcept : values_(params.data()), size_(params.size()) {}
  ParamsRef(const Value* data, std::size_t size, const std::string_view* names = nullptr) noexcept
      : values_(data), names_(names), size_(size) {}
  ParamsRef(std::span<const Param> params) noexcept : params_(params.data()), size_(params.size()) {}
  // The list's array, and any temporary it views, live to the end of the
  // caller's full expression, which is as long as a parameter is used.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winit-list-lifetime"
#endif
  ParamsRef(std::initializer_list<Param> params) noexcept : params_(params.begin()), size_(params.size()) {}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
  std::size_t size() const noexcept { return size_; }
  Param operator[](std::size_t i) const noexcept { return params_ ? params_[i] : Param(values_[i]); }
  bool named() const noexcept { return names_ != nullptr; }
  std::string_view name(std::size_t i) const noexcept { return names_[i]; }

 private:
  const Value* values_ = nullptr;
  const Param* params_ = nullptr;
  const std::string_view* names_ = nullptr;
  std::size_t size_ = 0;
};

// One result row. It owns its values, so it outlives the cursor that made it.
class Row {
 public:
  // No columns: what a row that is to be filled reuses.
  Row() = default;
  Row(std::shared_ptr<const std::vector<std::string>> names, std::vector<Value> values)
      : names_(std::move(names)), values_(std::move(values)) {}

  std::size_t size() const noexcept { return values_.size(); }
  // Raises std::out_of_range past the last column.
  const Value& operator[](std::size_t index) const {
    if (index >= values_.size()) raise_no_column(index);
    return values_[index];
  }
  // The first column of that name, compared without regard to ASCII case;
  // raises std::out_of_range for an unknown name.
  const Value& operator[](std::string_view name) const;
  const std::vector<std::string>& keys() const noexcept { return names_ ? *names_ : no_keys(); }
  const std::vector<Value>& values() const noexcept { return values_; }

 private:
  friend struct detail::RowFill;
  [[noreturn]] static void raise_no_column(std::size_t index);
  static const std::vector<std::string>& no_keys() noexcept;
  std::shared_ptr<const std::vector<std::string>> names_;
  std::vector<Value> values_;
};

class Connection;
namespace detail {
struct Statement;
struct StatementDelete {
  void operator()(Statement* s) const noexcept;
};
using OwnedStatement = std::unique_ptr<Statement, StatementDelete>;
struct CloseDb {
  void operator()(sqlite3* db) const noexcept;
};

// A cursor's hold on one prepared statement. A cached statement stays owned
// by its connection's cache and is only marked in use; a second copy, made
// while the cached one is busy, is owned by the lease. Either way the
// statement goes back (or is finalised) when the lease ends.
class StatementLease {
 public:
  StatementLease() noexcept = default;
  StatementLease(Statement* statement, OwnedStatement owned) noexcept;
  StatementLease(StatementLease&& other) noexcept;
  StatementLease& operator=(StatementLease&& other) noexcept;
  ~StatementLease() { reset(); }
  void reset() noexcept;
  Statement* operator->() const noexcept { return statement_; }
  Statement& operator*() const noexcept { return *statement_; }
  explicit operator bool() const noexcept { return statement_ != nullptr; }

 private:
  Statement* statement_ = nullptr;
  OwnedStatement owned_;
};
}  // namespace detail

// Runs one statement at a time on its connection. A statement that writes is
// run to completion by `execute` (its result rows, if any, are kept for the
// fetches), so that the write is done when `execute` returns; a read is
// stepped lazily, one row per fetch.
class Cursor {
 public:
  Cursor(Cursor&&) noexcept = default;
  // The statement goes back to its own connection before this cursor takes
  // the other's, which may be the last owner of a different connection.
  Cursor& operator=(Cursor&& other) noexcept {
    if (this != &other) {
      stmt_.reset();
      conn_ = std::move(other.conn_);
      stmt_ = std::move(other.stmt_);
      buffered_ = std::move(other.buffered_);
      next_buffered_ = other.next_buffered_;
      has_pending_ = other.has_pending_;
      done_ = other.done_;
      closed_ = other.closed_;
      rowcount_ = other.rowcount_;
      lastrowid_ = other.lastrowid_;
    }
    return *this;
  }
  ~Cursor() = default;

  // Prepares (or takes from the connection's cache) `sql`, binds `params` to
  // its `?` placeholders in order and runs it. Raises Error/OperationalError.
  Cursor& execute(std::string_view sql, ParamsRef params = {});
  // Runs `sql` once per parameter set, in order; `rowcount` is the total.
  Cursor& executemany(std::string_view sql, const std::vector<Params>& params_list);
  // The same over parameter sets borrowed for the call, named ones too. A
  // template only so that an empty `{}` still means the overload above.
  template <class = void>
  Cursor& executemany(std::string_view sql, std::span<const ParamsRef> params_list) {
    return execute_each(sql, params_list);
  }
  // The next row, or none when the result is exhausted.
  std::optional<Row> fetchone();
  // The remaining rows, possibly none.
  std::vector<Row> fetchall();
  // Rows changed by the last INSERT, UPDATE, DELETE or REPLACE; -1 otherwise.
  std::int64_t rowcount() const noexcept { return rowcount_; }
  // The rowid of the row inserted by the last INSERT or REPLACE that
  // `execute` ran to success on this cursor; none before the first. Other
  // statements, `executemany` and a failed insert leave it as it was.
  std::optional<std::int64_t> lastrowid() const noexcept { return lastrowid_; }
  // The names of the result columns of the statement last executed; empty
  // for one that returns no columns, and once the cursor is closed.
  std::vector<std::string> columns() const;
  // Gives the statement back to the connection's cache. Harmless when closed.
  void close() noexcept;
  bool closed() const noexcept { return closed_; }
  Connection& connection() const noexcept { return *conn_; }

 private:
  friend class Connection;
  explicit Cursor(std::shared_ptr<Connection> conn) : conn_(std::move(conn)) {}
  void start(std::string_view sql);  // resets the cursor and takes the statement for `sql`
  Cursor& execute_each(std::string_view sql, std::span<const ParamsRef> params_list);
  bool step_row(bool first = false);  // true when a row is current; `first`: the first step after binding
  Row current_row();
  void check_open() const;

  std::shared_ptr<Connection> conn_;
  detail::StatementLease stmt_;
  std::vector<Row> buffered_;  // rows read ahead by a write statement
  std::size_t next_buffered_ = 0;
  bool has_pending_ = false;  // stmt_ holds a row not yet fetched
  bool done_ = true;
  bool closed_ = false;
  std::int64_t rowcount_ = -1;
  std::optional<std::int64_t> lastrowid_;
};

// One SQLite connection. Autocommit: it never begins a transaction of its
// own, so a statement outside an explicit BEGIN commits at once.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  struct Options {
    bool readonly = false;
    // SQLite serialises calls itself, so several threads may use the
    // connection in turn (and read a cursor after the caller's lock is gone).
    bool serialized = true;
    int busy_timeout_ms = 5000;
    // Prepared statements kept per connection, least recently used dropped
    // first. One a cursor is using is never handed to another.
    std::size_t statement_cache = 64;
    // Read-only, and the file taken as one that nothing changes while it is
    // open: no locks and no WAL index, so it opens where no -shm can be made.
    bool immutable = false;
  };

  // Opens (and for a writable connection creates) the file. Raises
  // OperationalError "unable to open database file" and the like.
  [[nodiscard]] static std::shared_ptr<Connection> open(const std::string& path, const Options& options);
  [[nodiscard]] static std::shared_ptr<Connection> open(const std::string& path) { return open(path, Options{}); }
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  [[nodiscard]] Cursor cursor();
  Cursor execute(std::string_view sql, ParamsRef params = {});
  Cursor executemany(std::string_view sql, const std::vector<Params>& params_list);
  template <class = void>
  Cursor executemany(std::string_view sql, std::span<const ParamsRef> params_list) {
    Cursor c = cursor();
    c.executemany(sql, params_list);
    return c;
  }
  // The first row of `sql`, as execute(sql, params).fetchone(), without the
  // cursor: the statement goes back as soon as its row is read.
  std::optional<Row> fetchone(std::string_view sql, ParamsRef params = {});
  // The same into `row`, whose storage is reused; false, with `row` as it
  // was, when there is no row.
  bool fetchone(std::string_view sql, ParamsRef params, Row& row);
  // Runs several `;`-separated statements (DDL scripts) without parameters.
  void executescript(const std::string& sql);
  // Finalises the cached statements and closes the handle; statements still
  // held by open cursors keep SQLite's handle alive until they are closed.
  // Harmless when already closed.
  void close() noexcept;
  [[nodiscard]] bool closed() const noexcept;
  [[nodiscard]] bool readonly() const noexcept { return options_.readonly; }
  // The raw handle, for registering functions and for measurements; owned by
  // this connection. Null after close.
  [[nodiscard]] sqlite3* handle() const noexcept;
  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  friend class Cursor;
  friend class detail::StatementLease;
  Connection(sqlite3* db, std::string path, Options options);
  detail::StatementLease acquire(std::string_view sql);
  void give_back(detail::Statement* statement, detail::OwnedStatement owned) noexcept;
  detail::OwnedStatement trim_one();  // under the cache lock
  std::unique_lock<std::mutex> cache_lock() const;

  const std::string path_;
  const Options options_;
  // Guards db_, lru_, index_ and each cached statement's in_use (the latter
  // three through cache_lock()).
  mutable std::mutex mu_;
  // Reset only under mu_, by close(); open_ mirrors it for the lock-free
  // `closed()` that every cursor call asks.
  std::unique_ptr<sqlite3, detail::CloseDb> db_;
  std::atomic<bool> open_{false};
  // The cache, most recently used first. A statement a cursor runs stays in
  // here, marked in use, so that a repeated query costs a lookup and no
  // allocation. Keys of `index_` are views of each statement's own SQL text.
  // Declared after db_, so the statements are finalised before it closes.
  std::list<detail::OwnedStatement> lru_;
  std::unordered_map<std::string_view, detail::Statement*> index_;
};

// Raises the Error or OperationalError for result code `rc` with SQLite's
// message for `db` (or the generic text of `rc` when `db` is null).
[[noreturn]] void raise_error(sqlite3* db, int rc);
[[noreturn]] void raise_error(int rc, const std::string& message, int system_errno = 0);

}  // namespace marsk_quorvi::storage
