// The SQLite access layer on real files: values, rows, row counts, the
// statement cache, cursor ownership, error kinds, and a second process
// holding the write lock.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <limits>
#include <mutex>
#include <thread>

#include "marsk_quorvi/storage/sqlite.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
using marsk_quorvi::testing::PeerProcess;
using marsk_quorvi::testing::TempDirTest;

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
    conn = mq::Connection::open(path("a.db").string());
    conn->execute("CREATE TABLE t (id INTEGER PRIMARY KEY, v)");
  }
  std::shared_ptr<mq::Connection> conn;
};

TEST_F(SqliteAccess, ValuesRoundTripWithTheirTypes) {
  const std::string with_nul("a\0b", 3);
  const struct {
    const char* label;
    mq::Value value;
    mq::Value::Type type;
  } cases[] = {
      {"null", mq::Value(), mq::Value::Type::Null},
      {"int max", mq::Value(std::numeric_limits<std::int64_t>::max()), mq::Value::Type::Integer},
      {"int min", mq::Value(std::numeric_limits<std::int64_t>::min()), mq::Value::Type::Integer},
      {"double", mq::Value(0.1), mq::Value::Type::Real},
      {"negative huge double", mq::Value(-1e300), mq::Value::Type::Real},
      {"empty text", mq::Value(""), mq::Value::Type::Text},
      {"utf-8 text", mq::Value("h\xc3\xa9llo \xe2\x82\xac"), mq::Value::Type::Text},
      {"text with NUL", mq::Value(with_nul), mq::Value::Type::Text},
      {"blob with zero bytes", mq::Value(mq::Bytes{0, 1, 0, 255}), mq::Value::Type::Blob},
      {"empty blob", mq::Value(mq::Bytes{}), mq::Value::Type::Blob},
      {"optional without value", mq::Value(std::optional<int>()), mq::Value::Type::Null},
  };
  std::int64_t id = 0;
  for (const auto& c : cases) {
    ++id;
    conn->execute("INSERT INTO t (id, v) VALUES (?, ?)", {id, c.value});
    auto row = conn->execute("SELECT v, typeof(v) FROM t WHERE id = ?", {id}).fetchone();
    ASSERT_TRUE(row) << c.label;
    EXPECT_EQ((*row)[0].type(), c.type) << c.label << " stored as " << (*row)[1].as_text();
    EXPECT_EQ((*row)[0], c.value) << c.label;
  }
}

TEST_F(SqliteAccess, RowsReadByPositionAndByNameAndOutliveTheirConnection) {
  auto row = conn->execute("SELECT 7 AS id, 'x' AS Name, NULL AS gone").fetchone();
  conn->close();
  conn.reset();
  ASSERT_TRUE(row);
  EXPECT_EQ(row->size(), 3u);
  EXPECT_EQ((*row)[0].as_int(), 7);
  EXPECT_EQ((*row)["id"].as_int(), 7);
  EXPECT_EQ((*row)["name"].as_text(), "x");  // names compare without case
  EXPECT_EQ((*row)["NAME"].as_text(), "x");
  EXPECT_TRUE((*row)["gone"].is_null());
  EXPECT_EQ(row->keys(), (std::vector<std::string>{"id", "Name", "gone"}));
  EXPECT_THROW((*row)[3], std::out_of_range);
  EXPECT_THROW((*row)["missing"], std::out_of_range);
}

TEST_F(SqliteAccess, RowcountCountsChangedRowsAndIsNegativeOtherwise) {
  conn->execute("CREATE TABLE src (n INTEGER)");
  conn->execute("INSERT INTO src (n) VALUES (1), (2), (3), (4)");
  const std::pair<const char*, std::int64_t> cases[] = {
      {"INSERT INTO t (v) VALUES ('a'), ('b')", 2},
      {"INSERT INTO t (v) SELECT n FROM src", 4},
      {"WITH s(n) AS (SELECT n FROM src WHERE n > 2) INSERT INTO t (v) SELECT n FROM s", 2},
      {"UPDATE t SET v = 0 WHERE typeof(v) = 'integer'", 6},
      {"SELECT * FROM t", -1},
      // The connection's change counter still holds the last write's count:
      // statements that change no rows must not report it.
      {"CREATE TABLE other (x)", -1},
      {"PRAGMA user_version = 3", -1},
      {"DELETE FROM t WHERE v = 0", 6},
      {"DELETE FROM t WHERE v = 'none such'", 0},
  };
  for (const auto& [sql, expected] : cases) {
    EXPECT_EQ(conn->execute(sql).rowcount(), expected) << sql;
  }
  auto many = conn->executemany("INSERT INTO t (v) VALUES (?)", {{1}, {2}, {3}});
  EXPECT_EQ(many.rowcount(), 3);
}

TEST_F(SqliteAccess, RepeatedQueryReusesItsPreparedStatement) {
  const int before = prepared_statements(*conn);
  for (int i = 0; i < 50; ++i) conn->execute("SELECT v FROM t WHERE id = ?", {i}).fetchall();
  EXPECT_EQ(prepared_statements(*conn), before + 1);

  // A statement that a cursor still reads is not handed out a second time.
  conn->executemany("INSERT INTO t (id, v) VALUES (?, ?)", {{1, "a"}, {2, "b"}, {3, "c"}});
  auto first = conn->execute("SELECT v FROM t ORDER BY id");
  ASSERT_EQ(first.fetchone().value()[0].as_text(), "a");
  auto second = conn->execute("SELECT v FROM t ORDER BY id");
  EXPECT_EQ(second.fetchall().size(), 3u);
  EXPECT_EQ(first.fetchone().value()[0].as_text(), "b");
  first.close();
  second.close();

  // A statement given back half-read starts again from the top, without the
  // previous bindings.
  auto partial = conn->execute("SELECT id FROM t WHERE id >= ? ORDER BY id", {1});
  partial.fetchone();
  partial.close();
  auto again = conn->execute("SELECT id FROM t WHERE id >= ? ORDER BY id", {2}).fetchall();
  ASSERT_EQ(again.size(), 2u);
  EXPECT_EQ(again[0][0].as_int(), 2);

  // A cached statement follows a schema change, column names included.
  EXPECT_EQ(conn->execute("SELECT * FROM t").fetchone()->size(), 2u);
  conn->execute("ALTER TABLE t ADD COLUMN extra DEFAULT 'z'");
  auto row = conn->execute("SELECT * FROM t").fetchone();
  ASSERT_EQ(row->size(), 3u);
  EXPECT_EQ((*row)["extra"].as_text(), "z");
}

TEST_F(SqliteAccess, StatementCacheIsBounded) {
  mq::Connection::Options options;
  options.statement_cache = 8;
  auto small = mq::Connection::open(path("a.db").string(), options);
  for (int i = 0; i < 40; ++i) small->execute("SELECT " + std::to_string(i)).fetchone();
  EXPECT_LE(prepared_statements(*small), 8);
  // Statements held by open cursors are never evicted from under them.
  std::vector<mq::Cursor> open;
  for (int i = 0; i < 12; ++i) open.push_back(small->execute("SELECT " + std::to_string(100 + i) + " UNION ALL SELECT 0"));
  for (int i = 0; i < 12; ++i) EXPECT_EQ(open[static_cast<std::size_t>(i)].fetchone().value()[0].as_int(), 100 + i);
  open.clear();
  EXPECT_LE(prepared_statements(*small), 8);
}

TEST_F(SqliteAccess, CursorKeepsReadingAcrossMovesAndAfterItsOwnerLetsGo) {
  conn->executemany("INSERT INTO t (id, v) VALUES (?, ?)", {{1, "a"}, {2, "b"}, {3, "c"}, {4, "d"}});
  std::optional<mq::Cursor> a(conn->execute("SELECT v FROM t ORDER BY id"));
  EXPECT_EQ(a->fetchone().value()[0].as_text(), "a");
  mq::Cursor b(std::move(*a));
  a.reset();  // the moved-from cursor must not give the statement back
  EXPECT_EQ(b.fetchone().value()[0].as_text(), "b");

  // Assigning over a cursor of another connection whose last owner it is.
  auto other = mq::Connection::open(path("b.db").string());
  mq::Cursor c = other->execute("SELECT 1 UNION ALL SELECT 2");
  other.reset();
  c = std::move(b);
  EXPECT_EQ(c.fetchone().value()[0].as_text(), "c");

  // The caller's handle on the connection may go; the cursor keeps it.
  mq::Cursor lone = mq::Connection::open(path("a.db").string())->execute("SELECT v FROM t ORDER BY id");
  EXPECT_EQ(lone.fetchall().size(), 4u);
  EXPECT_EQ(c.fetchall().size(), 1u);
}

TEST_F(SqliteAccess, ClosedCursorAndClosedConnectionRefuseWork) {
  conn->executemany("INSERT INTO t (v) VALUES (?)", {{1}, {2}});
  auto done = conn->execute("SELECT 1");
  done.close();
  done.close();  // harmless twice
  EXPECT_THROW(done.fetchone(), mq::Error);
  // A cursor still reading when its connection closes is refused, not stepped.
  auto reading = conn->execute("SELECT v FROM t");
  ASSERT_TRUE(reading.fetchone());
  conn->close();
  conn->close();
  EXPECT_EQ(conn->handle(), nullptr);
  for (auto* what : {"cursor", "connection"}) {
    try {
      std::string(what) == "cursor" ? (void)reading.fetchone() : (void)conn->execute("SELECT 1");
      ADD_FAILURE() << what << " worked after close";
    } catch (const mq::Error& e) {
      EXPECT_STREQ(e.what(), "Cannot operate on a closed database.") << what;
    }
  }
}

TEST_F(SqliteAccess, ErrorKindsAndSqliteMessages) {
  conn->execute("CREATE TABLE u (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE)");
  conn->execute("INSERT INTO u (id, name) VALUES (1, 'a')");
  mq::Connection::Options ro;
  ro.readonly = true;
  auto reader = mq::Connection::open(path("a.db").string(), ro);
  std::ofstream(path("garbage.db"), std::ios::binary) << std::string(4096, 'x');
  auto garbage = mq::Connection::open(path("garbage.db").string());  // nothing read yet
  const struct {
    std::shared_ptr<mq::Connection> on;
    const char* sql;
    bool operational;
    const char* message;
  } cases[] = {
      {conn, "SELECT * FROM nope", true, "no such table: nope"},
      {conn, "SELEC 1", true, "near \"SELEC\": syntax error"},
      {garbage, "SELECT * FROM sqlite_master", true, "file is not a database"},
      {reader, "INSERT INTO u (id, name) VALUES (5, 'e')", true, "attempt to write a readonly database"},
      {conn, "INSERT INTO u (id, name) VALUES (1, 'b')", false, "UNIQUE constraint failed: u.id"},
      {conn, "INSERT INTO u (id, name) VALUES (3, NULL)", false, "NOT NULL constraint failed: u.name"},
      {conn, "SELECT ?", false, "Incorrect number of bindings supplied. The current statement uses 1, and there are 0 supplied."},
      {conn, "SELECT 1; SELECT 2", false, "You can only execute one statement at a time."},
  };
  for (const auto& c : cases) {
    try {
      c.on->execute(c.sql);
      ADD_FAILURE() << "no error for " << c.sql;
    } catch (const mq::OperationalError& e) {
      EXPECT_TRUE(c.operational) << c.sql << ": " << e.what();
      EXPECT_STREQ(e.what(), c.message);
    } catch (const mq::Error& e) {
      EXPECT_FALSE(c.operational) << c.sql << ": " << e.what();
      EXPECT_STREQ(e.what(), c.message);
    }
  }
  try {
    (void)mq::Connection::open(path("missing/dir/x.db").string());
    ADD_FAILURE() << "opened a file in a missing directory";
  } catch (const mq::OperationalError& e) {
    EXPECT_STREQ(e.what(), "unable to open database file");
  }
  // Empty statements after the first are not a second statement.
  EXPECT_EQ(conn->execute(" SELECT 5 ;; ").fetchone().value()[0].as_int(), 5);
  EXPECT_EQ(conn->execute("SELECT 6; -- done").fetchone().value()[0].as_int(), 6);
}

// ------------------------------------------------------------------ another process, other threads

class SqliteAccessConcurrency : public TempDirTest {};

TEST_F(SqliteAccessConcurrency, WriteCommitsAtOnceWithoutExplicitTransaction) {
  auto conn = mq::Connection::open(path("a.db").string());
  conn->execute("CREATE TABLE t (v TEXT)");
  conn->execute("INSERT INTO t (v) VALUES (?)", {"seen"});
  // Another process sees it while this connection is still open.
  auto peer = PeerProcess::run({"query", path("a.db").string(), "SELECT v FROM t"});
  EXPECT_EQ(peer.status, 0);
  EXPECT_EQ(peer.output, "seen\n");
}

TEST_F(SqliteAccessConcurrency, WriteWaitsForAnotherProcessesShortLock) {
  auto conn = mq::Connection::open(path("a.db").string());
  conn->execute("CREATE TABLE t (v)");
  PeerProcess peer({"lock", path("a.db").string(), "0.5"});
  ASSERT_EQ(peer.read_line(), "ready");
  // Within the 5 s busy time-out the lock goes away, so the write succeeds.
  EXPECT_EQ(conn->execute("INSERT INTO t (v) VALUES (1)").rowcount(), 1);
  EXPECT_EQ(peer.wait(), 0);
}

TEST_F(SqliteAccessConcurrency, WriteFailsAsLockedWhenAnotherProcessKeepsTheLock) {
  auto conn = mq::Connection::open(path("a.db").string());
  conn->execute("CREATE TABLE t (v)");
  PeerProcess peer({"lock", path("a.db").string(), "30"});
  ASSERT_EQ(peer.read_line(), "ready");
  try {
    conn->execute("INSERT INTO t (v) VALUES (1)");
    ADD_FAILURE() << "wrote while another process held the lock";
  } catch (const mq::OperationalError& e) {
    EXPECT_STREQ(e.what(), "database is locked");
  }
}

TEST_F(SqliteAccessConcurrency, SharedConnectionServesThreadsInTurn) {
  auto conn = mq::Connection::open(path("a.db").string());
  conn->execute("PRAGMA journal_mode=WAL");
  conn->execute("PRAGMA synchronous=OFF");  // this test is about threads, not the disk
  conn->execute("CREATE TABLE t (thread INTEGER, n INTEGER)");
  constexpr int kThreads = 4, kRows = 100;
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRows; ++i) {
        conn->execute("INSERT INTO t (thread, n) VALUES (?, ?)", {t, i});
        // Read through a cursor while the other threads write.
        auto c = conn->execute("SELECT count(*) FROM t WHERE thread = ?", {t});
        if (c.fetchone().value()[0].as_int() != i + 1) ++mismatches;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(conn->execute("SELECT count(*) FROM t").fetchone().value()[0].as_int(), kThreads * kRows);
}

}  // namespace

// A full-text table dropped and re-created by another connection (as a swap
// does with the chunk text) makes SQLite fail a query that meets the new
// table's first commit while it loads the schema, with "vtable constructor
// failed: code_chunks". The statement has done nothing yet, so outside a
// transaction the access layer prepares it again instead of failing the query.
// Both ways a query reaches it are raced: a fresh prepare, and a cached
// statement that SQLite re-prepares on its next step.
TEST_F(SqliteAccessConcurrency, QueriesSurviveAFullTextTableReplacedByAnotherConnection) {
  auto writer = mq::Connection::open(path("a.db").string());
  writer->execute("PRAGMA journal_mode=WAL");
  writer->execute("PRAGMA synchronous=OFF");
  writer->execute("CREATE VIRTUAL TABLE code_chunks USING fts5(content)");
  std::atomic<bool> stop{false};
  std::atomic<long> queries{0};
  std::vector<std::string> failures;
  std::mutex failures_mu;
  std::vector<std::thread> readers;
  for (int t = 0; t < 2; ++t) {
    readers.emplace_back([&, t] {
      auto reader = mq::Connection::open(path("a.db").string());
      for (long i = 0; !stop.load(); ++i) {
        try {
          // Thread 0 keeps one cached statement; thread 1 also prepares new texts.
          const std::string sql = t == 0 ? "SELECT count(*) FROM code_chunks"
                                         : "SELECT count(*) + " + std::to_string(i % 1000) + " FROM code_chunks";
          reader->execute(sql).fetchall();
          ++queries;
        } catch (const mq::Error& e) {
          std::lock_guard lock(failures_mu);
          failures.emplace_back(e.what());
        }
      }
    });
  }
  for (int i = 0; i < 1500; ++i) {
    writer->execute("BEGIN");
    writer->execute("DROP TABLE code_chunks");
    writer->execute("CREATE VIRTUAL TABLE code_chunks USING fts5(content)");
    writer->execute("INSERT INTO code_chunks (content) VALUES ('x')");
    writer->execute("COMMIT");
  }
  stop = true;
  for (auto& r : readers) r.join();
  EXPECT_GT(queries.load(), 0);
  EXPECT_TRUE(failures.empty()) << failures.size() << " queries failed, the first with: " << failures.front();
}
