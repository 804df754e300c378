#include "marsk_quorvi/storage/sqlite.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <initializer_list>
#include <list>
#include <string_view>
#include <utility>

namespace marsk_quorvi::storage {

namespace detail {

struct FinalizeStmt {
  void operator()(sqlite3_stmt* stmt) const noexcept { sqlite3_finalize(stmt); }
};

// A prepared statement with what the cursor needs to know about it, computed
// once at prepare time and kept with it in the cache.
struct Statement {
  Connection* owner = nullptr;  // outlives the statement: its cursor holds it
  std::string sql;
  std::unique_ptr<sqlite3_stmt, FinalizeStmt> stmt;  // null for an empty statement
  std::shared_ptr<const std::vector<std::string>> names;
  // The connection's own mutex, null when it runs without one: taken around
  // each step and row read, and not even called for when absent.
  sqlite3_mutex* mutex = nullptr;
  int parameters = 0;    // sqlite3_bind_parameter_count, fixed by the text
  bool readonly = true;  // sqlite3_stmt_readonly
  bool dml = false;      // INSERT/UPDATE/DELETE/REPLACE: rowcount applies
  bool inserts = false;  // INSERT/REPLACE: lastrowid applies
  // Under the owner's mutex: whether a cursor has it now, and, when cached,
  // its place in the owner's list.
  bool in_use = false;
  std::list<OwnedStatement>::iterator pos;
};

StatementLease::StatementLease(Statement* statement, OwnedStatement owned) noexcept
    : statement_(statement), owned_(std::move(owned)) {}

StatementLease::StatementLease(StatementLease&& other) noexcept
    : statement_(std::exchange(other.statement_, nullptr)), owned_(std::move(other.owned_)) {}

StatementLease& StatementLease::operator=(StatementLease&& other) noexcept {
  if (this != &other) {
    reset();
    statement_ = std::exchange(other.statement_, nullptr);
    owned_ = std::move(other.owned_);
  }
  return *this;
}

void StatementLease::reset() noexcept {
  if (Statement* s = std::exchange(statement_, nullptr)) s->owner->give_back(s, std::move(owned_));
}

void StatementDelete::operator()(Statement* s) const noexcept { delete s; }

void CloseDb::operator()(sqlite3* db) const noexcept {
  // close_v2 keeps the handle as a zombie until the statements that open
  // cursors still hold are finalised.
  sqlite3_close_v2(db);
}

}  // namespace detail

namespace {

bool is_operational(int rc) {
  switch (rc & 0xff) {
    case SQLITE_ERROR:
    case SQLITE_PERM:
    case SQLITE_ABORT:
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_READONLY:
    case SQLITE_INTERRUPT:
    case SQLITE_IOERR:
    case SQLITE_FULL:
    case SQLITE_CANTOPEN:
    case SQLITE_PROTOCOL:
    case SQLITE_EMPTY:
    case SQLITE_SCHEMA:
    case SQLITE_NOLFS:
    case SQLITE_AUTH:
      return true;
    default:
      return false;
  }
}

// Skips white space and comments, and with `semicolons` also empty
// statements, which SQLite would prepare to nothing.
std::string_view skip_space_and_comments(std::string_view s, bool semicolons = false) {
  for (;;) {
    std::size_t i = 0;
    while (i < s.size() && (std::isspace(static_cast<unsigned char>(s[i])) || (semicolons && s[i] == ';'))) ++i;
    s.remove_prefix(i);
    if (s.starts_with("--")) {
      auto nl = s.find('\n');
      s.remove_prefix(nl == std::string_view::npos ? s.size() : nl + 1);
    } else if (s.starts_with("/*")) {
      auto end = s.find("*/", 2);
      s.remove_prefix(end == std::string_view::npos ? s.size() : end + 2);
    } else {
      return s;
    }
  }
}

std::string_view skip_ignorable(std::string_view s) { return skip_space_and_comments(s, true); }

bool starts_with_keyword(std::string_view s, std::string_view kw) {
  if (s.size() < kw.size()) return false;
  for (std::size_t i = 0; i < kw.size(); ++i) {
    if (std::toupper(static_cast<unsigned char>(s[i])) != kw[i]) return false;
  }
  return s.size() == kw.size() || !(std::isalnum(static_cast<unsigned char>(s[kw.size()])) || s[kw.size()] == '_');
}

// Whether the statement's first keyword, after blanks and comments, is one of `keywords`.
bool begins_with_any(std::string_view sql, std::initializer_list<std::string_view> keywords) {
  const auto s = skip_space_and_comments(sql);
  return std::any_of(keywords.begin(), keywords.end(), [&](std::string_view kw) { return starts_with_keyword(s, kw); });
}

// How SQLite holds a bound text or blob: copied, for a statement stepped
// after the call returns (a query's cursor), or borrowed from the caller's
// parameters when the call runs the statement to its end, which saves a copy
// per value. A borrowed binding is left behind once the call returns, but it
// is never read again: every use of a statement binds all of its parameters
// before stepping it.
enum class Hold { copied, borrowed };

int bind_one(sqlite3_stmt* stmt, int index, const Param& p, Hold hold) {
  const auto keep = hold == Hold::borrowed ? SQLITE_STATIC : SQLITE_TRANSIENT;
  switch (p.type()) {
    case Value::Type::Null:
      return sqlite3_bind_null(stmt, index);
    case Value::Type::Integer:
      return sqlite3_bind_int64(stmt, index, p.as_int());
    case Value::Type::Real:
      return sqlite3_bind_double(stmt, index, p.as_double());
    case Value::Type::Text:
      return sqlite3_bind_text64(stmt, index, p.size() == 0 ? "" : static_cast<const char*>(p.data()), p.size(), keep,
                                 SQLITE_UTF8);
    case Value::Type::Blob:
      return sqlite3_bind_blob64(stmt, index, p.size() == 0 ? "" : p.data(), p.size(), keep);
  }
  return SQLITE_MISUSE;
}

// Each of the statement's placeholders takes the value of its name; names the
// statement does not use are ignored, as a mapping may hold more.
void bind_named(sqlite3_stmt* stmt, int expected, ParamsRef params, Hold hold) {
  for (int i = 1; i <= expected; ++i) {
    const char* placeholder = sqlite3_bind_parameter_name(stmt, i);
    if (placeholder == nullptr) {
      raise_error(SQLITE_RANGE, "Binding " + std::to_string(i) +
                                    " has no name, but you supplied a dictionary (which has only names).");
    }
    const std::string_view name(placeholder + 1);  // after its sign
    std::size_t k = 0;
    while (k < params.size() && params.name(k) != name) ++k;
    if (k == params.size()) {
      raise_error(SQLITE_RANGE, "You did not supply a value for binding parameter " + std::string(placeholder) + ".");
    }
    if (const int rc = bind_one(stmt, i, params[k], hold); rc != SQLITE_OK) raise_error(sqlite3_db_handle(stmt), rc);
  }
}

void bind_all(const detail::Statement& statement, ParamsRef params, Hold hold) {
  sqlite3_stmt* stmt = statement.stmt.get();
  const int expected = statement.parameters;
  if (params.named()) return bind_named(stmt, expected, params, hold);
  if (static_cast<int>(params.size()) != expected) {
    raise_error(SQLITE_RANGE, "Incorrect number of bindings supplied. The current statement uses " +
                                  std::to_string(expected) + ", and there are " + std::to_string(params.size()) +
                                  " supplied.");
  }
  for (int i = 0; i < expected; ++i) {
    if (const int rc = bind_one(stmt, i + 1, params[static_cast<std::size_t>(i)], hold); rc != SQLITE_OK) {
      raise_error(sqlite3_db_handle(stmt), rc);
    }
  }
}

// Holds SQLite's own connection mutex (a no-op on a connection opened without
// it) so that a step and the reading of its error message are one unit even
// when other threads use the connection.
class DbMutex {
 public:
  explicit DbMutex(sqlite3* db) : DbMutex(db ? sqlite3_db_mutex(db) : nullptr) {}
  explicit DbMutex(sqlite3_mutex* m) : m_(m) {
    if (m_) sqlite3_mutex_enter(m_);
  }
  ~DbMutex() {
    if (m_) sqlite3_mutex_leave(m_);
  }
  DbMutex(const DbMutex&) = delete;
  DbMutex& operator=(const DbMutex&) = delete;

 private:
  sqlite3_mutex* m_;
};

// A full-text table that another connection drops and re-creates (a swap
// does so with the chunk text) can be committed between this connection
// loading the new schema and the table's constructor reading its own
// configuration; SQLite then fails the statement with "vtable constructor
// failed: <table>" (code SQLITE_ERROR from a prepare, SQLITE_SCHEMA from the
// step that prepares a cached statement again) instead of retrying.
// Nothing has run at that point, so outside a transaction preparing again
// reads the committed schema afresh. The bound keeps a table that really
// cannot be constructed from looping.
constexpr int kSchemaRaceAttempts = 8;

bool lost_schema_race(sqlite3* db, int rc) {
  return (rc == SQLITE_ERROR || rc == SQLITE_SCHEMA) && sqlite3_get_autocommit(db) != 0 &&
         std::string_view(sqlite3_errmsg(db)).starts_with("vtable constructor failed: ");
}

[[noreturn]] void raise_step_error(sqlite3_stmt* stmt, int rc) {
  sqlite3* db = sqlite3_db_handle(stmt);
  std::string message = sqlite3_errmsg(db);
  const int system_errno = sqlite3_system_errno(db);
  sqlite3_reset(stmt);
  raise_error(rc, message, system_errno);
}

// A path as the path part of a file: URI, where '?', '#' and '%' would
// otherwise end or change it.
std::string uri_escaped(const std::string& path) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const unsigned char c : path) {
    if (c == '?' || c == '#' || c == '%' || c < 0x20 || c == 0x7f) {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xf];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// One step of `st`: true on a row, false (and reset, so that a finished read
// ends its read transaction) when done; raises SQLite's error otherwise.
// `first`: the first step after binding.
bool step_statement(detail::Statement& statement, bool first) {
  sqlite3_stmt* st = statement.stmt.get();
  int rc;
  {
    DbMutex guard(statement.mutex);
    rc = sqlite3_step(st);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
      // A cached statement is prepared again inside its first step after a
      // schema change, where it can lose the same race as a fresh prepare.
      sqlite3* db = sqlite3_db_handle(st);
      for (int attempt = 1; first && attempt < kSchemaRaceAttempts && lost_schema_race(db, rc); ++attempt) {
        sqlite3_reset(st);
        rc = sqlite3_step(st);
      }
      if (rc != SQLITE_ROW && rc != SQLITE_DONE) raise_step_error(st, rc);
    }
  }
  if (rc == SQLITE_ROW) return true;
  sqlite3_reset(st);
  return false;
}

}  // namespace

namespace detail {

// Reads the statement's current row into `row`, reusing what `row` holds: its
// vector, and the buffer of a text or blob column that was one before.
struct RowFill {
  static void fill(Statement& statement, Row& row) {
    sqlite3_stmt* st = statement.stmt.get();
    // One hold of the connection's mutex for the whole row (a no-op on a read
    // connection), instead of one per column call: the values read below are
    // SQLite's unprotected ones, safe while it is held.
    DbMutex guard(statement.mutex);
    const int n = sqlite3_column_count(st);
    if (static_cast<std::size_t>(n) != statement.names->size()) {
      // The statement was recompiled after a schema change and its shape moved.
      auto names = std::make_shared<std::vector<std::string>>();
      for (int i = 0; i < n; ++i) {
        const char* name = sqlite3_column_name(st, i);
        names->emplace_back(name ? name : "");
      }
      statement.names = std::move(names);
    }
    if (row.names_ != statement.names) row.names_ = statement.names;
    row.values_.resize(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
      sqlite3_value* v = sqlite3_column_value(st, i);
      auto& slot = row.values_[static_cast<std::size_t>(i)].v_;
      switch (sqlite3_value_type(v)) {
        case SQLITE_INTEGER:
          slot = static_cast<std::int64_t>(sqlite3_value_int64(v));
          break;
        case SQLITE_FLOAT:
          slot = sqlite3_value_double(v);
          break;
        case SQLITE_TEXT: {
          const auto* p = reinterpret_cast<const char*>(sqlite3_value_text(v));
          const auto size = p ? static_cast<std::size_t>(sqlite3_value_bytes(v)) : 0;
          if (auto* text = std::get_if<std::string>(&slot)) {
            text->assign(p ? p : "", size);
          } else {
            slot.emplace<std::string>(p ? p : "", size);
          }
          break;
        }
        case SQLITE_BLOB: {
          const auto* p = static_cast<const std::uint8_t*>(sqlite3_value_blob(v));
          const auto size = static_cast<std::size_t>(sqlite3_value_bytes(v));
          if (auto* bytes = std::get_if<Bytes>(&slot)) {
            bytes->assign(p, p + size);
          } else {
            slot.emplace<Bytes>(p, p + size);
          }
          break;
        }
        default:
          slot = std::monostate{};
      }
    }
  }
};

}  // namespace detail

namespace {

// The current row of a stepped statement.
Row read_row(detail::Statement& statement) {
  Row row;
  detail::RowFill::fill(statement, row);
  return row;
}

}  // namespace

// ---------------------------------------------------------------- errors

bool Error::busy() const noexcept {
  const int primary = code_ & 0xff;
  return primary == SQLITE_BUSY || primary == SQLITE_LOCKED;
}

bool Error::damaged() const noexcept {
  const int primary = code_ & 0xff;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

bool Error::cannot_open() const noexcept { return (code_ & 0xff) == SQLITE_CANTOPEN; }

bool Error::permission_denied() const noexcept {
  const int primary = code_ & 0xff;
  return primary == SQLITE_PERM || primary == SQLITE_READONLY || primary == SQLITE_AUTH || errno_ == EACCES ||
         errno_ == EPERM;
}

void raise_error(int rc, const std::string& message, int system_errno) {
  if (is_operational(rc)) throw OperationalError(message, rc, system_errno);
  throw Error(message, rc, system_errno);
}

void raise_error(sqlite3* db, int rc) {
  if (!db) raise_error(rc, sqlite3_errstr(rc));
  raise_error(rc, sqlite3_errmsg(db), sqlite3_system_errno(db));
}

// ---------------------------------------------------------------- Value

Param::Param(const Value& v) noexcept {
  switch (v.type()) {
    case Value::Type::Null:
      break;
    case Value::Type::Integer:
      *this = Param(std::get<std::int64_t>(v.v_));
      break;
    case Value::Type::Real:
      *this = Param(std::get<double>(v.v_));
      break;
    case Value::Type::Text:
      *this = Param(std::string_view(std::get<std::string>(v.v_)));
      break;
    case Value::Type::Blob:
      *this = Param(std::get<Bytes>(v.v_));
      break;
  }
}

std::int64_t Value::converted_int() const {
  switch (type()) {
    case Type::Real:
      return static_cast<std::int64_t>(std::get<double>(v_));
    case Type::Text: {
      const auto& s = std::get<std::string>(v_);
      std::int64_t out = 0;
      auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
      if (ec == std::errc() && p == s.data() + s.size() && !s.empty()) return out;
      break;
    }
    default:
      break;
  }
  raise_not("an integer");
}

double Value::as_double() const {
  if (type() == Type::Real) return std::get<double>(v_);
  if (type() == Type::Integer) return static_cast<double>(std::get<std::int64_t>(v_));
  raise_not("a number");
}

void Value::raise_not(const char* what) const { throw Error(std::string("value is not ") + what + ": " + to_text()); }

const Bytes& Value::as_blob() const {
  if (type() != Type::Blob) raise_not("a blob");
  return std::get<Bytes>(v_);
}

std::string Value::to_text() const {
  switch (type()) {
    case Type::Null:
      return "NULL";
    case Type::Integer:
      return std::to_string(std::get<std::int64_t>(v_));
    case Type::Real: {
      char buf[32];
      auto [p, ec] = std::to_chars(buf, buf + sizeof buf, std::get<double>(v_));
      (void)ec;
      return std::string(buf, p);
    }
    case Type::Text:
      return std::get<std::string>(v_);
    case Type::Blob: {
      const auto& b = std::get<Bytes>(v_);
      return std::string(b.begin(), b.end());
    }
  }
  return {};
}

// ---------------------------------------------------------------- Row

void Row::raise_no_column(std::size_t index) { throw std::out_of_range("row has no column " + std::to_string(index)); }

const std::vector<std::string>& Row::no_keys() noexcept {
  static const std::vector<std::string> none;
  return none;
}

const Value& Row::operator[](std::string_view name) const {
  const auto& names = keys();
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto& n = names[i];
    if (n.size() != name.size()) continue;
    bool same = true;
    for (std::size_t k = 0; k < n.size() && same; ++k) {
      same = std::tolower(static_cast<unsigned char>(n[k])) == std::tolower(static_cast<unsigned char>(name[k]));
    }
    if (same) return values_[i];
  }
  throw std::out_of_range("row has no column named " + std::string(name));
}

// ---------------------------------------------------------------- Connection

Connection::Connection(sqlite3* db, std::string path, Options options)
    : path_(std::move(path)), options_(options), db_(db), open_(true) {}

std::shared_ptr<Connection> Connection::open(const std::string& path, const Options& options) {
  int flags = options.readonly || options.immutable ? SQLITE_OPEN_READONLY : (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
  flags |= options.serialized ? SQLITE_OPEN_FULLMUTEX : SQLITE_OPEN_NOMUTEX;
  std::string name = path;
  if (options.immutable) {
    flags |= SQLITE_OPEN_URI;
    name = "file:" + uri_escaped(path) + "?immutable=1";
  }
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(name.c_str(), &raw, flags, nullptr);
  // Owned from here on, also when the open failed (SQLite may still have
  // allocated a handle that carries the message).
  std::unique_ptr<sqlite3, detail::CloseDb> db(raw);
  if (rc != SQLITE_OK) raise_error(db.get(), rc);
  sqlite3_busy_timeout(db.get(), options.busy_timeout_ms);
  return std::shared_ptr<Connection>(new Connection(db.release(), path, options));
}

Connection::~Connection() { close(); }

void Connection::close() noexcept {
  std::unique_ptr<sqlite3, detail::CloseDb> db;
  std::list<detail::OwnedStatement> idle;
  {
    std::lock_guard lk(mu_);
    open_.store(false);
    db = std::move(db_);
    // Statements in use stay until their cursors give them back.
    for (auto it = lru_.begin(); it != lru_.end();) {
      auto next = std::next(it);
      if (!(*it)->in_use) {
        index_.erase((*it)->sql);
        idle.splice(idle.end(), lru_, it);
      }
      it = next;
    }
  }
  // Finalised before the handle closes (declared after it, destroyed first).
}

bool Connection::closed() const noexcept { return !open_.load(std::memory_order_acquire); }

sqlite3* Connection::handle() const noexcept {
  std::lock_guard lk(mu_);
  return db_.get();
}

std::unique_lock<std::mutex> Connection::cache_lock() const {
  // A connection opened without SQLite's own serialisation belongs to one
  // thread at a time (a read connection, by lease), so its cache needs no
  // lock of its own: the hand-over between threads already orders it.
  return options_.serialized ? std::unique_lock(mu_) : std::unique_lock<std::mutex>();
}

detail::StatementLease Connection::acquire(std::string_view sql) {
  sqlite3* db;
  bool busy = false;
  {
    const auto lk = cache_lock();
    db = db_.get();
    if (!db) throw Error("Cannot operate on a closed database.", SQLITE_MISUSE);
    // Most often the statement just given back is asked for again: it is at
    // the front, and comparing its text is cheaper than hashing it.
    if (!lru_.empty() && !lru_.front()->in_use && lru_.front()->sql == sql) {
      lru_.front()->in_use = true;
      return detail::StatementLease(lru_.front().get(), nullptr);
    }
    if (auto it = index_.find(sql); it != index_.end()) {
      detail::Statement* s = it->second;
      if (!s->in_use) {
        s->in_use = true;
        lru_.splice(lru_.begin(), lru_, s->pos);
        return detail::StatementLease(s, nullptr);
      }
      busy = true;  // another cursor runs it: this one gets a copy of its own
    }
  }
  detail::OwnedStatement s(new detail::Statement);
  s->owner = this;
  s->sql = std::string(sql);
  s->in_use = true;
  const char* tail = nullptr;
  int rc;
  std::string message;
  {
    DbMutex guard(db);
    for (int attempt = 1;; ++attempt) {
      sqlite3_stmt* raw = nullptr;
      rc = sqlite3_prepare_v3(db, s->sql.data(), static_cast<int>(s->sql.size()), SQLITE_PREPARE_PERSISTENT, &raw,
                              &tail);
      s->stmt.reset(raw);
      if (rc == SQLITE_OK || attempt == kSchemaRaceAttempts || !lost_schema_race(db, rc)) break;
    }
    if (rc != SQLITE_OK) message = sqlite3_errmsg(db);
  }
  // Whatever the code, a statement that cannot be prepared is a failure of
  // the database's operation (missing table, syntax, a file that is not a
  // database), not of the statement's data.
  if (rc != SQLITE_OK) throw OperationalError(message, rc);
  if (tail && !skip_ignorable(std::string_view(tail, s->sql.data() + s->sql.size() - tail)).empty()) {
    throw Error("You can only execute one statement at a time.", SQLITE_MISUSE);
  }
  auto names = std::make_shared<std::vector<std::string>>();
  if (sqlite3_stmt* st = s->stmt.get()) {
    const int n = sqlite3_column_count(st);
    names->reserve(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
      const char* name = sqlite3_column_name(st, i);
      names->emplace_back(name ? name : "");
    }
    s->readonly = sqlite3_stmt_readonly(st) != 0;
    s->parameters = sqlite3_bind_parameter_count(st);
    s->mutex = sqlite3_db_mutex(db);
    s->dml = !s->readonly && begins_with_any(s->sql, {"INSERT", "UPDATE", "DELETE", "REPLACE", "WITH"});
    s->inserts = s->dml && begins_with_any(s->sql, {"INSERT", "REPLACE"});
  }
  s->names = std::move(names);
  detail::Statement* const statement = s.get();
  if (busy || options_.statement_cache == 0) return detail::StatementLease(statement, std::move(s));

  detail::OwnedStatement trimmed;  // finalised after the lock is released
  const auto lk = cache_lock();
  // Another thread may have cached the same text meanwhile, or closed.
  if (!db_ || index_.contains(statement->sql)) return detail::StatementLease(statement, std::move(s));
  lru_.push_front(std::move(s));
  statement->pos = lru_.begin();
  index_.emplace(statement->sql, statement);
  if (lru_.size() > options_.statement_cache) trimmed = trim_one();
  return detail::StatementLease(statement, nullptr);
}

detail::OwnedStatement Connection::trim_one() {
  // The least recently used statement that no cursor holds; while more
  // cursors are open than the cache holds it stays over its bound, and is
  // trimmed as they come back.
  for (auto it = lru_.end(); it != lru_.begin();) {
    --it;
    if ((*it)->in_use) continue;
    index_.erase((*it)->sql);
    detail::OwnedStatement victim = std::move(*it);
    lru_.erase(it);
    return victim;
  }
  return nullptr;
}

void Connection::give_back(detail::Statement* s, detail::OwnedStatement owned) noexcept {
  // Reset ends the statement's read transaction. Its bindings stay: every
  // execute binds all of a statement's parameters again.
  if (s->stmt) sqlite3_reset(s->stmt.get());
  if (owned) return;  // a copy of its cursor's own: finalised here
  detail::OwnedStatement finalised;  // after the lock is released
  const auto lk = cache_lock();
  s->in_use = false;
  if (!db_) {
    // The connection closed while the cursor ran: the cache lets it go.
    index_.erase(s->sql);
    finalised = std::move(*s->pos);
    lru_.erase(s->pos);
  } else if (lru_.size() > options_.statement_cache) {
    finalised = trim_one();
  }
}

Cursor Connection::cursor() {
  if (closed()) throw Error("Cannot operate on a closed database.", SQLITE_MISUSE);
  return Cursor(shared_from_this());
}

Cursor Connection::execute(std::string_view sql, ParamsRef params) {
  Cursor c = cursor();
  c.execute(sql, params);
  return c;
}

std::optional<Row> Connection::fetchone(std::string_view sql, ParamsRef params) {
  std::optional<Row> row(std::in_place);
  if (!fetchone(sql, params, *row)) row.reset();
  return row;
}

bool Connection::fetchone(std::string_view sql, ParamsRef params, Row& row) {
  if (closed()) throw Error("Cannot operate on a closed database.", SQLITE_MISUSE);
  detail::StatementLease statement = acquire(sql);
  if (!statement->stmt) return false;
  // A write runs to its end, as execute() runs it.
  if (!statement->readonly) {
    statement.reset();
    auto first = execute(sql, params).fetchone();
    if (first) row = std::move(*first);
    return first.has_value();
  }
  // Its one step happens here: the parameters outlive it.
  bind_all(*statement, params, Hold::borrowed);
  if (!step_statement(*statement, true)) return false;
  detail::RowFill::fill(*statement, row);
  return true;  // the lease's end resets the statement
}

Cursor Connection::executemany(std::string_view sql, const std::vector<Params>& params_list) {
  Cursor c = cursor();
  c.executemany(sql, params_list);
  return c;
}


void Connection::executescript(const std::string& sql) {
  sqlite3* db = handle();
  if (!db) throw Error("Cannot operate on a closed database.", SQLITE_MISUSE);
  char* err = nullptr;
  int rc;
  {
    DbMutex guard(db);
    rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
  }
  if (rc != SQLITE_OK) {
    std::string message = err ? err : sqlite3_errstr(rc);
    sqlite3_free(err);
    raise_error(rc, message);
  }
}

// ---------------------------------------------------------------- Cursor

void Cursor::check_open() const {
  if (closed_) throw Error("Cannot operate on a closed cursor.", SQLITE_MISUSE);
  // A statement left behind by a closed connection belongs to SQLite's zombie
  // handle, which only finalising may touch.
  if (conn_ && conn_->closed()) throw Error("Cannot operate on a closed database.", SQLITE_MISUSE);
}

bool Cursor::step_row(bool first) {
  if (step_statement(*stmt_, first)) return true;
  done_ = true;
  return false;
}

Row Cursor::current_row() { return read_row(*stmt_); }

void Cursor::start(std::string_view sql) {
  check_open();
  buffered_.clear();
  next_buffered_ = 0;
  has_pending_ = false;
  done_ = true;
  rowcount_ = -1;
  // The same statement again, as in a loop of inserts: the cursor keeps it
  // and resets it, instead of handing it back to the cache and taking it out.
  if (stmt_ && stmt_->sql == sql) {
    if (stmt_->stmt) sqlite3_reset(stmt_->stmt.get());
    return;
  }
  stmt_.reset();
  stmt_ = conn_->acquire(sql);
}

Cursor& Cursor::execute(std::string_view sql, ParamsRef params) {
  start(sql);
  if (!stmt_->stmt) return *this;  // empty statement: no rows
  // A query is stepped after this returns, a write only here.
  bind_all(*stmt_, params, stmt_->readonly ? Hold::copied : Hold::borrowed);
  done_ = false;
  if (stmt_->readonly) {
    has_pending_ = step_row(true);
    return *this;
  }
  // A write runs to completion here so that it is done (and committed, in
  // autocommit mode) before the caller's lock is released.
  {
    sqlite3* db = sqlite3_db_handle(stmt_->stmt.get());
    DbMutex guard(stmt_->mutex);
    for (bool row = step_row(true); row; row = step_row()) buffered_.push_back(current_row());
    if (stmt_->dml) rowcount_ = sqlite3_changes64(db);
    // Read under the same hold as the statement: on a connection that
    // threads share, the next insert may be another thread's.
    if (stmt_->inserts) lastrowid_ = sqlite3_last_insert_rowid(db);
  }
  return *this;
}

Cursor& Cursor::executemany(std::string_view sql, const std::vector<Params>& params_list) {
  const std::vector<ParamsRef> refs(params_list.begin(), params_list.end());
  return execute_each(sql, refs);
}

Cursor& Cursor::execute_each(std::string_view sql, std::span<const ParamsRef> params_list) {
  start(sql);
  if (!stmt_->stmt) return *this;
  if (stmt_->readonly) throw Error("executemany() can only execute DML statements.", SQLITE_MISUSE);
  sqlite3* db = sqlite3_db_handle(stmt_->stmt.get());
  std::int64_t total = 0;
  for (const auto& params : params_list) {
    sqlite3_reset(stmt_->stmt.get());
    bind_all(*stmt_, params, Hold::borrowed);
    done_ = false;
    DbMutex guard(stmt_->mutex);
    for (bool row = step_row(true); row; row = step_row()) {
    }
    if (stmt_->dml) total += sqlite3_changes64(db);
  }
  if (stmt_->dml) rowcount_ = total;
  return *this;
}

std::vector<std::string> Cursor::columns() const {
  if (!stmt_ || !stmt_->stmt) return {};
  return *stmt_->names;
}

std::optional<Row> Cursor::fetchone() {
  check_open();
  if (next_buffered_ < buffered_.size()) return std::move(buffered_[next_buffered_++]);
  if (!stmt_ || done_) return std::nullopt;
  if (has_pending_) {
    has_pending_ = false;
    return current_row();
  }
  if (step_row()) return current_row();
  return std::nullopt;
}

std::vector<Row> Cursor::fetchall() {
  std::vector<Row> rows;
  while (auto r = fetchone()) rows.push_back(std::move(*r));
  return rows;
}

void Cursor::close() noexcept {
  stmt_.reset();
  buffered_.clear();
  next_buffered_ = 0;
  has_pending_ = false;
  done_ = true;
  closed_ = true;
}

}  // namespace marsk_quorvi::storage
