// The storage layer's connections: the rules they apply to text; the SQLite
// access layer on real files, with another process holding the write lock and
// a full-text table that cannot load; which connection of a handle runs a
// query (the read pool when it may, the writer connection, traced on its
// handle, when it must); the read pool, connect and close, nested transactions
// and the index tables.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <future>
#include <limits>
#include <thread>

#include "marsk_quorvi/storage/storage_size.hpp"
#include "marsk_quorvi/utils/path_filter.hpp"
#include "storage/log.hpp"
#include "storage/migrations.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
namespace mu = marsk_quorvi::utils;
using namespace marsk_quorvi::testing;
using namespace std::chrono_literals;

namespace {

// "Kind: message" of the library error that `f` raises, the message alone of
// another exception, or "" when it raises none.
template <class F>
std::string raised(F&& f) {
  try {
    f();
  } catch (const marsk_quorvi::QuorviError& e) {
    return std::string(e.kind()) + ": " + e.what();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

// The rows `f` returns, columns joined by '|' and each row ended by ';', or
// "Kind: message" when it raises.
template <class F>
std::string rows_or_error(F&& f) {
  std::string out;
  const auto error = raised([&] {
    for (const mq::Row& row : f()) {
      for (std::size_t i = 0; i < row.size(); ++i) out += (i ? "|" : "") + row[i].to_text();
      out += ";";
    }
  });
  return error.empty() ? out : error;
}

// Records the text of every statement a connection starts, so that a test can
// tell which connection ran a query and see BEGIN/COMMIT/ROLLBACK. SQLite calls
// it under the connection's own mutex, which orders the threads that record.
struct StatementTrace {
  explicit StatementTrace(std::shared_ptr<mq::Connection> c) : connection(std::move(c)) {
    sqlite3_trace_v2(connection->handle(), SQLITE_TRACE_STMT, &StatementTrace::on_statement, this);
  }
  ~StatementTrace() {
    if (sqlite3* db = connection->handle()) sqlite3_trace_v2(db, 0, nullptr, nullptr);
  }
  long count(const std::string& sql) const { return std::count(statements.begin(), statements.end(), sql); }
  // " BEGIN COMMIT": the transaction control in the order it ran.
  std::string control() const {
    std::string out;
    for (const auto& s : statements) out += s == "BEGIN" || s == "COMMIT" || s == "ROLLBACK" ? " " + s : "";
    return out;
  }
  static int on_statement(unsigned, void* self, void*, void* text) {
    static_cast<StatementTrace*>(self)->statements.emplace_back(static_cast<const char*>(text));
    return 0;
  }

  std::shared_ptr<mq::Connection> connection;  // kept alive: it may be closed first
  std::vector<std::string> statements;
};

// Statements SQLite holds for a connection: cached ones plus those in use.
int prepared_statements(mq::Connection& conn) {
  int n = 0;
  for (sqlite3_stmt* s = sqlite3_next_stmt(conn.handle(), nullptr); s; s = sqlite3_next_stmt(conn.handle(), s)) ++n;
  return n;
}

class Handle : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    db = std::make_unique<TestDb>(file = path("index.db").string());
    db->connect();
    db->execute("CREATE TABLE t (id INTEGER PRIMARY KEY, v)");
    db->execute("INSERT INTO t (v) VALUES ('one')");
    trace.emplace(db->connection());
    conn = mq::Connection::open(file);
  }
  void TearDown() override {
    trace.reset();
    db.reset();
    TempDirTest::TearDown();
  }
  // The rows of a query through fetchall (or fetchone), or the error it raises.
  std::string query(const std::string& sql, const mq::Params& params = {}, bool one = false) {
    return rows_or_error([&] {
      auto row = one ? db->fetchone(sql, params) : std::nullopt;
      return !one ? db->fetchall(sql, params) : row ? std::vector{*row} : std::vector<mq::Row>{};
    });
  }
  // What `body` raised, the transaction control SQLite saw, and the rows
  // committed, from an empty table on.
  std::string outcome(const std::function<void()>& body) {
    db->execute("DELETE FROM t");
    trace->statements.clear();
    const auto error = raised(body);
    const auto out = error + " |" + trace->control() + " | ";
    EXPECT_EQ(db->impl()._tx_depth, 0);
    EXPECT_EQ(db->impl()._tx_owner.load(), std::thread::id());
    return out + rows_or_error([&] { return conn->execute("SELECT v FROM t").fetchall(); });
  }

  ScopedEnv readers_{mq::detail::kReadersEnv, "3"};
  std::string file;
  std::unique_ptr<TestDb> db;
  std::optional<StatementTrace> trace;
  std::shared_ptr<mq::Connection> conn;  // a connection of its own to the handle's file
};

// ------------------------------------------------------------------ rules on text

TEST(Classification, ReaderCountReadStatementsAndWhatAReaderCannotServe) {
  const std::pair<std::optional<std::string>, int> counts[] = {
      {std::nullopt, 6}, {"", 6},   {"   ", 6},  {"abc", 6},   {"4.5", 6},  {"+5", 5},       {"-1", 0},
      {"0", 0},          {"32", 32}, {"33", 32}, {" 7 ", 7},   {"100", 32}, {"0x10", 6},     {"8 readers", 6},
      {"\t12\n", 12},    {"+", 6},   {"--1", 6}, {"99999999999999999999999", 32}};
  for (const auto& [value, expected] : counts) {
    ScopedEnv env(mq::detail::kReadersEnv, value);
    EXPECT_EQ(mq::reader_count(), expected) << value.value_or("<unset>");
  }
  for (const char* sql : {"  select * from files", "With t AS (SELECT 1) SELECT * FROM t", "WITHOUT", "SELECTED",
                          "\n\tSELECT 1", "pragma user_version", " PRAGMA user_version ;; ", "PRAGMA user_version;"}) {
    EXPECT_TRUE(mq::detail::_is_read_statement(sql)) << "'" << sql << "'";
  }
  for (const char* sql : {"PRAGMA user_version=5", "PRAGMA user_version = 5", "PRAGMA user_version; ;",
                          "PRAGMA  user_version", "PRAGMA main.user_version", "INSERT INTO files (path) VALUES ('a')",
                          "-- note\nSELECT 1", "(SELECT 1)", "EXPLAIN SELECT 1", "VALUES (1)", "PRAGMA page_count", "",
                          "   ", "SELEC"}) {
    EXPECT_FALSE(mq::detail::_is_read_statement(sql)) << "'" << sql << "'";
  }
  for (const auto& [message, expected] :
       {std::pair{"attempt to write a readonly database", true}, {"UNABLE TO OPEN DATABASE FILE", true},
        {"Attempt To Write A ReadOnly Database", true}, {"database is locked", false}, {"", false}}) {
    EXPECT_EQ(mq::detail::_reader_cannot_serve(mq::OperationalError(message)), expected) << message;
  }
}

std::string rep(const std::string& s, int n) { return n > 0 ? s + rep(s, n - 1) : ""; }

TEST_F(Handle, GlobInBothSyntaxes) {
  const std::tuple<std::string, std::string, bool, bool> cases[] = {
      // pattern, path, matched in the path syntax, matched as a .gitignore line
      {"*.py", "main.py", 1, 1}, {"*.py", "src/main.py", 0, 0}, {"*.py", "Main.PY", 0, 0},
      {"src/*.py", "src/main.py", 1, 1}, {"src/*.py", "src/pkg/main.py", 0, 0}, {"src/**/*.py", "src/main.py", 1, 1},
      {"src/**/*.py", "src/a/b/c/main.py", 1, 1}, {"src/**/*.py", "lib/a/main.py", 0, 0}, {"**/*.py", "main.py", 1, 1},
      {"**/*.py", "a/b/main.py", 1, 1}, {"**/*.py", "a/b/main.pyc", 0, 0}, {"src/**", "src/anything/at/all", 1, 1},
      {"src/**", "src", 0, 0}, {"src/**", "src/", 1, 1}, {"src/?.c", "src/a.c", 1, 1}, {"src/?.c", "src/ab.c", 0, 0},
      {"src?a/c", "src/a/c", 0, 0}, {"[abc].c", "a.c", 1, 1}, {"[abc].c", "d.c", 0, 0}, {"[!abc].c", "d.c", 1, 1},
      {"[^a]x", "bx", 1, 1}, {"[a-c].c", "b.c", 1, 1}, {"[a-c].c", "x.c", 0, 0}, {"[]]", "]", 1, 1},
      {"[a-]", "-", 1, 1}, {"", "", 1, 1}, {"*", "", 1, 1}, {"", "a", 0, 0},
      // A class never matches '/', nor in .gitignore lines reaches past one; an unclosed '[' is literal.
      {"a[/]c", "a/c", 0, 0}, {"a[/]c", "a[/]c", 0, 1}, {"[.c", "[.c", 1, 1}, {"[a-", "[a-", 1, 0},
      // Runs of stars fold to the meaning of the whole run; in .gitignore lines only a segment `**` crosses '/'.
      {"a/**/**/**/b", "a/b", 1, 1}, {"a/**/**/**/b", "a/x/y/b", 1, 1}, {"***/b", "b", 0, 0},
      {"***/b", "x/y/b", 1, 0}, {"****/b", "xb", 1, 0}, {"a**b", "ax/yb", 1, 0}, {"a**b", "axyb", 1, 1},
      {"**/b", "ab", 0, 0},
      // Escapes, named sets and unsigned byte ranges are for .gitignore lines.
      {"a\\*", "a*", 0, 1}, {"a\\*", "a\\x", 1, 0}, {"a\\", "a\\", 1, 0}, {"a\\/b", "a\\/b", 1, 0},
      {"[\\]]", "]", 0, 1}, {"[[:digit:]]x", "7x", 0, 1}, {"[[:digit:]]x", "d]x", 1, 0},
      {"[[:nope:]]", "n]", 1, 0}, {"[a-\xff]", "b", 0, 1},
      // Backtracking would take years over these.
      {rep("**a", 10) + "b", rep("a", 80), 0, 0}, {rep("**a", 10) + "b", rep("a", 80) + "b", 1, 1},
      {rep("**/a/", 10) + "b", rep("a/", 40) + "c", 0, 0}, {rep("**/a/", 10) + "b", rep("a/", 40) + "b", 1, 1},
      {rep("**/", 300) + "x", rep("d/", 40) + "x", 1, 1}, {rep("*a", 150), rep("a", 150), 1, 1},
      {rep("*a", 150), rep("a", 149), 0, 0}};
  for (const auto& [pattern, path, in_path_syntax, as_gitignore] : cases) {
    const std::string what = "'" + pattern + "' ~ '" + path + "'";
    EXPECT_EQ(mu::path_glob(path, pattern), in_path_syntax) << what;
    EXPECT_EQ(query("SELECT path_glob(?, ?)", {path, pattern}), in_path_syntax ? "1;" : "0;") << what;
    EXPECT_EQ(mu::Glob(pattern, mu::GlobSyntax::gitignore).matches(path), as_gitignore) << what;
  }
}

TEST_F(Handle, PathFunctionsThroughSqlOnlyOnTheConnectionsThatRegisteredThem) {
  const std::pair<mq::Value, const char*> parts[] = {
      {"src/pkg/Mod.PY", "py|src/pkg|Mod.PY;"}, {"archive.tar.gz", "gz||archive.tar.gz;"}, {"Makefile", "||Makefile;"},
      {"home/.bashrc", "|home|.bashrc;"}, {"dir.d/file", "|dir.d|file;"}, {"trailing.", "||trailing.;"},
      {"a/b/", "|a/b|;"}, {"", "||;"}, {mq::Value(), "NULL|NULL|NULL;"}};
  for (const auto& [p, want] : parts) EXPECT_EQ(query("SELECT path_ext(?1), path_dir(?1), path_name(?1)", {p}), want);
  EXPECT_EQ(query("SELECT path_glob(NULL, '*'), path_glob('a', NULL)"), "NULL|NULL;");
  // A pattern that changes from row to row is not taken for the one before.
  EXPECT_EQ(query("SELECT sum(path_glob(column1, column2)) FROM (VALUES ('a.c', '*.c'), ('a.c', '*.h'), ('b.h', "
                  "'*.h'))"), "2;");
  EXPECT_EQ(raised([&] { conn->execute("SELECT path_ext('a.b')"); }), "OperationalError: no such function: path_ext");
  conn->close();
  EXPECT_EQ(raised([&] { mu::register_path_functions(*conn); }), "Error: Cannot operate on a closed database.");
}

TEST(QuotedRepr, FormsAsPythonsRepr) {
  const std::pair<std::string, std::string> cases[] = {
      {"[1, 2]", "'[1, 2]'"}, {"", "''"}, {"it's", R"("it's")"}, {R"(say "hi")", R"('say "hi"')"},
      {R"(a'b"c)", R"('a\'b"c')"}, {"back\\slash", R"('back\\slash')"}, {"a\nb\tc\rd", R"('a\nb\tc\rd')"},
      {std::string("\x00\x01\x1f\x7f", 4), R"('\x00\x01\x1f\x7f')"},
      // Printable beyond ASCII: a letter, an emoji, the last variation selector. Then controls, separators and
      // format characters; unassigned code points, a noncharacter, private use and the last code point.
      {"caf\xc3\xa9 \xf0\x9f\x98\x80 \xf3\xa0\x87\xaf", "'caf\xc3\xa9 \xf0\x9f\x98\x80 \xf3\xa0\x87\xaf'"},
      {"\xc2\x85\xc2\xa0\xc2\xad", R"('\x85\xa0\xad')"},
      {"\xe2\x80\xae\xe2\x81\xa6\xe2\x81\xa0", R"('\u202e\u2066\u2060')"},
      {"\xe2\x80\x83\xe3\x80\x80\xe2\x80\xa8\xef\xbb\xbf\xf3\xa0\x80\x81", R"('\u2003\u3000\u2028\ufeff\U000e0001')"},
      {"\xcd\xb7\xcd\xb8\xcd\xb9\xcd\xba", "'\xcd\xb7\\u0378\\u0379\xcd\xba'"},
      {"\xef\xbf\xbf\xee\x80\x80\xf3\xb0\x80\x80\xf4\x8f\xbf\xbf", R"('\uffff\ue000\U000f0000\U0010ffff')"},
      // Bytes that are not UTF-8 (a stray continuation byte, a lead byte cut short, an overlong form and an encoded
      // surrogate) read apart from the control character of the same number.
      {"\x85", R"('\udc85')"}, {"\xf0\x9f\x98", R"('\udcf0\udc9f\udc98')"}, {"\xc0\xaf", R"('\udcc0\udcaf')"},
      {"\xed\xa0\x80!", R"('\udced\udca0\udc80!')"}};
  for (const auto& [text, expected] : cases) EXPECT_EQ(mq::detail::quoted_repr(text), expected) << expected;
}

// ------------------------------------------------------------------ the access layer

TEST_F(Handle, ValuesRoundTripWithTheirTypesAndRowsOutliveTheirConnection) {
  using T = mq::Value::Type;
  const std::pair<mq::Value, T> cases[] = {
      {mq::Value(), T::Null}, {std::optional<int>(), T::Null}, {std::numeric_limits<std::int64_t>::max(), T::Integer},
      {std::numeric_limits<std::int64_t>::min(), T::Integer}, {0.1, T::Real}, {-1e300, T::Real}, {"", T::Text},
      {"h\xc3\xa9llo \xe2\x82\xac", T::Text}, {std::string("a\0b", 3), T::Text}, {mq::Bytes{0, 1, 0, 255}, T::Blob},
      {mq::Bytes{}, T::Blob}};
  // One row read into again and again, through every change of type.
  mq::Row reused;
  EXPECT_TRUE(reused.keys().empty());
  EXPECT_THROW(reused["v"], std::out_of_range);
  for (std::int64_t id = 2; const auto& [value, type] : cases) {
    conn->execute("INSERT INTO t (id, v) VALUES (?, ?)", {id, value});
    const auto row = conn->execute("SELECT v FROM t WHERE id = ?", {id}).fetchone().value();
    EXPECT_EQ(row[0].type(), type) << row[0].to_text();
    EXPECT_EQ(row[0], value) << row[0].to_text();
    ASSERT_TRUE(db->fetchone("SELECT v FROM t WHERE id = ?", {id++}, reused));
    EXPECT_EQ(reused.values(), row.values());
  }
  EXPECT_FALSE(db->fetchone("SELECT v FROM t WHERE id = 0", {}, reused));
  EXPECT_EQ(reused[0], mq::Value(mq::Bytes{}));  // as it was
  ASSERT_TRUE(db->fetchone("SELECT 'a' AS k, 2 AS n", {}, reused));
  EXPECT_EQ(reused.keys(), (std::vector<std::string>{"k", "n"}));
  EXPECT_EQ(reused.values(), (std::vector<mq::Value>{"a", 2}));
  const auto row = conn->execute("SELECT 7 AS id, 'x' AS Name").fetchone().value();
  conn.reset();
  EXPECT_EQ(row.keys(), (std::vector<std::string>{"id", "Name"}));
  EXPECT_EQ(row["ID"], row[0]);  // names compare without regard to case
  EXPECT_EQ(row["name"].as_text(), "x");
  EXPECT_THROW(row[2], std::out_of_range);
  EXPECT_THROW(row["missing"], std::out_of_range);
}

TEST_F(Handle, RowcountCountsChangedRowsAndIsNegativeOtherwise) {
  conn->execute("CREATE TABLE src (n INTEGER)");
  conn->execute("INSERT INTO src (n) VALUES (1), (2), (3), (4)");
  // The statement, its rowcount, and the cursor's lastrowid after it: set by an INSERT or REPLACE that
  // execute ran, kept through any other statement and through a failed insert.
  const std::tuple<const char*, std::int64_t, std::optional<std::int64_t>> cases[] = {
      {"SELECT 1", -1, std::nullopt}, {"INSERT INTO t (v) VALUES ('a'), ('b')", 2, 3},
      {"INSERT INTO t (v) SELECT n FROM src", 4, 7},
      {"WITH s(n) AS (SELECT n FROM src WHERE n > 2) INSERT INTO t (v) SELECT n FROM s", 2, 7},
      {"UPDATE t SET v = 0 WHERE typeof(v) = 'integer'", 6, 7}, {"SELECT * FROM t", -1, 7},
      {"  /* c */ REPLACE INTO t (id, v) VALUES (20, 'r')", 1, 20}, {"INSERT INTO t (id, v) VALUES (20, 'r')", -1, 20},
      // SQLite's change counter still holds the last write's count: these change no rows.
      {"CREATE TABLE other (x)", -1, 20}, {"PRAGMA user_version = 3", -1, 20}, {"DELETE FROM t WHERE v = 0", 6, 20},
      {"DELETE FROM t WHERE v = 'none such'", 0, 20}};
  auto cursor = conn->cursor();
  for (const auto& [sql, rowcount, lastrowid] : cases) {
    if (raised([&] { cursor.execute(sql); }).empty()) EXPECT_EQ(cursor.rowcount(), rowcount) << sql;
    EXPECT_EQ(cursor.lastrowid(), lastrowid) << sql;
  }
  // The result columns of the last statement: none for a write without RETURNING, none once closed.
  EXPECT_EQ(cursor.columns(), std::vector<std::string>{});
  EXPECT_EQ(cursor.execute("SELECT 1 AS a, 2 AS b WHERE 0").columns(), (std::vector<std::string>{"a", "b"}));
  cursor.close();
  EXPECT_EQ(cursor.columns(), std::vector<std::string>{});
  // executemany: the total of every set; rows a write returns are dropped, and a query is refused.
  auto many = conn->executemany("INSERT INTO t (v) VALUES (?) RETURNING id", {{1}, {2}, {3}});
  EXPECT_EQ(many.rowcount(), 3);
  EXPECT_FALSE(many.fetchone());
  EXPECT_EQ(query("SELECT count(*) FROM t WHERE typeof(v) = 'integer'"), "3;");
  EXPECT_EQ(conn->executemany("DELETE FROM t WHERE id = ?", {}).rowcount(), 0);
  EXPECT_EQ(conn->executemany("PRAGMA user_version = 4", {{}}).rowcount(), -1);
  EXPECT_EQ(raised([&] { conn->executemany("SELECT v FROM t WHERE id = ?", {{1}}); }),
            "Error: executemany() can only execute DML statements.");
}

TEST_F(Handle, StatementCacheReusesBoundedAndNeverSharesAStatement) {
  const int before = prepared_statements(*conn);
  for (int i = 0; i < 50; ++i) conn->execute("SELECT v FROM t WHERE id = ?", {i}).fetchall();
  EXPECT_EQ(prepared_statements(*conn), before + 1);
  conn->executemany("INSERT INTO t (v) VALUES (?)", {{"b"}, {"c"}});
  auto first = conn->execute("SELECT v FROM t ORDER BY id");
  ASSERT_EQ(first.fetchone().value()[0].as_text(), "one");
  EXPECT_EQ(conn->execute("SELECT v FROM t ORDER BY id").fetchall().size(), 3u);  // a second statement
  EXPECT_EQ(first.fetchone().value()[0].as_text(), "b");
  // Given back half-read, a statement starts again from the top.
  conn->execute("SELECT id FROM t WHERE id >= ? ORDER BY id", {1}).fetchone();
  EXPECT_EQ(conn->execute("SELECT id FROM t WHERE id >= ? ORDER BY id", {2}).fetchone().value()[0].as_int(), 2);
  // A cached statement follows a schema change, column names included.
  EXPECT_EQ(conn->execute("SELECT * FROM t").fetchone()->size(), 2u);
  conn->execute("ALTER TABLE t ADD COLUMN extra DEFAULT 'z'");
  EXPECT_EQ(conn->execute("SELECT * FROM t").fetchone().value()["extra"].as_text(), "z");

  auto small = mq::Connection::open(file, {.statement_cache = 8});
  for (int i = 0; i < 40; ++i) small->execute("SELECT " + std::to_string(i)).fetchone();
  EXPECT_EQ(prepared_statements(*small), 8);
  // Statements held by open cursors are never evicted from under them.
  std::vector<mq::Cursor> open;
  for (int i = 100; i < 112; ++i) open.push_back(small->execute("SELECT " + std::to_string(i) + " UNION ALL SELECT 0"));
  for (int i = 0; i < 12; ++i) EXPECT_EQ(open[i].fetchone().value()[0].as_int(), 100 + i);
  open.clear();
  EXPECT_EQ(prepared_statements(*small), 8);
}

TEST_F(Handle, CursorsSurviveMovesAndTheirOwnersAndRefuseWorkOnceClosed) {
  conn->executemany("INSERT INTO t (v) VALUES (?)", {{"b"}, {"c"}, {"d"}});
  std::optional<mq::Cursor> a(conn->execute("SELECT v FROM t ORDER BY id"));
  EXPECT_EQ(a->fetchone().value()[0].as_text(), "one");
  mq::Cursor b(std::move(*a));
  a.reset();  // the moved-from cursor must not give the statement back
  EXPECT_EQ(b.fetchone().value()[0].as_text(), "b");
  auto other = mq::Connection::open(path("b.db").string());
  mq::Cursor c = other->execute("SELECT 1 UNION ALL SELECT 2");
  other.reset();
  c = std::move(b);  // over the last owner of another connection
  EXPECT_EQ(c.fetchone().value()[0].as_text(), "c");
  mq::Cursor lone = mq::Connection::open(file)->execute("SELECT v FROM t");  // keeps its connection alive
  EXPECT_EQ(lone.fetchall().size(), 4u);
  c.close();
  c.close();
  EXPECT_EQ(raised([&] { c.fetchone(); }), "Error: Cannot operate on a closed cursor.");
  // A cursor still reading when its connection closes is refused, not stepped.
  auto reading = conn->execute("SELECT v FROM t");
  ASSERT_TRUE(reading.fetchone());
  conn->close();
  conn->close();
  EXPECT_EQ(conn->handle(), nullptr);
  EXPECT_EQ(raised([&] { reading.fetchone(); }), "Error: Cannot operate on a closed database.");
  EXPECT_EQ(raised([&] { conn->execute("SELECT 1"); }), "Error: Cannot operate on a closed database.");
}

TEST_F(Handle, StatementsGiveTheirRowsOrSqlitesMessageWithTheErrorKind) {
  conn->execute("CREATE TABLE u (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE)");
  conn->execute("INSERT INTO u (id, name) VALUES (1, 'a')");
  auto reader = mq::Connection::open(file, {.readonly = true});
  std::ofstream(path("garbage.db"), std::ios::binary) << std::string(4096, 'x');
  auto garbage = mq::Connection::open(path("garbage.db").string());  // nothing read yet
  const std::tuple<std::shared_ptr<mq::Connection>, const char*, std::string> cases[] = {
      // Empty statements and comments are no statement, and no second one.
      {conn, " SELECT 5 ;; /* a note */ -- and another", "5;"}, {conn, "", ""}, {conn, " ;", ""},
      {conn, "-- a note", ""}, {conn, "/* a note */", ""},
      {conn, "SELECT * FROM nope", "OperationalError: no such table: nope"},
      {conn, "SELEC 1", "OperationalError: near \"SELEC\": syntax error"},
      {garbage, "SELECT * FROM sqlite_master", "OperationalError: file is not a database"},
      {reader, "INSERT INTO u (id, name) VALUES (5, 'e')", "OperationalError: attempt to write a readonly database"},
      {conn, "INSERT INTO u (id, name) VALUES (1, 'b')", "Error: UNIQUE constraint failed: u.id"},
      {conn, "INSERT INTO u (id, name) VALUES (3, NULL)", "Error: NOT NULL constraint failed: u.name"},
      {conn, "SELECT ?",
       "Error: Incorrect number of bindings supplied. The current statement uses 1, and there are 0 supplied."},
      {conn, "SELECT 1; SELECT 2", "Error: You can only execute one statement at a time."}};
  for (const auto& [on, sql, want] : cases) EXPECT_EQ(rows_or_error([&] { return on->execute(sql).fetchall(); }), want);
  EXPECT_EQ(raised([&] { (void)mq::Connection::open(path("missing/dir/x.db").string()); }),
            "OperationalError: unable to open database file");
}

TEST_F(Handle, AnotherProcessesWriteLockMakesAWriteWaitOrFailAsLocked) {
  db->impl()._busy_timeout_ms = 50;
  db->connect();
  PeerProcess peer({"lock", file, "1"});
  ASSERT_EQ(peer.read_line(), "ready");
  EXPECT_EQ(raised([&] { db->execute("INSERT INTO t (v) VALUES (1)"); }), "OperationalError: database is locked");
  EXPECT_EQ(conn->execute("INSERT INTO t (v) VALUES (2)").rowcount(), 1);  // the default wait outlasts the lock
  EXPECT_EQ(peer.wait(), 0);
  // Committed without an explicit transaction: another process sees it.
  EXPECT_EQ(PeerProcess::run({"query", file, "SELECT v FROM t"}).output, "one\n2\n");
}

// A full-text table re-created by another connection can fail a prepare with
// "vtable constructor failed" for a moment; outside a transaction the layer
// prepares again, a bounded number of times. With its config table renamed away
// it fails for good; renamed back by the authoriser (asked at every prepare) it
// comes back between two attempts.
TEST_F(Handle, FullTextTableThatCannotLoadIsPreparedAgainABoundedNumberOfTimes) {
  const auto fts = path("fts.db").string();
  auto writer = mq::Connection::open(fts);
  writer->execute("CREATE VIRTUAL TABLE code_chunks USING fts5(content)");
  writer->execute("INSERT INTO code_chunks (content) VALUES ('x')");
  auto other = mq::Connection::open(fts);
  static int asks, fix_at;
  const auto authorise = [](void* other, int action, const char*, const char*, const char*, const char*) {
    if (action == SQLITE_SELECT && ++asks == fix_at) {
      sqlite3_exec(static_cast<sqlite3*>(other), "ALTER TABLE kept RENAME TO code_chunks_config", 0, 0, 0);
    }
    return SQLITE_OK;
  };
  const std::string failed = "OperationalError: vtable constructor failed: code_chunks";
  // Eight attempts. SQLite asks twice per prepare (it retries a changed schema
  // once itself), and three times at the first step of a cached statement.
  const std::tuple<bool, bool, int, std::string, int> cases[] = {
      // cached, in a transaction, repaired at the ask, result, asks
      {false, false, 0, failed, 16}, {true, false, 0, failed, 17}, {false, true, 0, failed, 2},
      {false, false, 3, "1;", 6},    {true, false, 4, "1;", 7}};
  for (const auto& [cached, in_transaction, fix, expected, expected_asks] : cases) {
    const char* sql = "SELECT count(*) FROM code_chunks";
    auto reader = cached ? writer : mq::Connection::open(fts);
    if (cached) reader->execute(sql).fetchall();
    other->execute("ALTER TABLE code_chunks_config RENAME TO kept");
    if (in_transaction) reader->execute("BEGIN");
    asks = 0;
    fix_at = fix;
    sqlite3_set_authorizer(reader->handle(), authorise, other->handle());
    EXPECT_EQ(rows_or_error([&] { return reader->execute(sql).fetchall(); }), expected) << expected_asks;
    sqlite3_set_authorizer(reader->handle(), nullptr, nullptr);
    EXPECT_EQ(asks, expected_asks);
    if (in_transaction) reader->execute("ROLLBACK");
    if (!fix) other->execute("ALTER TABLE kept RENAME TO code_chunks_config");
  }
}

// ------------------------------------------------------------------ the handle

TEST_F(Handle, QueriesRunOnThePoolWhenTheyMayAndFailuresThereAreNotRetried) {
  db->execute("CREATE TEMP TABLE only_on_writer (v)");  // a retry on the writer would turn the pool's error into rows
  db->execute("INSERT INTO only_on_writer (v) VALUES ('w')");
  const std::tuple<const char*, std::string, long> cases[] = {
      // the query, its result, and how many of its two runs (fetchall, fetchone) the writer saw
      {"SELECT v FROM t WHERE id = 1", "one;", 0},
      {"  with x(n) AS (SELECT 2) SELECT n FROM x", "2;", 0},
      {" pragma user_version ;; ", "0;", 0},
      {"SELECT path_ext('src/Mod.PY') || path_glob('src/a/b.py', 'src/**/*.py')", "py1;", 0},
      {"INSERT INTO t (v) VALUES ('r') RETURNING v", "r;", 2},
      {"PRAGMA user_version = 5", "", 2},
      // Taken for a read: the read connection refuses the write and the writer runs it from the start.
      {"WITH s(x) AS (SELECT 'w') INSERT INTO t (v) SELECT x FROM s", "", 2},
      {"", "", 0},  // on the writer, which starts nothing for it
      {"-- only a note", "", 0},
      {"SELECT * FROM nope", "OperationalError: no such table: nope", 0},
      {"SELECT v FROM only_on_writer", "OperationalError: no such table: only_on_writer", 0},
      {"SELECT ?", "Error: Incorrect number of bindings supplied. The current statement uses 1, and there are 0 "
                   "supplied.", 0}};
  for (const auto& [sql, result, on_writer] : cases) {
    EXPECT_EQ(query(sql), result) << sql;
    EXPECT_EQ(query(sql, {}, true), result) << sql;
    EXPECT_EQ(trace->count(sql), on_writer) << sql;
  }
  EXPECT_EQ(query("SELECT v FROM t WHERE id > 1"), "r;r;w;w;");
  // A pool that refuses (closed, or unable to open the file) sends the query to the writer.
  auto closed = std::make_shared<mq::ReaderPool>(file, 1);
  closed->close();
  for (const auto& pool : {closed, std::make_shared<mq::ReaderPool>(path("no/such/dir/index.db").string(), 1)}) {
    db->impl()._readers.store(pool);
    trace->statements.clear();
    EXPECT_EQ(query("SELECT v FROM t WHERE id = 1"), "one;");
    EXPECT_EQ(trace->count("SELECT v FROM t WHERE id = 1"), 1);
  }
}

TEST_F(Handle, PoolOpensConnectionsOnDemandGivesAFailedOnesPlaceBackAndRefusesOnceClosed) {
  bool configure_fails = false;
  mq::ReaderPool pool(file, 2, [&](mq::Connection&) {
    if (configure_fails) throw mq::OperationalError("configure failed");
  });
  EXPECT_EQ(pool.open_connections(), 0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(pool.lease().connection().execute("SELECT v FROM t").fetchall().size(), 1u);
  EXPECT_EQ(pool.open_connections(), 1);  // one at a time was enough
  {
    auto held = pool.lease();
    configure_fails = true;
    EXPECT_EQ(raised([&] { pool.lease(); }), "OperationalError: configure failed");
    ASSERT_EQ(pool.open_connections(), 1);
    configure_fails = false;
    EXPECT_NE(&held.connection(), &pool.lease().connection());
  }
  EXPECT_EQ(pool.open_connections(), 2);
  pool.close();
  pool.close();
  EXPECT_EQ(pool.open_connections(), 0);
  EXPECT_EQ(raised([&] { pool.lease(); }), "ReaderUnavailable: the read pool is closed");
  mq::ReaderPool missing(path("none/x.db").string(), 1);
  EXPECT_EQ(raised([&] { missing.lease(); }), "OperationalError: unable to open database file");
  EXPECT_EQ(missing.open_connections(), 0);
}

TEST_F(Handle, PoolLeasesWaitForAConnectionAndCloseWaitsForLeases) {
  mq::ReaderPool pool(file, 1);
  const auto count = [&] { return pool.lease().connection().execute("SELECT v FROM t").fetchall().size(); };
  std::optional<mq::ReaderPool::Lease> held(pool.lease());
  auto waiting = std::async(std::launch::async, count);
  EXPECT_EQ(waiting.wait_for(200ms), std::future_status::timeout) << "a second connection was leased past the bound";
  held.reset();
  EXPECT_EQ(waiting.get(), 1u);
  held.emplace(pool.lease());
  auto refused = std::async(std::launch::async, [&] { return raised(count); });
  EXPECT_EQ(refused.wait_for(100ms), std::future_status::timeout);
  std::atomic<bool> lease_ended{false};
  auto closer = std::async(std::launch::async, [&] {
    pool.close();
    return lease_ended.load();
  });
  EXPECT_EQ(refused.get(), "ReaderUnavailable: the read pool is closed");  // close wakes a waiting lease
  EXPECT_EQ(closer.wait_for(200ms), std::future_status::timeout) << "close returned while a lease was out";
  EXPECT_EQ(held->connection().execute("SELECT v FROM t").fetchall().size(), 1u);
  lease_ended = true;
  held.reset();
  EXPECT_TRUE(closer.get());
  EXPECT_EQ(pool.open_connections(), 0);
}

TEST_F(Handle, OperationsWithoutAWriterConnectionRaiseRuntimeError) {
  const std::function<void(TestDb&)> operations[] = {
      [](TestDb& h) { h.connection(); },        [](TestDb& h) { h.execute("SELECT 1"); },
      [](TestDb& h) { h.fetchone("SELECT 1"); }, [](TestDb& h) { h.executemany("PRAGMA user_version = 1", {}); },
      [](TestDb& h) { h.fetchall("SELECT 1"); }, [](TestDb& h) { h.transaction([](mq::Cursor&) {}); }};
  // With a pool the closed pool refuses the lease and the writer path meets the closed handle.
  for (const char* readers : {"4", "0"}) {
    ScopedEnv env(mq::detail::kReadersEnv, readers);
    for (const auto& op : operations) {
      TestDb handle(path("other.db"));
      EXPECT_EQ(raised([&] { op(handle); }), "RuntimeError: Database not connected. Call connect() first.");
      handle.close();  // never connected: nothing changes
      EXPECT_FALSE(handle.closed());
      handle.connect();
      const auto pool = handle.impl()._readers.load();
      std::weak_ptr<mq::Connection> writer = handle.connection();
      handle.connect();  // again: replaces the connection and the pool
      EXPECT_TRUE(writer.expired());
      EXPECT_TRUE(!pool || pool->closed());
      handle.close();
      EXPECT_TRUE(handle.closed());
      EXPECT_EQ(raised([&] { op(handle); }), "RuntimeError: Database is closed.") << readers;
      EXPECT_EQ(handle.impl()._tx_depth, 0);
      EXPECT_EQ(handle.impl()._tx_owner.load(), std::thread::id());
      handle.connect();  // after close: a working handle again
      EXPECT_EQ(raised([&] { op(handle); }) + std::to_string(handle.closed()), "0");
    }
  }
  std::filesystem::create_directories(path("a-directory"));
  TestDb directory(path("a-directory"));
  EXPECT_EQ(raised([&] { directory.connect(); }), "OperationalError: unable to open database file");
  EXPECT_FALSE(directory.closed());
  EXPECT_EQ(raised([&] { directory.connection(); }), "RuntimeError: Database not connected. Call connect() first.");
  TestDb under_a_file(path("index.db") / "x.db");
  EXPECT_EQ(raised([&] { under_a_file.connect(); }), "OSError: [Errno 20] Not a directory: '" + file + "'");
}

TEST_F(Handle, ConnectSetsTheFileUpAndOpensAPoolOnlyInWalModeWithReaders) {
  mq::Connection::open(path("old.db").string())->executescript("PRAGMA page_size=4096; CREATE TABLE kept (v);");
  const auto fresh = std::to_string(mq::storage_size::PAGE_SIZE) + " 2 wal 1 1";
  const std::tuple<std::string, std::optional<std::string>, std::string> cases[] = {
      // file, QUORVI_DB_READERS; pool size, page_size, auto_vacuum, journal_mode, foreign_keys, synchronous
      {path("repo/memory/index.db").string(), std::nullopt, "6 " + fresh},
      {path("old.db").string(), "2", "2 4096 0 wal 1 1"},
      {path("none.db").string(), "0", "0 " + fresh},
      {":memory:", std::nullopt, "0 8192 2 memory 1 1"},
      {"", std::nullopt, "0 8192 2 delete 1 1"}};  // a temporary file, which refuses WAL
  for (const auto& [name, readers, expected] : cases) {
    ScopedEnv env(mq::detail::kReadersEnv, readers);
    TestDb handle(name);
    handle.connect();
    handle.execute("CREATE TABLE t (v)");
    const auto pool = handle.impl()._readers.load();
    std::string got = std::to_string(pool ? pool->size() : 0);
    for (const char* p : {"page_size", "auto_vacuum", "journal_mode", "foreign_keys", "synchronous"}) {
      got += " " + handle.fetchone(std::string("PRAGMA ") + p).value()[0].to_text();
    }
    EXPECT_EQ(got, expected) << name;
  }
}

TEST_F(Handle, TransactionsBeginOnceAndEndAtTheOutermostScope) {
  db->execute("CREATE TABLE parent (id INTEGER PRIMARY KEY)");
  db->execute("CREATE TABLE child (pid INTEGER REFERENCES parent (id) DEFERRABLE INITIALLY DEFERRED)");
  const auto insert = [](mq::Cursor& c, const char* v) { c.execute("INSERT INTO t (v) VALUES (?)", {v}); };
  const auto dangling_reference = [&] {
    db->transaction([&](mq::Cursor& c) {
      insert(c, "x");
      c.execute("INSERT INTO child (pid) VALUES (99)");  // checked at COMMIT
    });
  };
  EXPECT_EQ(outcome(dangling_reference), "Error: FOREIGN KEY constraint failed | BEGIN COMMIT ROLLBACK | ");
  const auto begun_behind_its_back = [&] {
    db->execute("BEGIN");
    db->execute("INSERT INTO t (v) VALUES ('stray')");
    db->transaction([&](mq::Cursor& c) { insert(c, "body"); });
  };
  EXPECT_EQ(outcome(begun_behind_its_back),
            "OperationalError: cannot start a transaction within a transaction | BEGIN BEGIN ROLLBACK | ");
  const auto nested_catching_a_failure = [&] {
    db->transaction([&](mq::Cursor& outer) {
      insert(outer, "outer");
      db->transaction([&](mq::Cursor& inner) {
        EXPECT_NE(&inner, &outer);
        insert(inner, "inner");
        const auto innermost = [&](mq::Cursor&) {
          EXPECT_EQ(db->impl()._tx_depth, 3);
          throw std::out_of_range("innermost");
        };
        EXPECT_EQ(raised([&] { db->transaction(innermost); }), "innermost");
        EXPECT_EQ(db->impl()._tx_depth, 2);
      });
    });
  };
  EXPECT_EQ(outcome(nested_catching_a_failure), " | BEGIN COMMIT | outer;inner;");
  const auto nested_failing = [&] {
    db->transaction([&](mq::Cursor& c) {
      insert(c, "outer");
      db->transaction([](mq::Cursor&) { throw std::out_of_range("inner, never caught"); });
    });
  };
  EXPECT_EQ(outcome(nested_failing), "inner, never caught | BEGIN ROLLBACK | ");
  const auto owner_writing_and_reading = [&] {
    db->transaction([&](mq::Cursor&) {
      EXPECT_EQ(db->impl()._tx_owner.load(), std::this_thread::get_id());
      db->execute("INSERT INTO t (v) VALUES ('x')");
      db->executemany("INSERT INTO t (v) VALUES (?)", {{"y"}, {"z"}});
      EXPECT_EQ(query("SELECT count(*) FROM t", {}, true), "3;");  // on the writer: its own writes
      throw std::out_of_range("after the owner's writes");
    });
  };
  EXPECT_EQ(outcome(owner_writing_and_reading), "after the owner's writes | BEGIN ROLLBACK | ");
  EXPECT_EQ(db->transaction([](mq::Cursor&) { return 42; }), 42);
}

TEST_F(Handle, AnotherThreadWaitsForTheWholeTransactionExceptToRead) {
  const auto after = [](mq::Cursor& c) { c.execute("INSERT INTO t (v) VALUES ('after')"); };
  const auto without_pool = [&] {
    auto pool = db->impl()._readers.exchange(nullptr);
    EXPECT_EQ(query("SELECT count(*) FROM t"), "2;");  // on the writer, once the transaction is over
    db->impl()._readers.store(pool);
  };
  // What the other thread does meanwhile, whether it has to wait, and how it all ends.
  const std::tuple<std::function<void()>, bool, std::string> others[] = {
      {[&] { db->execute("INSERT INTO t (v) VALUES ('after')"); }, true, " | BEGIN COMMIT | a;b;after;"},
      {[&] { db->executemany("INSERT INTO t (v) VALUES (?)", {{"after"}}); }, true, " | BEGIN COMMIT | a;b;after;"},
      {[&] { db->transaction(after); }, true, " | BEGIN COMMIT BEGIN COMMIT | a;b;after;"},
      {[&] { EXPECT_EQ(query("SELECT count(*) FROM t"), "0;"); }, false, " | BEGIN COMMIT | a;b;"},  // on the pool
      {without_pool, true, " | BEGIN COMMIT | a;b;"},
      {[&] { db->close(); }, true, " | BEGIN COMMIT | a;b;"}};
  for (const auto& [other, waits, expected] : others) {
    const auto owner_and_other = [&] {
      std::promise<void> inside, done;
      const auto owner = [&](mq::Cursor& c) {
        c.execute("INSERT INTO t (v) VALUES ('a')");
        inside.set_value();
        // The other thread waits now, or, if it need not, ends before the transaction does.
        waits ? std::this_thread::sleep_for(200ms) : (void)done.get_future().wait_for(30s);
        c.execute("INSERT INTO t (v) VALUES ('b')");
      };
      std::thread thread([&] { raised([&] { db->transaction(owner); }); });  // a failure shows in what is stored
      inside.get_future().wait();
      other();
      done.set_value();
      thread.join();
    };
    EXPECT_EQ(outcome(owner_and_other), expected);
  }
}

// ------------------------------------------------------------------ the index tables

TEST_F(Handle, NewFileGetsEveryIndexTableAtTheCurrentVersionAndASecondRunChangesNothing) {
  db->create_schema();
  EXPECT_EQ(query("SELECT type, name FROM sqlite_master WHERE type <> 'index' AND name NOT LIKE 'code_chunks_%' "
                  "ORDER BY 1, 2"),
            "table|code_chunks;table|components;table|edges;table|external_imports;table|files;table|index_errors;"
            "table|pending_references;table|schema_info;table|symbols;table|t;"
            "trigger|files_delete_code_chunks;");
  EXPECT_EQ(query("SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name LIKE 'idx_%'"), "13;");
  EXPECT_EQ(query("SELECT * FROM schema_info"), std::string("version|") + mq::migrations::SCHEMA_VERSION + ";");
  query("UPDATE schema_info SET value = '2.0.0' WHERE key = 'version'");
  const auto schema = query("SELECT * FROM sqlite_master");
  db->create_schema();
  EXPECT_EQ(query("SELECT * FROM sqlite_master"), schema);
  EXPECT_EQ(query("SELECT * FROM schema_info"), "version|2.0.0;");
}

TEST_F(Handle, IndexRowsNeedTheirParentsAndGoWithThem) {
  db->create_schema();
  query("INSERT INTO components (id, name) VALUES (7, 'core')");
  query("INSERT INTO files (id, path, language, component_id) VALUES (1, 'a.c', 'c', 7), (2, 'b.c', 'c', 7)");
  query("INSERT INTO symbols (id, file_id, name, fqn, kind, parent_id) VALUES "
        "(1, 1, 'a', 'a', 'module', NULL), (2, 1, 'f', 'a.f', 'function', 1), (3, 1, 'g', 'a.g', 'function', 1)");
  query("INSERT INTO edges (source_id, target_id, kind) VALUES (2, 3, 'calls')");
  query("INSERT INTO external_imports (file_id, module) VALUES (1, 'stdio')");
  // The first and last chunk of file 1, and the first of file 2, its neighbour in rowid order.
  query("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES "
        "(1048576, 'int alpha;', 1, 1, 1), (2097151, 'int omega;', 9, 9, 0), (2097152, 'int beta;', 1, 1, 1)");
  // Children before parents are refused: the order of a bulk copy matters.
  for (const char* orphan : {"files (id, path, component_id) VALUES (3, 'c.c', 8)",
                             "symbols (id, file_id, name, fqn, kind) VALUES (4, 9, 'f', 'f', 'function')",
                             "symbols (id, file_id, name, fqn, kind, parent_id) VALUES (4, 1, 'f', 'f', 'function', 9)",
                             "edges (source_id, target_id, kind) VALUES (2, 99, 'calls')",
                             "edges (source_id, target_id, kind) VALUES (99, 2, 'calls')",
                             "external_imports (file_id, module) VALUES (9, 'os')"}) {
    EXPECT_EQ(query(std::string("INSERT INTO ") + orphan), "Error: FOREIGN KEY constraint failed") << orphan;
  }
  query("DELETE FROM components");
  EXPECT_EQ(query("SELECT id, component_id FROM files"), "1|NULL;2|NULL;");
  query("DELETE FROM files WHERE id = 1");
  EXPECT_EQ(query("SELECT (SELECT count(*) FROM symbols), (SELECT count(*) FROM edges), "
                  "(SELECT count(*) FROM external_imports)"),
            "0|0|0;");
  EXPECT_EQ(query("SELECT rowid FROM code_chunks"), "2097152;");
  EXPECT_EQ(query("SELECT count(*) FROM code_chunks WHERE code_chunks MATCH 'alpha OR omega'"), "0;");
}

}  // namespace
