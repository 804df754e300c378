// A handle's connections on real files: which connection runs a query (the
// read pool when it may, the writer connection, traced on its handle, when it
// must), the read pool, connect and close, and nested transactions.
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <thread>

#include "marsk_quorvi/storage/storage_size.hpp"
#include "support/access_checks.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
using namespace marsk_quorvi::testing;
using namespace std::chrono_literals;

namespace {

class Handle : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    db = std::make_unique<TestDb>(file = path("index.db").string());
    db->connect();
    db->execute("CREATE TABLE t (id INTEGER PRIMARY KEY, v)");
    db->execute("INSERT INTO t (v) VALUES ('one')");
    trace.emplace(db->connection());
  }
  void TearDown() override {
    trace.reset();
    db.reset();
    TempDirTest::TearDown();
  }
  // The rows of a query through fetchall (or fetchone), or the error it raises.
  std::string query(const std::string& sql, bool one = false) {
    return rows_or_error([&] {
      auto row = one ? db->fetchone(sql) : std::nullopt;
      return !one ? db->fetchall(sql) : row ? std::vector{*row} : std::vector<mq::Row>{};
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
    return out + rows_or_error([&] { return mq::Connection::open(file)->execute("SELECT v FROM t").fetchall(); });
  }

  ScopedEnv readers_{mq::detail::kReadersEnv, "3"};
  std::string file;
  std::unique_ptr<TestDb> db;
  std::optional<StatementTrace> trace;
};

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
    EXPECT_EQ(query(sql, true), result) << sql;
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
  TestDb untouched(path("repo/memory/index.db"));
  EXPECT_FALSE(std::filesystem::exists(path("repo")));  // the constructor makes nothing
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
      EXPECT_EQ(query("SELECT count(*) FROM t", true), "3;");  // on the writer: its own writes
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
  // What the other thread does meanwhile, and how it all ends.
  const std::pair<std::function<void()>, std::string> others[] = {
      {[&] { db->execute("INSERT INTO t (v) VALUES ('after')"); }, " | BEGIN COMMIT | a;b;after;"},
      {[&] { db->executemany("INSERT INTO t (v) VALUES (?)", {{"after"}}); }, " | BEGIN COMMIT | a;b;after;"},
      {[&] { db->transaction(after); }, " | BEGIN COMMIT BEGIN COMMIT | a;b;after;"},
      {[&] { EXPECT_EQ(query("SELECT count(*) FROM t"), "0;"); }, " | BEGIN COMMIT | a;b;"},  // on the pool, at once
      {without_pool, " | BEGIN COMMIT | a;b;"},
      {[&] { db->close(); }, " | BEGIN COMMIT | a;b;"}};
  for (const auto& [other, expected] : others) {
    const auto owner_and_other = [&] {
      std::promise<void> inside;
      const auto owner = [&](mq::Cursor& c) {
        c.execute("INSERT INTO t (v) VALUES ('a')");
        inside.set_value();
        std::this_thread::sleep_for(200ms);  // the other thread is waiting now
        c.execute("INSERT INTO t (v) VALUES ('b')");
      };
      std::thread thread([&] { raised([&] { db->transaction(owner); }); });  // a failure shows in what is stored
      inside.get_future().wait();
      other();
      thread.join();
    };
    EXPECT_EQ(outcome(owner_and_other), expected);
  }
}

}  // namespace
