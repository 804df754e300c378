// Which connection runs a query: the read pool when it may, the writer
// connection (traced on its handle) when it must, and the two fallbacks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "marsk_quorvi/storage/database.hpp"
#include "support/statement_trace.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
using marsk_quorvi::testing::ScopedEnv;
using marsk_quorvi::testing::StatementTrace;
using marsk_quorvi::testing::TempDirTest;
using namespace std::chrono_literals;

namespace {

using TestDb = marsk_quorvi::testing::TestDb;

// Long enough that a query which should return at once but hangs fails the
// test instead of blocking the suite.
constexpr auto kHang = 30s;

class Routing : public TempDirTest {
 protected:
  Routing() : db((TempDirTest::SetUp(), path("index.db"))) {}
  void SetUp() override {
    db.connect();
    db.execute("CREATE TABLE t (id INTEGER PRIMARY KEY, v TEXT)");
    db.execute("INSERT INTO t (v) VALUES ('one')");
    trace.emplace(db.connection());
  }
  void TearDown() override {
    trace.reset();
    db.close();
    TempDirTest::TearDown();
  }
  long on_writer(const std::string& sql) const { return trace->count(sql); }

  ScopedEnv readers_{mq::detail::kReadersEnv, "3"};
  TestDb db;
  std::optional<StatementTrace> trace;
};

TEST_F(Routing, ReadsRunOnThePoolAndNeverOnTheWriter) {
  auto pool = db.impl()._readers.load();
  ASSERT_TRUE(pool);
  const char* reads[] = {
      "SELECT v FROM t WHERE id = 1",
      "  with x(n) AS (SELECT 1) SELECT n FROM x",
      "PRAGMA user_version",
      " pragma user_version ;; ",
  };
  for (const char* sql : reads) {
    EXPECT_EQ(db.impl()._readers_for(sql), pool) << sql;
    EXPECT_TRUE(db.fetchone(sql)) << sql;
    EXPECT_EQ(db.fetchall(sql).size(), 1u) << sql;
    EXPECT_EQ(on_writer(sql), 0) << sql << " ran on the writer connection";
  }
  EXPECT_EQ(db.impl()._count("SELECT count(*) FROM t"), 1);
  EXPECT_EQ(on_writer("SELECT count(*) FROM t"), 0);
  EXPECT_GE(pool->open_connections(), 1);
}

TEST_F(Routing, NonReadsRunOnTheWriterOnce) {
  const struct {
    const char* sql;
    std::size_t rows;
  } cases[] = {
      {"PRAGMA page_count", 1},
      {"INSERT INTO t (v) VALUES ('returned') RETURNING id", 1},
      {"PRAGMA user_version = 5", 0},
      // Classified as a read; the read connection refuses the write and the
      // writer runs it from the start.
      {"WITH s(x) AS (SELECT 'with') INSERT INTO t (v) SELECT x FROM s", 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(db.fetchall(c.sql).size(), c.rows) << c.sql;
    EXPECT_EQ(on_writer(c.sql), 1) << c.sql;
  }
  EXPECT_EQ(db.impl()._count("SELECT count(*) FROM t WHERE v = 'with'"), 1);
  EXPECT_EQ(db.impl()._count("SELECT count(*) FROM t WHERE v = 'returned'"), 1);
  EXPECT_EQ(db.impl()._count("PRAGMA user_version"), 5);
}

TEST_F(Routing, FailuresOnTheReadPoolAreNotRetried) {
  // A temporary table exists on the writer connection alone: a retry there
  // would turn the pool's error into rows.
  db.execute("CREATE TEMP TABLE only_on_writer (v)");
  db.execute("INSERT INTO only_on_writer (v) VALUES (1)");
  const struct {
    const char* sql;
    mq::Params params;
    bool operational;
    const char* message;
  } cases[] = {
      {"SELECT * FROM nope", {}, true, "no such table: nope"},
      {"SELECT v FROM only_on_writer", {}, true, "no such table: only_on_writer"},
      {"SELECT missing FROM t", {}, true, "no such column: missing"},
      {"SELECT FROM t", {}, true, "near \"FROM\": syntax error"},
      {"SELECT ?", {}, false, "Incorrect number of bindings supplied. The current statement uses 1, and there are 0 supplied."},
  };
  for (const auto& c : cases) {
    try {
      db.fetchone(c.sql, c.params);
      ADD_FAILURE() << "no error for " << c.sql;
    } catch (const mq::OperationalError& e) {
      EXPECT_TRUE(c.operational) << c.sql;
      EXPECT_STREQ(e.what(), c.message);
    } catch (const mq::Error& e) {
      EXPECT_FALSE(c.operational) << c.sql;
      EXPECT_STREQ(e.what(), c.message);
    }
    EXPECT_EQ(on_writer(c.sql), 0) << c.sql << " was retried on the writer connection";
  }
}

TEST_F(Routing, RefusingPoolSendsTheQueryToTheWriter) {
  auto own = db.impl()._readers.load();
  // A closed pool refuses every lease with ReaderUnavailable.
  auto closed = std::make_shared<mq::ReaderPool>(path("index.db").string(), 1);
  closed->close();
  // A pool whose connections cannot open the file refuses with the
  // OperationalError "unable to open database file".
  auto unopenable = std::make_shared<mq::ReaderPool>(path("no/such/dir/index.db").string(), 1);
  for (const auto& [label, pool] : {std::pair{"closed pool", closed}, std::pair{"unopenable file", unopenable}}) {
    db.impl()._readers.store(pool);
    trace->clear();
    auto row = db.fetchone("SELECT v FROM t WHERE id = ?", {1});
    ASSERT_TRUE(row) << label;
    EXPECT_EQ((*row)["v"].as_text(), "one");
    EXPECT_EQ(on_writer("SELECT v FROM t WHERE id = ?"), 1) << label;
  }
  db.impl()._readers.store(own);
}

TEST_F(Routing, EmptyResults) {
  EXPECT_FALSE(db.fetchone("SELECT v FROM t WHERE id = ?", {404}));
  EXPECT_TRUE(db.fetchall("SELECT v FROM t WHERE id = ?", {404}).empty());
  EXPECT_EQ(db.impl()._count("SELECT id FROM t WHERE id = 404"), 0);
  // The same through the writer connection.
  db.transaction([&](mq::Cursor&) {
    EXPECT_FALSE(db.fetchone("SELECT v FROM t WHERE id = ?", {404}));
    EXPECT_TRUE(db.fetchall("SELECT v FROM t WHERE id = ?", {404}).empty());
    EXPECT_EQ(db.impl()._count("SELECT id FROM t WHERE id = 404"), 0);
  });
}

TEST_F(Routing, PathFunctionsOnReadAndWriterConnections) {
  const char* sql = "SELECT path_ext(?), path_glob(?, 'src/**/*.py')";
  auto check = [&](const char* where) {
    auto row = db.fetchone(sql, {"src/Pkg/Mod.PY", "src/pkg/sub/mod.py"});
    ASSERT_TRUE(row) << where;
    EXPECT_EQ((*row)[0].as_text(), "py") << where;
    EXPECT_EQ((*row)[1].as_int(), 1) << where;
  };
  check("read pool");
  EXPECT_EQ(on_writer(sql), 0);
  db.transaction([&](mq::Cursor&) { check("writer connection"); });
  EXPECT_EQ(on_writer(sql), 1);
}

// ------------------------------------------------------------------ against other threads

class RoutingConcurrency : public Routing {};

TEST_F(RoutingConcurrency, OwnerSeesItsUncommittedRowAndOthersDoNotWait) {
  auto other_reads = [&] {
    return std::async(std::launch::async, [&] { return db.impl()._count("SELECT count(*) FROM t WHERE v = 'pending'"); });
  };
  db.transaction([&](mq::Cursor& c) {
    c.execute("INSERT INTO t (v) VALUES ('pending')");
    EXPECT_EQ(db.impl()._count("SELECT count(*) FROM t WHERE v = 'pending'"), 1);  // the owner, on the writer
    auto other = other_reads();
    ASSERT_EQ(other.wait_for(kHang), std::future_status::ready) << "another thread's read waited for the transaction";
    EXPECT_EQ(other.get(), 0);  // committed data only
  });
  EXPECT_EQ(other_reads().get(), 1);
}

TEST_F(RoutingConcurrency, WithoutPoolOtherThreadsReadAfterTheTransaction) {
  ScopedEnv off(mq::detail::kReadersEnv, "0");
  TestDb shared(path("shared.db"));
  shared.connect();
  ASSERT_FALSE(shared.impl()._readers.load());
  shared.execute("CREATE TABLE t (v TEXT)");
  StatementTrace writer(shared.connection());
  std::future<std::int64_t> other;
  std::atomic<bool> body_over{false};
  shared.transaction([&](mq::Cursor& c) {
    c.execute("INSERT INTO t (v) VALUES ('pending')");
    other = std::async(std::launch::async, [&] {
      const auto n = shared.impl()._count("SELECT count(*) FROM t");
      EXPECT_TRUE(body_over) << "read on the writer connection inside another thread's transaction";
      return n;
    });
    // A correct router keeps the other read waiting for the lock throughout.
    EXPECT_EQ(other.wait_for(200ms), std::future_status::timeout);
    body_over = true;
  });
  EXPECT_EQ(other.get(), 1);
  EXPECT_EQ(writer.count("SELECT count(*) FROM t"), 1);
  shared.close();
}

TEST_F(RoutingConcurrency, ReadersNeverSeeHalfATransaction) {
  db.execute("CREATE TABLE acct (id INTEGER PRIMARY KEY, n INTEGER)");
  db.execute("INSERT INTO acct (id, n) VALUES (1, 100), (2, 0)");
  constexpr int kMoves = 150;
  std::atomic<bool> done{false};
  std::atomic<int> torn{0}, backwards{0}, reads{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      std::int64_t last_generation = 0;
      while (!done) {
        const auto sum = db.impl()._count("SELECT sum(n) FROM acct");
        if (sum != 100) ++torn;
        const auto generation = db.impl()._count("PRAGMA user_version");
        if (generation < last_generation) ++backwards;
        last_generation = generation;
        ++reads;
      }
    });
  }
  for (int i = 1; i <= kMoves; ++i) {
    db.transaction([&](mq::Cursor& c) {
      c.execute("UPDATE acct SET n = n - 1 WHERE id = 1");
      std::this_thread::yield();  // let the readers look at the half-done move
      c.execute("UPDATE acct SET n = n + 1 WHERE id = 2");
      c.execute("PRAGMA user_version = " + std::to_string(i));
    });
  }
  done = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(torn.load(), 0);
  EXPECT_EQ(backwards.load(), 0);
  EXPECT_GT(reads.load(), 0);
  EXPECT_EQ(db.impl()._count("SELECT n FROM acct WHERE id = 2"), kMoves);
  EXPECT_EQ(db.impl()._count("PRAGMA user_version"), kMoves);
}

}  // namespace
