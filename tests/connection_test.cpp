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

class Handle : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    db = std::make_unique<TestDb>(file = path("index.db").string());
    db->connect();
    db->execute("CREATE TABLE t (id INTEGER PRIMARY KEY, v TEXT)");
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
  // What `body` raised, the transaction control SQLite saw and the rows
  // committed, starting from an empty table.
  std::string outcome(const std::function<void()>& body) {
    db->execute("DELETE FROM t");
    trace->statements.clear();
    std::string out = raised(body) + " |";
    for (const auto& s : trace->control()) out += " " + s;
    EXPECT_EQ(db->impl()._tx_depth, 0);
    EXPECT_EQ(db->impl()._tx_owner.load(), std::thread::id());
    const auto stored = [&] { return mq::Connection::open(file)->execute("SELECT v FROM t ORDER BY id").fetchall(); };
    return out + " | " + rows_or_error(stored);
  }

  ScopedEnv readers_{mq::detail::kReadersEnv, "3"};
  std::string file;
  std::unique_ptr<TestDb> db;
  std::optional<StatementTrace> trace;
};

// ------------------------------------------------------------------ routing

TEST_F(Handle, QueriesRunOnThePoolWhenTheyMayAndFailuresThereAreNotRetried) {
  db->execute("CREATE TEMP TABLE only_on_writer (v)");  // a retry on the writer would turn the pool's error into rows
  db->execute("INSERT INTO only_on_writer (v) VALUES ('w')");
  const struct {
    const char* sql;
    std::string result;
    long on_writer;  // of the two runs, fetchall's and fetchone's
  } cases[] = {
      {"SELECT v FROM t WHERE id = 1", "one;", 0},
      {"  with x(n) AS (SELECT 2) SELECT n FROM x", "2;", 0},
      {" pragma user_version ;; ", "0;", 0},
      {"SELECT path_ext('src/Mod.PY') || path_glob('src/a/b.py', 'src/**/*.py')", "py1;", 0},
      {"PRAGMA foreign_keys", "1;", 2},
      {"INSERT INTO t (v) VALUES ('r') RETURNING v", "r;", 2},
      {"PRAGMA user_version = 5", "", 2},
      // Taken for a read: the read connection refuses the write and the writer runs it from the start.
      {"WITH s(x) AS (SELECT 'w') INSERT INTO t (v) SELECT x FROM s", "", 2},
      {"", "", 0},  // on the writer, which starts nothing for it
      {"-- only a note", "", 0},
      {"SELECT * FROM nope", "OperationalError: no such table: nope", 0},
      {"SELECT v FROM only_on_writer", "OperationalError: no such table: only_on_writer", 0},
      {"SELECT missing FROM t", "OperationalError: no such column: missing", 0},
      {"SELECT ?", "Error: Incorrect number of bindings supplied. The current statement uses 1, and there are 0 "
                   "supplied.", 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(query(c.sql), c.result) << c.sql;
    EXPECT_EQ(query(c.sql, true), c.result) << c.sql;
    EXPECT_EQ(trace->count(c.sql), c.on_writer) << c.sql;
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

// ------------------------------------------------------------------ the read pool

TEST_F(Handle, PoolOpensReadOnlyConfiguredConnectionsOnDemandAndRefusesOnceClosed) {
  int configured = 0;
  bool configure_fails = false;
  mq::ReaderPool pool(file, 2, [&](mq::Connection&) {
    if (configure_fails) throw mq::OperationalError("configure failed");
    ++configured;
  });
  EXPECT_EQ(pool.open_connections(), 0);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(raised([&] { pool.lease().connection().execute("INSERT INTO t (v) VALUES ('x')"); }),
              "OperationalError: attempt to write a readonly database");
  }
  EXPECT_EQ(pool.open_connections(), 1);  // one at a time was enough
  {
    auto held = pool.lease();
    configure_fails = true;
    EXPECT_EQ(raised([&] { pool.lease(); }), "OperationalError: configure failed");
    ASSERT_EQ(pool.open_connections(), 1);  // the failed one gave its place back
    configure_fails = false;
    EXPECT_NE(&held.connection(), &pool.lease().connection());
  }
  EXPECT_EQ(pool.open_connections(), 2);
  EXPECT_EQ(configured, 2);
  pool.close();
  pool.close();
  EXPECT_TRUE(pool.closed());
  EXPECT_EQ(pool.open_connections(), 0);
  EXPECT_EQ(raised([&] { pool.lease(); }), "ReaderUnavailable: the read pool is closed");
  mq::ReaderPool missing(path("none/x.db").string(), 1);
  EXPECT_EQ(raised([&] { missing.lease(); }), "OperationalError: unable to open database file");
  EXPECT_EQ(missing.open_connections(), 0);
}

TEST_F(Handle, PoolLeasesWaitForAConnectionAndCloseWaitsForLeases) {
  mq::ReaderPool pool(file, 1);
  const auto count = [&] { return pool.lease().connection().execute("SELECT count(*) FROM t").fetchall().size(); };
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
  EXPECT_EQ(held->connection().execute("SELECT v FROM t").fetchone().value()[0].as_text(), "one");
  lease_ended = true;
  held.reset();
  EXPECT_TRUE(closer.get());
  EXPECT_EQ(pool.open_connections(), 0);
}

// ------------------------------------------------------------------ connect and close

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
      handle.connect();  // again, after close: a working handle
      EXPECT_FALSE(handle.closed());
      EXPECT_EQ(raised([&] { op(handle); }), "");
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
  auto old = mq::Connection::open(path("old.db").string());
  old->execute("PRAGMA page_size=4096");
  old->execute("CREATE TABLE kept (v)");  // fixes its page size, without auto-vacuum
  old.reset();
  const auto fresh = std::to_string(mq::storage_size::PAGE_SIZE) + " 2 wal 1 1";
  const std::tuple<std::string, std::optional<std::string>, std::string> cases[] = {
      // file, QUORVI_DB_READERS; pool size, page_size, auto_vacuum, journal_mode, foreign_keys, synchronous
      {path("repo/memory/index.db").string(), std::nullopt, "6 " + fresh},
      {path("old.db").string(), "2", "2 4096 0 wal 1 1"},
      {path("none.db").string(), "0", "0 " + fresh},
      {":memory:", std::nullopt, "0 8192 2 memory 1 1"},
      {"", std::nullopt, "0 8192 2 delete 1 1"},  // a temporary file, which refuses WAL
  };
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

// ------------------------------------------------------------------ transactions

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
        EXPECT_EQ(raised([&] {
                    db->transaction([&](mq::Cursor&) {
                      EXPECT_EQ(db->impl()._tx_depth, 3);
                      throw std::out_of_range("innermost");
                    });
                  }),
                  "innermost");
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
  // What the other thread does meanwhile, and how it all ends.
  const std::pair<std::function<void()>, std::string> others[] = {
      {[&] { db->execute("INSERT INTO t (v) VALUES ('after')"); }, " | BEGIN COMMIT | a;b;after;"},
      {[&] { db->executemany("INSERT INTO t (v) VALUES (?)", {{"after"}}); }, " | BEGIN COMMIT | a;b;after;"},
      {[&] { db->transaction(after); }, " | BEGIN COMMIT BEGIN COMMIT | a;b;after;"},
      {[&] { EXPECT_EQ(query("SELECT count(*) FROM t"), "0;"); }, " | BEGIN COMMIT | a;b;"},  // on the pool, at once
      {[&] {  // without a pool, on the writer once the transaction is over
         auto pool = db->impl()._readers.exchange(nullptr);
         EXPECT_EQ(query("SELECT count(*) FROM t"), "2;");
         db->impl()._readers.store(pool);
       },
       " | BEGIN COMMIT | a;b;"},
      {[&] { db->close(); }, " | BEGIN COMMIT | a;b;"}};
  for (const auto& [other, expected] : others) {
    const auto owner_and_other = [&] {
      std::promise<void> inside;
      std::thread owner([&] {
        raised([&] {  // a failure shows in what is stored
          db->transaction([&](mq::Cursor& c) {
            c.execute("INSERT INTO t (v) VALUES ('a')");
            inside.set_value();
            std::this_thread::sleep_for(200ms);  // the other thread is waiting now
            c.execute("INSERT INTO t (v) VALUES ('b')");
          });
        });
      });
      inside.get_future().wait();
      other();
      owner.join();
    };
    EXPECT_EQ(outcome(owner_and_other), expected);
  }
}

}  // namespace
