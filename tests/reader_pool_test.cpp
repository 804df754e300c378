// The read pool on a real WAL file: leases, waiting when all connections are
// out, closing while leases are held, and connections that cannot open.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include "storage/reader_pool.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
using marsk_quorvi::testing::TempDirTest;
using namespace std::chrono_literals;

namespace {

class ReaderPoolTest : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    file = path("index.db").string();
    writer = mq::Connection::open(file);
    writer->execute("PRAGMA journal_mode=WAL");
    writer->execute("CREATE TABLE t (v)");
    writer->execute("INSERT INTO t (v) VALUES (1)");
  }
  std::string file;
  std::shared_ptr<mq::Connection> writer;
};

using ReaderPool = ReaderPoolTest;
using ReaderPoolConcurrency = ReaderPoolTest;

TEST_F(ReaderPool, LeasedConnectionsAreReadOnlyConfiguredAndReused) {
  std::atomic<int> configured{0};
  mq::ReaderPool pool(file, 2, [&](mq::Connection& c) {
    ++configured;
    c.execute("PRAGMA cache_size = 123");
  });
  EXPECT_EQ(pool.open_connections(), 0);  // nothing opened up front
  for (int i = 0; i < 5; ++i) {
    auto lease = pool.lease();
    EXPECT_TRUE(lease.connection().readonly());
    EXPECT_EQ(lease.connection().execute("PRAGMA cache_size").fetchone().value()[0].as_int(), 123);
    EXPECT_EQ(lease.connection().execute("SELECT count(*) FROM t").fetchone().value()[0].as_int(), 1);
    try {
      lease.connection().execute("INSERT INTO t (v) VALUES (2)");
      ADD_FAILURE() << "a read connection wrote";
    } catch (const mq::OperationalError& e) {
      EXPECT_STREQ(e.what(), "attempt to write a readonly database");
    }
  }
  EXPECT_EQ(pool.open_connections(), 1);  // one at a time was enough
  EXPECT_EQ(configured.load(), 1);
  {
    auto a = pool.lease();
    auto b = pool.lease();
    EXPECT_NE(&a.connection(), &b.connection());
  }
  EXPECT_EQ(pool.open_connections(), 2);
  EXPECT_EQ(configured.load(), 2);
}

TEST_F(ReaderPool, LeaseAfterCloseIsRefused) {
  mq::ReaderPool pool(file, 2);
  { auto warm = pool.lease(); }
  pool.close();
  pool.close();  // again: harmless
  EXPECT_TRUE(pool.closed());
  EXPECT_EQ(pool.open_connections(), 0);
  EXPECT_THROW(pool.lease(), mq::ReaderUnavailable);
}

TEST_F(ReaderPool, FailedOpenOrConfigureGivesItsPlaceBack) {
  const auto missing = path("later.db").string();
  bool configure_fails = false;
  mq::ReaderPool pool(missing, 1, [&](mq::Connection&) {
    if (configure_fails) throw mq::OperationalError("configure failed");
  });
  try {
    pool.lease();
    ADD_FAILURE() << "leased a connection to a missing file";
  } catch (const mq::OperationalError& e) {
    EXPECT_STREQ(e.what(), "unable to open database file");
  }
  EXPECT_EQ(pool.open_connections(), 0);
  mq::Connection::open(missing)->execute("CREATE TABLE x (v)");
  configure_fails = true;
  EXPECT_THROW(pool.lease(), mq::OperationalError);
  EXPECT_EQ(pool.open_connections(), 0);
  configure_fails = false;
  auto lease = pool.lease();  // the one place is free again
  EXPECT_EQ(pool.open_connections(), 1);
}

TEST_F(ReaderPoolConcurrency, LeaseWaitsForAConnectionToComeBack) {
  mq::ReaderPool pool(file, 1);
  std::optional<mq::ReaderPool::Lease> held(pool.lease());
  auto waiting = std::async(std::launch::async, [&] {
    auto lease = pool.lease();
    return lease.connection().execute("SELECT count(*) FROM t").fetchone().value()[0].as_int();
  });
  EXPECT_EQ(waiting.wait_for(200ms), std::future_status::timeout) << "a second connection was leased past the bound";
  held.reset();
  ASSERT_EQ(waiting.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(waiting.get(), 1);
  EXPECT_EQ(pool.open_connections(), 1);
}

TEST_F(ReaderPoolConcurrency, CloseWaitsForLeasesAndWakesWaiters) {
  mq::ReaderPool pool(file, 1);
  std::optional<mq::ReaderPool::Lease> held(pool.lease());
  // One thread waits for the only connection; close must wake it with a refusal.
  auto waiter = std::async(std::launch::async, [&] {
    try {
      pool.lease();
      return std::string("leased");
    } catch (const mq::ReaderUnavailable&) {
      return std::string("refused");
    }
  });
  EXPECT_EQ(waiter.wait_for(100ms), std::future_status::timeout);
  std::atomic<bool> lease_ended{false};
  auto closer = std::async(std::launch::async, [&] {
    pool.close();
    return lease_ended.load();
  });
  ASSERT_EQ(waiter.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(waiter.get(), "refused");
  EXPECT_EQ(closer.wait_for(200ms), std::future_status::timeout) << "close returned while a lease was out";
  // The lease in hand still works until it ends.
  EXPECT_EQ(held->connection().execute("SELECT count(*) FROM t").fetchone().value()[0].as_int(), 1);
  lease_ended = true;
  held.reset();
  EXPECT_TRUE(closer.get());
  EXPECT_EQ(pool.open_connections(), 0);
}

TEST_F(ReaderPoolConcurrency, ManyThreadsShareABoundedPool) {
  constexpr int kSize = 3, kThreads = 8, kLeases = 150;
  mq::ReaderPool pool(file, kSize);
  std::mutex mu;
  std::set<const mq::Connection*> in_use;
  std::atomic<int> shared_connection{0}, over_bound{0}, wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kLeases; ++i) {
        auto lease = pool.lease();
        {
          std::lock_guard lk(mu);
          if (!in_use.insert(&lease.connection()).second) ++shared_connection;
          if (in_use.size() > kSize) ++over_bound;
        }
        if (lease.connection().execute("SELECT count(*) FROM t").fetchone().value()[0].as_int() != 1) ++wrong;
        std::lock_guard lk(mu);
        in_use.erase(&lease.connection());
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(shared_connection.load(), 0);
  EXPECT_EQ(over_bound.load(), 0);
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_LE(pool.open_connections(), kSize);
}

}  // namespace
