// The SQLite access layer on real files (values, rows, row counts, the
// statement cache, cursors, error kinds, another process holding the write
// lock, a full-text table that cannot load) and the index tables made on it.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <limits>

#include "marsk_quorvi/storage/core_schema.hpp"
#include "storage/migrations.hpp"
#include "support/access_checks.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
using namespace marsk_quorvi::testing;

namespace {

// Statements SQLite holds for a connection: cached ones plus those in use.
int prepared_statements(mq::Connection& conn) {
  int n = 0;
  for (sqlite3_stmt* s = sqlite3_next_stmt(conn.handle(), nullptr); s; s = sqlite3_next_stmt(conn.handle(), s)) ++n;
  return n;
}

class SqliteAccess : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    file = path("a.db").string();
    conn = mq::Connection::open(file);
    conn->execute("CREATE TABLE t (id INTEGER PRIMARY KEY, v)");
  }
  std::int64_t scalar(const std::string& sql) { return conn->execute(sql).fetchone().value()[0].as_int(); }
  std::string file;
  std::shared_ptr<mq::Connection> conn;
};

TEST_F(SqliteAccess, ValuesRoundTripWithTheirTypesAndRowsOutliveTheirConnection) {
  using T = mq::Value::Type;
  const std::pair<mq::Value, T> cases[] = {
      {mq::Value(), T::Null}, {std::optional<int>(), T::Null}, {std::numeric_limits<std::int64_t>::max(), T::Integer},
      {std::numeric_limits<std::int64_t>::min(), T::Integer}, {0.1, T::Real}, {-1e300, T::Real}, {"", T::Text},
      {"h\xc3\xa9llo \xe2\x82\xac", T::Text}, {std::string("a\0b", 3), T::Text}, {mq::Bytes{0, 1, 0, 255}, T::Blob},
      {mq::Bytes{}, T::Blob}};
  for (std::int64_t id = 1; const auto& [value, type] : cases) {
    conn->execute("INSERT INTO t (id, v) VALUES (?, ?)", {id, value});
    const auto row = conn->execute("SELECT v FROM t WHERE id = ?", {id++}).fetchone().value();
    EXPECT_EQ(row[0].type(), type) << row[0].to_text();
    EXPECT_EQ(row[0], value) << row[0].to_text();
  }
  const auto row = conn->execute("SELECT 7 AS id, 'x' AS Name").fetchone().value();
  conn.reset();
  EXPECT_EQ(row.keys(), (std::vector<std::string>{"id", "Name"}));
  EXPECT_EQ(row["ID"], row[0]);  // names compare without regard to case
  EXPECT_EQ(row["name"].as_text(), "x");
  EXPECT_THROW(row[2], std::out_of_range);
  EXPECT_THROW(row["missing"], std::out_of_range);
}

TEST_F(SqliteAccess, RowcountCountsChangedRowsAndIsNegativeOtherwise) {
  conn->execute("CREATE TABLE src (n INTEGER)");
  conn->execute("INSERT INTO src (n) VALUES (1), (2), (3), (4)");
  const std::pair<const char*, std::int64_t> cases[] = {
      {"INSERT INTO t (v) VALUES ('a'), ('b')", 2}, {"INSERT INTO t (v) SELECT n FROM src", 4},
      {"WITH s(n) AS (SELECT n FROM src WHERE n > 2) INSERT INTO t (v) SELECT n FROM s", 2},
      {"UPDATE t SET v = 0 WHERE typeof(v) = 'integer'", 6}, {"SELECT * FROM t", -1},
      // SQLite's change counter still holds the last write's count: these change no rows.
      {"CREATE TABLE other (x)", -1}, {"PRAGMA user_version = 3", -1}, {"DELETE FROM t WHERE v = 0", 6},
      {"DELETE FROM t WHERE v = 'none such'", 0}};
  for (const auto& [sql, expected] : cases) EXPECT_EQ(conn->execute(sql).rowcount(), expected) << sql;
  // executemany: the total of every set; rows a write returns are dropped, and a query is refused.
  auto many = conn->executemany("INSERT INTO t (v) VALUES (?) RETURNING id", {{1}, {2}, {3}});
  EXPECT_EQ(many.rowcount(), 3);
  EXPECT_FALSE(many.fetchone());
  EXPECT_EQ(scalar("SELECT count(*) FROM t WHERE typeof(v) = 'integer'"), 3);
  EXPECT_EQ(conn->executemany("DELETE FROM t WHERE id = ?", {}).rowcount(), 0);
  EXPECT_EQ(raised([&] { conn->executemany("SELECT v FROM t WHERE id = ?", {{1}}); }),
            "Error: executemany() can only execute DML statements.");
}

TEST_F(SqliteAccess, StatementCacheReusesBoundedAndNeverSharesAStatement) {
  const int before = prepared_statements(*conn);
  for (int i = 0; i < 50; ++i) conn->execute("SELECT v FROM t WHERE id = ?", {i}).fetchall();
  EXPECT_EQ(prepared_statements(*conn), before + 1);
  conn->executemany("INSERT INTO t (id, v) VALUES (?, ?)", {{1, "a"}, {2, "b"}, {3, "c"}});
  auto first = conn->execute("SELECT v FROM t ORDER BY id");
  ASSERT_EQ(first.fetchone().value()[0].as_text(), "a");
  EXPECT_EQ(conn->execute("SELECT v FROM t ORDER BY id").fetchall().size(), 3u);  // a second statement
  EXPECT_EQ(first.fetchone().value()[0].as_text(), "b");
  // Given back half-read, a statement starts again from the top.
  conn->execute("SELECT id FROM t WHERE id >= ? ORDER BY id", {1}).fetchone();
  EXPECT_EQ(conn->execute("SELECT id FROM t WHERE id >= ? ORDER BY id", {2}).fetchone().value()[0].as_int(), 2);
  // A cached statement follows a schema change, column names included.
  EXPECT_EQ(conn->execute("SELECT * FROM t").fetchone()->size(), 2u);
  conn->execute("ALTER TABLE t ADD COLUMN extra DEFAULT 'z'");
  EXPECT_EQ(conn->execute("SELECT * FROM t").fetchone().value()["extra"].as_text(), "z");

  mq::Connection::Options options;
  options.statement_cache = 8;
  auto small = mq::Connection::open(file, options);
  for (int i = 0; i < 40; ++i) small->execute("SELECT " + std::to_string(i)).fetchone();
  EXPECT_EQ(prepared_statements(*small), 8);
  // Statements held by open cursors are never evicted from under them.
  std::vector<mq::Cursor> open;
  for (int i = 100; i < 112; ++i) open.push_back(small->execute("SELECT " + std::to_string(i) + " UNION ALL SELECT 0"));
  for (int i = 0; i < 12; ++i) EXPECT_EQ(open[i].fetchone().value()[0].as_int(), 100 + i);
  open.clear();
  EXPECT_EQ(prepared_statements(*small), 8);
}

TEST_F(SqliteAccess, CursorsSurviveMovesAndTheirOwnersAndRefuseWorkOnceClosed) {
  conn->executemany("INSERT INTO t (id, v) VALUES (?, ?)", {{1, "a"}, {2, "b"}, {3, "c"}, {4, "d"}});
  std::optional<mq::Cursor> a(conn->execute("SELECT v FROM t ORDER BY id"));
  EXPECT_EQ(a->fetchone().value()[0].as_text(), "a");
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

TEST_F(SqliteAccess, StatementsGiveTheirRowsOrSqlitesMessageWithTheErrorKind) {
  conn->execute("CREATE TABLE u (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE)");
  conn->execute("INSERT INTO u (id, name) VALUES (1, 'a')");
  mq::Connection::Options readonly;
  readonly.readonly = true;
  auto reader = mq::Connection::open(file, readonly);
  std::ofstream(path("garbage.db"), std::ios::binary) << std::string(4096, 'x');
  auto garbage = mq::Connection::open(path("garbage.db").string());  // nothing read yet
  const struct {
    std::shared_ptr<mq::Connection> on;
    const char* sql;
    std::string result;
  } cases[] = {
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
      {conn, "SELECT 1; SELECT 2", "Error: You can only execute one statement at a time."},
  };
  for (const auto& c : cases) EXPECT_EQ(rows_or_error([&] { return c.on->execute(c.sql).fetchall(); }), c.result);
  EXPECT_EQ(raised([&] { (void)mq::Connection::open(path("missing/dir/x.db").string()); }),
            "OperationalError: unable to open database file");
}

TEST_F(SqliteAccess, AnotherProcessesWriteLockMakesAWriteWaitOrFailAsLocked) {
  TestDb db(file);
  db.impl()._busy_timeout_ms = 50;
  db.connect();
  PeerProcess peer({"lock", file, "1"});
  ASSERT_EQ(peer.read_line(), "ready");
  EXPECT_EQ(raised([&] { db.execute("INSERT INTO t (v) VALUES (1)"); }), "OperationalError: database is locked");
  EXPECT_EQ(conn->execute("INSERT INTO t (v) VALUES (2)").rowcount(), 1);  // the default wait outlasts the lock
  EXPECT_EQ(peer.wait(), 0);
  // Committed without an explicit transaction: another process sees it.
  EXPECT_EQ(PeerProcess::run({"query", file, "SELECT v FROM t"}).output, "2\n");
}

// A full-text table re-created by another connection can fail a prepare with
// "vtable constructor failed" for a moment; outside a transaction the layer
// prepares again, a bounded number of times. With its config table renamed
// away the table fails for good; renamed back from the authoriser (asked at
// every prepare) it comes back between two attempts.
TEST_F(SqliteAccess, FullTextTableThatCannotLoadIsPreparedAgainABoundedNumberOfTimes) {
  conn->execute("CREATE VIRTUAL TABLE code_chunks USING fts5(content)");
  conn->execute("INSERT INTO code_chunks (content) VALUES ('x')");
  auto other = mq::Connection::open(file);
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
    auto reader = cached ? conn : mq::Connection::open(file);
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

// ------------------------------------------------------------------ the index tables

class CoreSchema : public ::testing::Test {
 protected:
  void SetUp() override {
    run("PRAGMA foreign_keys=ON");
    run("CREATE TABLE memories (id INTEGER PRIMARY KEY, body TEXT)");  // another part of the service
    create_tables();
  }
  void create_tables() {
    auto c = conn->cursor();
    c.execute("BEGIN");
    mq::core_schema::create_tables(c);
    c.execute("COMMIT");
  }
  std::string run(const std::string& sql) { return rows_or_error([&] { return conn->execute(sql).fetchall(); }); }
  std::shared_ptr<mq::Connection> conn = mq::Connection::open(":memory:");
};

TEST_F(CoreSchema, NewFileGetsEveryIndexTableAtTheCurrentVersionAndASecondRunChangesNothing) {
  EXPECT_EQ(run("SELECT type, name FROM sqlite_master WHERE type <> 'index' AND name NOT LIKE 'code_chunks_%' "
                "ORDER BY 1, 2"),
            "table|code_chunks;table|components;table|edges;table|external_imports;table|files;table|index_errors;"
            "table|memories;table|pending_references;table|schema_info;table|symbols;"
            "trigger|files_delete_code_chunks;");
  EXPECT_EQ(run("SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name LIKE 'idx_%'"), "14;");
  EXPECT_EQ(run("SELECT * FROM schema_info"), std::string("version|") + mq::migrations::SCHEMA_VERSION + ";");
  run("UPDATE schema_info SET value = '2.0.0' WHERE key = 'version'");
  const auto schema = run("SELECT * FROM sqlite_master");
  create_tables();
  EXPECT_EQ(run("SELECT * FROM sqlite_master"), schema);
  EXPECT_EQ(run("SELECT * FROM schema_info"), "version|2.0.0;");
}

TEST_F(CoreSchema, RowsNeedTheirParentsAndGoWithThem) {
  run("INSERT INTO components (id, name) VALUES (7, 'core')");
  run("INSERT INTO files (id, path, language, component_id) VALUES (1, 'a.c', 'c', 7), (2, 'b.c', 'c', 7)");
  run("INSERT INTO symbols (id, file_id, name, fqn, kind, parent_id) VALUES "
      "(1, 1, 'a', 'a', 'module', NULL), (2, 1, 'f', 'a.f', 'function', 1), (3, 1, 'g', 'a.g', 'function', 1)");
  run("INSERT INTO edges (source_id, target_id, kind) VALUES (2, 3, 'calls')");
  run("INSERT INTO external_imports (file_id, module) VALUES (1, 'stdio')");
  // The first and last chunk of file 1, and the first of file 2, its neighbour in rowid order.
  run("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES "
      "(1048576, 'int alpha;', 1, 1, 1), (2097151, 'int omega;', 9, 9, 0), (2097152, 'int beta;', 1, 1, 1)");
  // Children before parents are refused: the order of a bulk copy matters.
  for (const char* orphan : {"files (id, path, component_id) VALUES (3, 'c.c', 8)",
                             "symbols (id, file_id, name, fqn, kind) VALUES (4, 9, 'f', 'f', 'function')",
                             "symbols (id, file_id, name, fqn, kind, parent_id) VALUES (4, 1, 'f', 'f', 'function', 9)",
                             "edges (source_id, target_id, kind) VALUES (2, 99, 'calls')",
                             "edges (source_id, target_id, kind) VALUES (99, 2, 'calls')",
                             "external_imports (file_id, module) VALUES (9, 'os')"}) {
    EXPECT_EQ(run(std::string("INSERT INTO ") + orphan), "Error: FOREIGN KEY constraint failed") << orphan;
  }
  run("DELETE FROM components");
  EXPECT_EQ(run("SELECT id, component_id FROM files"), "1|NULL;2|NULL;");
  run("DELETE FROM files WHERE id = 1");
  EXPECT_EQ(run("SELECT (SELECT count(*) FROM symbols), (SELECT count(*) FROM edges), "
                "(SELECT count(*) FROM external_imports)"),
            "0|0|0;");
  EXPECT_EQ(run("SELECT rowid FROM code_chunks"), "2097152;");
  EXPECT_EQ(run("SELECT count(*) FROM code_chunks WHERE code_chunks MATCH 'alpha OR omega'"), "0;");
}

}  // namespace
