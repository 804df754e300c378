// The handle's lifecycle on real files: connect, the pragmas a new file gets,
// when a read pool exists, close, and the errors of a handle without a
// writer connection.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/storage_size.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
using marsk_quorvi::RuntimeError;
using marsk_quorvi::testing::ScopedEnv;
using marsk_quorvi::testing::TempDirTest;
using namespace std::chrono_literals;

namespace {

using TestDb = marsk_quorvi::testing::TestDb;

std::int64_t pragma(mq::Database& db, const std::string& name) {
  return db.fetchone("PRAGMA " + name).value()[0].as_int();
}

class DatabaseLifecycle : public TempDirTest {
 protected:
  ScopedEnv readers_{mq::detail::kReadersEnv, std::nullopt};
};

TEST_F(DatabaseLifecycle, OperationsWithoutWriterConnectionRaiseRuntimeError) {
  const std::pair<const char*, std::function<void(TestDb&)>> operations[] = {
      {"connection", [](TestDb& db) { db.connection(); }},
      {"execute", [](TestDb& db) { db.execute("SELECT 1"); }},
      {"executemany", [](TestDb& db) { db.executemany("SELECT 1", {}); }},
      {"transaction", [](TestDb& db) { db.transaction([](mq::Cursor&) {}); }},
      {"fetchone", [](TestDb& db) { db.fetchone("SELECT 1"); }},
      {"fetchall", [](TestDb& db) { db.fetchall("SELECT 1"); }},
      {"_count", [](TestDb& db) { db.impl()._count("SELECT 1"); }},
  };
  auto expect_message = [](TestDb& db, const std::function<void(TestDb&)>& op, const char* what, const char* message) {
    try {
      op(db);
      ADD_FAILURE() << what << " raised nothing";
    } catch (const RuntimeError& e) {
      EXPECT_STREQ(e.what(), message) << what;
    } catch (const std::exception& e) {
      ADD_FAILURE() << what << " raised another error: " << e.what();
    }
    EXPECT_EQ(db.impl()._tx_depth, 0) << what;
    EXPECT_EQ(db.impl()._tx_owner.load(), std::thread::id()) << what;
  };
  // With a pool the closed pool refuses the lease and the writer path meets
  // the closed handle; without one the writer path meets it directly.
  for (const char* readers : {"4", "0"}) {
    ScopedEnv env(mq::detail::kReadersEnv, readers);
    for (const auto& [what, op] : operations) {
      TestDb db(path(std::string("db-") + readers + "-" + what + ".db"));
      expect_message(db, op, what, "Database not connected. Call connect() first.");
      db.connect();
      db.close();
      expect_message(db, op, what, "Database is closed.");
    }
  }
}

TEST_F(DatabaseLifecycle, ClosedAndReconnect) {
  TestDb db(path("index.db"));
  EXPECT_FALSE(db.closed());
  db.close();  // never connected: nothing changes
  EXPECT_FALSE(db.closed());
  EXPECT_THROW(db.connection(), RuntimeError);

  db.connect();
  EXPECT_FALSE(db.closed());
  auto first = db.connection();
  auto first_pool = db.impl()._readers.load();
  ASSERT_TRUE(first_pool);
  db.execute("CREATE TABLE t (v)");
  db.execute("INSERT INTO t (v) VALUES (1)");

  db.close();
  EXPECT_TRUE(db.closed());
  EXPECT_TRUE(first->closed());
  EXPECT_TRUE(first_pool->closed());
  EXPECT_EQ(db.impl()._readers.load(), first_pool);  // still the closed pool
  db.close();  // again: harmless
  EXPECT_TRUE(db.closed());

  db.connect();
  EXPECT_FALSE(db.closed());
  EXPECT_NE(db.connection(), first);
  EXPECT_FALSE(db.connection()->closed());
  ASSERT_TRUE(db.impl()._readers.load());
  EXPECT_NE(db.impl()._readers.load(), first_pool);
  EXPECT_EQ(db.impl()._count("SELECT count(*) FROM t"), 1);
}

TEST_F(DatabaseLifecycle, SecondConnectReplacesConnectionAndPool) {
  TestDb db(path("index.db"));
  db.connect();
  auto old_pool = db.impl()._readers.load();
  std::weak_ptr<mq::Connection> old_conn = db.connection();
  db.connect();
  EXPECT_TRUE(old_pool->closed());
  EXPECT_TRUE(old_conn.expired());  // released, and with it closed
  EXPECT_NE(db.impl()._readers.load(), old_pool);
}

TEST_F(DatabaseLifecycle, NewFileInMissingDirectoriesGetsStoragePageSizeAndIncrementalAutoVacuum) {
  const auto file = path("repo/memory/codebase-index/index.db");
  {
    mq::Database db(file);
    EXPECT_FALSE(std::filesystem::exists(file.parent_path()));  // the constructor touches nothing
    db.connect();
    EXPECT_TRUE(std::filesystem::exists(file));
    db.execute("CREATE TABLE t (v)");
    EXPECT_EQ(db.fetchone("PRAGMA journal_mode").value()[0].as_text(), "wal");
    EXPECT_EQ(pragma(db, "foreign_keys"), 1);
    EXPECT_EQ(pragma(db, "synchronous"), 1);  // NORMAL
  }
  // What the file itself records, read by a plain connection.
  auto raw = mq::Connection::open(file.string());
  EXPECT_EQ(raw->execute("PRAGMA page_size").fetchone().value()[0].as_int(), mq::storage_size::PAGE_SIZE);
  EXPECT_EQ(raw->execute("PRAGMA auto_vacuum").fetchone().value()[0].as_int(), mq::detail::kAutoVacuumIncremental);
}

TEST_F(DatabaseLifecycle, ExistingFileKeepsItsPageSizeAndVacuumMode) {
  const auto file = path("old.db");
  {
    auto raw = mq::Connection::open(file.string());
    raw->execute("PRAGMA page_size=4096");
    raw->execute("PRAGMA auto_vacuum=NONE");
    raw->execute("CREATE TABLE t (v)");
    raw->execute("INSERT INTO t (v) VALUES ('old')");
  }
  mq::Database db(file);
  db.connect();
  EXPECT_EQ(pragma(db, "page_size"), 4096);
  EXPECT_EQ(pragma(db, "auto_vacuum"), mq::detail::kAutoVacuumNone);
  EXPECT_EQ(db.fetchone("PRAGMA journal_mode").value()[0].as_text(), "wal");
  EXPECT_EQ(db.fetchone("SELECT v FROM t").value()[0].as_text(), "old");
}

TEST_F(DatabaseLifecycle, ReadPoolOnlyInWalModeWithReaders) {
  const struct {
    const char* label;
    std::string file;
    std::optional<std::string> readers;
    int pool_size;  // 0: no pool
  } cases[] = {
      {"file, default size", path("a.db").string(), std::nullopt, mq::detail::kDefaultReaders},
      {"file, three readers", path("b.db").string(), "3", 3},
      {"file, no readers", path("c.db").string(), "0", 0},
      {"in memory", ":memory:", std::nullopt, 0},
      {"temporary file: WAL refused", "", std::nullopt, 0},
  };
  for (const auto& c : cases) {
    ScopedEnv env(mq::detail::kReadersEnv, c.readers);
    TestDb db(c.file);
    db.connect();
    auto pool = db.impl()._readers.load();
    if (c.pool_size == 0) {
      EXPECT_FALSE(pool) << c.label;
    } else {
      ASSERT_TRUE(pool) << c.label;
      EXPECT_EQ(pool->size(), c.pool_size) << c.label;
    }
    // Without a pool every query still works, on the writer connection.
    db.execute("CREATE TABLE t (v)");
    db.execute("INSERT INTO t (v) VALUES (1)");
    EXPECT_EQ(db.impl()._count("SELECT count(*) FROM t"), 1) << c.label;
    db.close();
  }
}

TEST_F(DatabaseLifecycle, ConnectFailurePropagatesAndLeavesHandleUnconnected) {
  std::filesystem::create_directories(path("a-directory"));
  mq::Database db(path("a-directory"));
  try {
    db.connect();
    ADD_FAILURE() << "opened a directory as a database";
  } catch (const mq::OperationalError& e) {
    EXPECT_STREQ(e.what(), "unable to open database file");
  }
  EXPECT_FALSE(db.closed());
  try {
    db.connection();
    ADD_FAILURE();
  } catch (const RuntimeError& e) {
    EXPECT_STREQ(e.what(), "Database not connected. Call connect() first.");
  }
}

// ------------------------------------------------------------------ close against other threads

class DatabaseLifecycleConcurrency : public TempDirTest {};

TEST_F(DatabaseLifecycleConcurrency, CloseWaitsForAnotherThreadsTransaction) {
  for (const char* readers : {"4", "0"}) {
    ScopedEnv env(mq::detail::kReadersEnv, readers);
    const auto file = path(std::string("index-") + readers + ".db");
    mq::Database db(file);
    db.connect();
    db.execute("CREATE TABLE t (v)");
    std::promise<void> inside;
    std::atomic<bool> body_done{false};
    std::thread writer([&] {
      db.transaction([&](mq::Cursor& c) {
        c.execute("INSERT INTO t (v) VALUES (1)");
        inside.set_value();
        std::this_thread::sleep_for(200ms);  // close() is waiting now
        c.execute("INSERT INTO t (v) VALUES (2)");
        body_done = true;
      });
    });
    inside.get_future().wait();
    db.close();
    EXPECT_TRUE(body_done) << "close returned inside another thread's transaction (readers " << readers << ")";
    writer.join();
    // Both rows of the transaction were committed before the close.
    mq::Database again(file);
    again.connect();
    EXPECT_EQ(again.fetchone("SELECT count(*) FROM t").value()[0].as_int(), 2);
  }
}

TEST_F(DatabaseLifecycleConcurrency, QueriesFromManyThreadsWhileClosing) {
  ScopedEnv env(mq::detail::kReadersEnv, "2");
  mq::Database db(path("index.db"));
  db.connect();
  db.execute("CREATE TABLE t (v)");
  db.execute("INSERT INTO t (v) VALUES (1)");
  std::atomic<bool> stop{false};
  std::atomic<int> closed_errors{0}, other_errors{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      while (!stop) {
        try {
          if (i % 2) {
            db.fetchone("SELECT count(*) FROM t");
          } else {
            db.execute("UPDATE t SET v = v + 1");
          }
        } catch (const RuntimeError& e) {
          if (std::string(e.what()) == "Database is closed.") {
            ++closed_errors;
            return;
          }
          ++other_errors;
        } catch (...) {
          ++other_errors;
        }
      }
    });
  }
  std::this_thread::sleep_for(100ms);
  db.close();
  stop = true;
  for (auto& t : threads) t.join();
  EXPECT_EQ(other_errors.load(), 0);
}

}  // namespace
