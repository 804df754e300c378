// A handle's connections on real files: which connection runs a query (the
// read pool when it may, the writer connection, traced on its handle, when it
// must), the read pool, connect and close, and nested transactions.
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <set>
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

// An error of no kind the layer knows, carrying a value to prove it arrives unchanged.
struct BodyFailure {
  int token;
};

class Handle : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    file = path("index.db").string();
    db = std::make_unique<TestDb>(file);
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
  // The first column of each row a query gives, or the error it raises.
  std::string query(const std::string& sql, bool all = true) {
    std::string out;
    const auto error = raised([&] {
      if (!all) {
        if (auto row = db->fetchone(sql)) out = (*row)[0].to_text() + ";";
      } else {
        for (const auto& row : db->fetchall(sql)) out += row[0].to_text() + ";";
      }
    });
    return error.empty() ? out : error;
  }
  // What the file holds, committed.
  std::vector<std::string> stored() {
    std::vector<std::string> out;
    for (const auto& row : mq::Connection::open(file)->execute("SELECT v FROM t ORDER BY id").fetchall()) {
      out.push_back(row[0].as_text());
    }
    return out;
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
      {"SELECT ?", "Error: Incorrect number of bindings supplied. The current statement uses 1, and there are 0 supplied.",
       0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(query(c.sql), c.result) << c.sql;
    EXPECT_EQ(query(c.sql, false), c.result) << c.sql;
    EXPECT_EQ(trace->count(c.sql), c.on_writer) << c.sql;
  }
  EXPECT_EQ(query("SELECT v FROM t WHERE id > 1"), "r;r;w;w;");
}

TEST_F(Handle, RefusingPoolSendsTheQueryToTheWriter) {
  auto closed = std::make_shared<mq::ReaderPool>(file, 1);
  closed->close();  // refuses with ReaderUnavailable
  // Its connections cannot open the file: "unable to open database file".
  auto unopenable = std::make_shared<mq::ReaderPool>(path("no/such/dir/index.db").string(), 1);
  for (const auto& pool : {closed, unopenable}) {
    db->impl()._readers.store(pool);
    trace->statements.clear();
    EXPECT_EQ(query("SELECT v FROM t WHERE id = 1"), "one;");
    EXPECT_EQ(trace->count("SELECT v FROM t WHERE id = 1"), 1);
  }
}

TEST_F(Handle, TheOwnerOfATransactionReadsOnTheWriterAndOthersDoNotWaitForIt) {
  const char* pending = "SELECT count(*) FROM t WHERE v = 'pending'";
  const auto elsewhere = [&] { return std::async(std::launch::async, [&] { return query(pending); }); };
  db->transaction([&](mq::Cursor& c) {
    c.execute("INSERT INTO t (v) VALUES ('pending')");
    EXPECT_EQ(query(pending), "1;");
    auto other = elsewhere();
    ASSERT_EQ(other.wait_for(30s), std::future_status::ready) << "another thread's read waited for the transaction";
    EXPECT_EQ(other.get(), "0;");
  });
  EXPECT_EQ(elsewhere().get(), "1;");
  EXPECT_EQ(trace->count(pending), 1);
}

TEST_F(Handle, ConnectingAgainWithoutAPoolSendsOtherThreadsReadsAfterTheTransaction) {
  std::weak_ptr<mq::Connection> old = db->connection();
  auto old_pool = db->impl()._readers.load();
  trace.reset();
  ScopedEnv off(mq::detail::kReadersEnv, "0");
  db->connect();
  EXPECT_TRUE(old.expired());
  EXPECT_TRUE(old_pool->closed());
  ASSERT_FALSE(db->impl()._readers.load());
  trace.emplace(db->connection());
  std::future<std::string> other;
  std::atomic<bool> over{false};
  db->transaction([&](mq::Cursor& c) {
    c.execute("INSERT INTO t (v) VALUES ('pending')");
    other = std::async(std::launch::async, [&] {
      auto n = query("SELECT count(*) FROM t");
      EXPECT_TRUE(over) << "read on the writer connection inside another thread's transaction";
      return n;
    });
    EXPECT_EQ(other.wait_for(200ms), std::future_status::timeout);  // waiting for the lock
    over = true;
  });
  EXPECT_EQ(other.get(), "2;");
  EXPECT_EQ(trace->count("SELECT count(*) FROM t"), 1);
}

// ------------------------------------------------------------------ the read pool

TEST_F(Handle, PoolOpensReadOnlyConfiguredConnectionsOnDemandAndRefusesOnceClosed) {
  int configured = 0;
  bool configure_fails = false;
  mq::ReaderPool pool(file, 2, [&](mq::Connection& c) {
    if (configure_fails) throw mq::OperationalError("configure failed");
    ++configured;
    c.execute("PRAGMA cache_size = 123");
  });
  EXPECT_EQ(pool.open_connections(), 0);
  for (int i = 0; i < 3; ++i) {
    auto lease = pool.lease();
    EXPECT_EQ(lease.connection().execute("PRAGMA cache_size").fetchone().value()[0].as_int(), 123);
    EXPECT_EQ(raised([&] { lease.connection().execute("INSERT INTO t (v) VALUES ('x')"); }),
              "OperationalError: attempt to write a readonly database");
  }
  EXPECT_EQ(pool.open_connections(), 1);  // one at a time was enough
  {
    auto held = pool.lease();
    configure_fails = true;
    EXPECT_EQ(raised([&] { pool.lease(); }), "OperationalError: configure failed");
    ASSERT_EQ(pool.open_connections(), 1);  // the failed one gave its place back
    configure_fails = false;
    auto second = pool.lease();
    EXPECT_NE(&held.connection(), &second.connection());
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
  const auto count = [&] {
    auto lease = pool.lease();
    return lease.connection().execute("SELECT count(*) FROM t").fetchone().value()[0].as_int();
  };
  std::optional<mq::ReaderPool::Lease> held(pool.lease());
  auto waiting = std::async(std::launch::async, count);
  EXPECT_EQ(waiting.wait_for(200ms), std::future_status::timeout) << "a second connection was leased past the bound";
  held.reset();
  EXPECT_EQ(waiting.get(), 1);
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
  EXPECT_EQ(held->connection().execute("SELECT count(*) FROM t").fetchone().value()[0].as_int(), 1);
  lease_ended = true;
  held.reset();
  EXPECT_TRUE(closer.get());
  EXPECT_EQ(pool.open_connections(), 0);
}

TEST_F(Handle, PoolSharedByManyThreadsStaysWithinItsBound) {
  mq::ReaderPool pool(file, 3);
  std::mutex mu;
  std::set<const mq::Connection*> in_use;
  std::atomic<int> faults{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 150; ++i) {
        auto lease = pool.lease();
        {
          std::lock_guard lk(mu);
          if (!in_use.insert(&lease.connection()).second || in_use.size() > 3) ++faults;  // shared, or past the bound
        }
        if (lease.connection().execute("SELECT count(*) FROM t").fetchone().value()[0].as_int() != 1) ++faults;
        std::lock_guard lk(mu);
        in_use.erase(&lease.connection());
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(faults.load(), 0);
  EXPECT_LE(pool.open_connections(), 3);
}

// ------------------------------------------------------------------ connect and close

TEST_F(Handle, OperationsWithoutAWriterConnectionRaiseRuntimeError) {
  const std::function<void(TestDb&)> operations[] = {
      [](TestDb& h) { h.connection(); },        [](TestDb& h) { h.execute("SELECT 1"); },
      [](TestDb& h) { h.fetchone("SELECT 1"); }, [](TestDb& h) { h.executemany("SELECT 1", {}); },
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
      handle.close();
      EXPECT_TRUE(handle.closed());
      EXPECT_EQ(raised([&] { op(handle); }), "RuntimeError: Database is closed.") << readers;
      EXPECT_EQ(handle.impl()._tx_depth, 0);
      EXPECT_EQ(handle.impl()._tx_owner.load(), std::thread::id());
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

TEST_F(Handle, CloseAndConnectAgain) {
  auto first = db->connection();
  auto first_pool = db->impl()._readers.load();
  db->close();
  EXPECT_TRUE(first->closed());
  EXPECT_TRUE(first_pool->closed());
  db->close();
  db->connect();
  EXPECT_FALSE(db->closed());
  EXPECT_NE(db->connection(), first);
  ASSERT_TRUE(db->impl()._readers.load());
  EXPECT_NE(db->impl()._readers.load(), first_pool);
  EXPECT_EQ(query("SELECT v FROM t"), "one;");
}

TEST_F(Handle, ConnectSetsTheFileUpAndOpensAPoolOnlyInWalModeWithReaders) {
  {
    auto old = mq::Connection::open(path("old.db").string());
    old->execute("PRAGMA page_size=4096");
    old->execute("CREATE TABLE kept (v)");  // fixes its page size, without auto-vacuum
  }
  const auto fresh = std::to_string(mq::storage_size::PAGE_SIZE) + " 2 wal 1 1";
  const struct {
    std::string file;
    std::optional<std::string> readers;
    int pool_size;
    std::string pragmas;  // page_size auto_vacuum journal_mode foreign_keys synchronous
  } cases[] = {
      {path("repo/memory/index.db").string(), std::nullopt, 6, fresh},
      {path("old.db").string(), "2", 2, "4096 0 wal 1 1"},
      {path("none.db").string(), "0", 0, fresh},
      {":memory:", std::nullopt, 0, "8192 2 memory 1 1"},
      {"", std::nullopt, 0, "8192 2 delete 1 1"},  // a temporary file, which refuses WAL
  };
  TestDb untouched(cases[0].file);
  EXPECT_FALSE(std::filesystem::exists(path("repo")));  // the constructor makes nothing
  for (const auto& c : cases) {
    ScopedEnv env(mq::detail::kReadersEnv, c.readers);
    TestDb handle(c.file);
    handle.connect();
    const auto pool = handle.impl()._readers.load();
    EXPECT_EQ(pool ? pool->size() : 0, c.pool_size) << c.file;
    handle.execute("CREATE TABLE t (v)");
    handle.execute("INSERT INTO t (v) VALUES (1)");
    std::string pragmas;
    for (const char* p : {"page_size", "auto_vacuum", "journal_mode", "foreign_keys", "synchronous"}) {
      pragmas += (pragmas.empty() ? "" : " ") + handle.fetchone(std::string("PRAGMA ") + p).value()[0].to_text();
    }
    EXPECT_EQ(pragmas, c.pragmas) << c.file;
    EXPECT_EQ(handle.fetchone("SELECT count(*) FROM t").value()[0].as_int(), 1) << c.file;
  }
}

// ------------------------------------------------------------------ transactions

TEST_F(Handle, TransactionsBeginOnceAndEndAtTheOutermostScope) {
  db->execute("CREATE TABLE parent (id INTEGER PRIMARY KEY)");
  db->execute("CREATE TABLE child (pid INTEGER REFERENCES parent (id) DEFERRABLE INITIALLY DEFERRED)");
  using Strings = std::vector<std::string>;
  const struct {
    const char* label;
    std::function<void(TestDb&)> body;
    std::string error;
    Strings control, rows;
  } cases[] = {
      {"COMMIT refuses a dangling reference",
       [](TestDb& d) {
         d.transaction([](mq::Cursor& c) {
           c.execute("INSERT INTO t (v) VALUES ('x')");
           c.execute("INSERT INTO child (pid) VALUES (99)");
         });
       },
       "Error: FOREIGN KEY constraint failed", {"BEGIN", "COMMIT", "ROLLBACK"}, {}},
      {"BEGIN fails inside a transaction opened behind the scope's back",
       [](TestDb& d) {
         d.execute("BEGIN");
         d.execute("INSERT INTO t (v) VALUES ('stray')");
         d.transaction([](mq::Cursor& c) { c.execute("INSERT INTO t (v) VALUES ('body')"); });
       },
       "OperationalError: cannot start a transaction within a transaction", {"BEGIN", "BEGIN", "ROLLBACK"}, {}},
      {"nested scopes join the outer one, which commits what they did after catching a failure",
       [](TestDb& d) {
         d.transaction([&](mq::Cursor& outer) {
           EXPECT_EQ(d.impl()._tx_owner.load(), std::this_thread::get_id());
           outer.execute("INSERT INTO t (v) VALUES ('outer')");
           d.transaction([&](mq::Cursor& inner) {
             EXPECT_NE(&inner, &outer);
             inner.execute("INSERT INTO t (v) VALUES ('inner')");
             try {
               d.transaction([&](mq::Cursor&) {
                 EXPECT_EQ(d.impl()._tx_depth, 3);
                 throw BodyFailure{3};
               });
             } catch (const BodyFailure&) {
             }
             EXPECT_EQ(d.impl()._tx_depth, 2);
           });
         });
       },
       "", {"BEGIN", "COMMIT"}, {"outer", "inner"}},
      {"a failure nobody catches",
       [](TestDb& d) {
         d.transaction([&](mq::Cursor& c) {
           c.execute("INSERT INTO t (v) VALUES ('outer')");
           d.transaction([](mq::Cursor&) { throw BodyFailure{7}; });
         });
       },
       "BodyFailure 7", {"BEGIN", "ROLLBACK"}, {}},
      {"the owner's execute, executemany and queries join it",
       [](TestDb& d) {
         d.transaction([&](mq::Cursor&) {
           d.execute("INSERT INTO t (v) VALUES ('x')");
           d.executemany("INSERT INTO t (v) VALUES (?)", {{"y"}, {"z"}});
           EXPECT_EQ(d.fetchone("SELECT count(*) FROM t").value()[0].as_int(), 3);
           throw BodyFailure{8};
         });
       },
       "BodyFailure 8", {"BEGIN", "ROLLBACK"}, {}},
  };
  for (const auto& c : cases) {
    db->execute("DELETE FROM t");
    trace->statements.clear();
    std::string error;
    try {
      c.body(*db);
    } catch (const BodyFailure& f) {
      error = "BodyFailure " + std::to_string(f.token);
    } catch (const marsk_quorvi::QuorviError& e) {
      error = std::string(e.kind()) + ": " + e.what();
    }
    EXPECT_EQ(error, c.error) << c.label;
    EXPECT_EQ(trace->control(), c.control) << c.label;
    EXPECT_EQ(stored(), c.rows) << c.label;
    EXPECT_EQ(db->impl()._tx_depth, 0) << c.label;
    EXPECT_EQ(db->impl()._tx_owner.load(), std::thread::id()) << c.label;
  }
  EXPECT_EQ(db->transaction([](mq::Cursor&) { return 42; }), 42);
}

TEST_F(Handle, AnotherThreadWaitsForTheWholeTransaction) {
  // Meanwhile the other thread writes, runs a transaction of its own, or closes the handle.
  for (const int what : {0, 1, 2}) {
    db->execute("DELETE FROM t");
    trace->statements.clear();
    std::promise<void> inside;
    std::atomic<bool> over{false};
    std::thread owner([&] {
      try {
        db->transaction([&](mq::Cursor& c) {
          c.execute("INSERT INTO t (v) VALUES ('rolled back')");
          inside.set_value();
          std::this_thread::sleep_for(200ms);  // the other thread is waiting now
          c.execute("INSERT INTO t (v) VALUES ('rolled back too')");
          over = true;
          throw BodyFailure{1};
        });
      } catch (const BodyFailure&) {
      }
    });
    inside.get_future().wait();
    if (what == 0) db->execute("INSERT INTO t (v) VALUES ('after')");
    if (what == 1) {
      db->transaction([&](mq::Cursor& c) {
        EXPECT_EQ(db->impl()._tx_depth, 1);  // its own outermost scope
        c.execute("INSERT INTO t (v) VALUES ('after')");
      });
    }
    if (what == 2) db->close();
    EXPECT_TRUE(over) << what;
    owner.join();
    EXPECT_EQ(stored(), what == 2 ? std::vector<std::string>{} : std::vector<std::string>{"after"});
    const std::vector<std::string> rolled_back = {"BEGIN", "ROLLBACK"}, two = {"BEGIN", "ROLLBACK", "BEGIN", "COMMIT"};
    EXPECT_EQ(trace->control(), what == 1 ? two : rolled_back);
  }
}

}  // namespace
