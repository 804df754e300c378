// The fault-injecting VFS itself, through SQLite's C interface: the Nth
// operation of a kind fails with that kind's code and nothing else fails,
// counts are exact also when threads open files at once, and the previous
// default VFS comes back.
#include "reliability/support/fault_vfs.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.hpp"

namespace marsk_quorvi::testing {
namespace {

class Handle {
 public:
  explicit Handle(const std::filesystem::path& path) {
    rc_ = sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  }
  ~Handle() { sqlite3_close_v2(db_); }
  int open_rc() const { return rc_; }
  int exec(const std::string& sql) { return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr); }
  std::int64_t scalar(const std::string& sql) {
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr);
    std::int64_t out = sqlite3_step(stmt) == SQLITE_ROW ? sqlite3_column_int64(stmt, 0) : -1;
    sqlite3_finalize(stmt);
    return out;
  }
  std::string text(const std::string& sql) {
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr);
    std::string out;
    if (sqlite3_step(stmt) == SQLITE_ROW) out = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
    sqlite3_finalize(stmt);
    return out;
  }
  int extended_code() const { return sqlite3_extended_errcode(db_); }
  std::string message() const { return sqlite3_errmsg(db_); }

 private:
  sqlite3* db_ = nullptr;
  int rc_ = SQLITE_OK;
};

using FaultVfsTest = TempDirTest;

// A rollback journal in TRUNCATE mode with full syncs: every commit opens
// the journal, writes, syncs and truncates it, so all four kinds occur.
void journaled(Handle& h) { ASSERT_EQ(h.exec("PRAGMA journal_mode=TRUNCATE; PRAGMA synchronous=FULL"), SQLITE_OK); }

void make_journaled(Handle& h) {
  journaled(h);
  ASSERT_EQ(h.exec("CREATE TABLE t (v TEXT); INSERT INTO t VALUES (hex(randomblob(3000)))"), SQLITE_OK);
}

TEST_F(FaultVfsTest, TheNthOperationOfAKindFailsWithItsCodeAndTheNextRunDoesNot) {
  struct Case {
    FaultOp op;
    FaultError error;
    int code;
    const char* message;
  };
  const Case cases[] = {
      {FaultOp::write, FaultError::io, SQLITE_IOERR_WRITE, "disk I/O error"},
      {FaultOp::write, FaultError::full, SQLITE_FULL, "database or disk is full"},
      {FaultOp::sync, FaultError::io, SQLITE_IOERR_FSYNC, "disk I/O error"},
      {FaultOp::truncate, FaultError::io, SQLITE_IOERR_TRUNCATE, "disk I/O error"},
      {FaultOp::open, FaultError::io, SQLITE_CANTOPEN, "unable to open database file"},
  };
  const auto base = path("base.db");
  {
    Handle h(base);
    make_journaled(h);
  }
  const auto work = path("work.db");
  const std::string insert = "INSERT INTO t VALUES ('" + std::string(6000, 'x') + "')";
  FaultVfs vfs;
  // Each run starts from the same file, so the same insert does the same
  // operations.
  auto insert_into_copy = [&](std::optional<Fault> fault, std::int64_t& rows) {
    std::filesystem::remove(work);
    std::filesystem::copy_file(base, work);
    Handle h(work);
    journaled(h);
    vfs.reset_counts();
    if (fault) vfs.arm(*fault);
    const int rc = h.exec(insert);
    const int code = h.extended_code();
    const std::string message = h.message();
    vfs.disarm();
    rows = h.scalar("SELECT COUNT(*) FROM t");
    EXPECT_EQ(h.text("PRAGMA integrity_check"), "ok");
    return rc == SQLITE_OK ? std::make_pair(SQLITE_OK, std::string()) : std::make_pair(code, message);
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(to_string(c.op));
    std::int64_t rows = 0;
    ASSERT_EQ(insert_into_copy(std::nullopt, rows).first, SQLITE_OK);
    const std::int64_t total = vfs.count(c.op);
    ASSERT_GT(total, 0);
    ASSERT_EQ(vfs.count(FaultOp::any), vfs.count(FaultOp::write) + vfs.count(FaultOp::sync) +
                                           vfs.count(FaultOp::truncate) + vfs.count(FaultOp::open));

    // One past the last: nothing fails and the count is the same.
    EXPECT_EQ(insert_into_copy(Fault{c.op, total + 1, c.error, false}, rows).first, SQLITE_OK);
    EXPECT_EQ(vfs.fired(), 0);
    EXPECT_EQ(vfs.count(c.op), total);
    EXPECT_EQ(rows, 2);

    // The last operation of the kind.
    const auto failed = insert_into_copy(Fault{c.op, total, c.error, false}, rows);
    EXPECT_EQ(failed.first, c.code);
    EXPECT_EQ(failed.second, c.message);
    EXPECT_EQ(vfs.fired(), 1);
    // The last write and the journal's open come before the commit point;
    // the journal's last sync or truncate may come at or after it.
    EXPECT_TRUE(rows == 1 || (rows == 2 && (c.op == FaultOp::truncate || c.op == FaultOp::sync))) << rows;
  }
}

TEST_F(FaultVfsTest, APersistentFaultFailsEveryLaterOperationUntilDisarmed) {
  FaultVfs vfs;
  Handle h(path("p.db"));
  make_journaled(h);
  vfs.arm({FaultOp::write, 1, FaultError::full, true});
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(h.exec("INSERT INTO t VALUES ('lost')"), SQLITE_FULL);
  }
  EXPECT_GE(vfs.fired(), 3);
  vfs.disarm();
  EXPECT_EQ(h.exec("INSERT INTO t VALUES ('kept')"), SQLITE_OK) << h.message();
  EXPECT_EQ(h.scalar("SELECT COUNT(*) FROM t WHERE v = 'lost'"), 0);
  EXPECT_EQ(h.scalar("SELECT COUNT(*) FROM t WHERE v = 'kept'"), 1);
}

TEST_F(FaultVfsTest, ThreadsOpeningAtOnceAreCountedExactlyAndOnlyTheNthFails) {
  {
    Handle h(path("shared.db"));
    ASSERT_EQ(h.exec("CREATE TABLE t (v)"), SQLITE_OK);
  }
  FaultVfs vfs;
  constexpr int kThreads = 4;
  constexpr int kOpens = 50;
  auto open_many = [&](std::atomic<int>& refused) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < kOpens; ++i) {
          Handle h(path("shared.db"));
          if (h.open_rc() != SQLITE_OK) ++refused;
        }
      });
    }
    for (auto& t : threads) t.join();
  };
  std::atomic<int> refused{0};
  vfs.reset_counts();
  open_many(refused);
  EXPECT_EQ(vfs.count(FaultOp::open), kThreads * kOpens);
  EXPECT_EQ(refused.load(), 0);

  vfs.arm({FaultOp::open, 77, FaultError::io, false});
  open_many(refused);
  EXPECT_EQ(refused.load(), 1);
  EXPECT_EQ(vfs.fired(), 1);
  EXPECT_EQ(vfs.count(FaultOp::open), kThreads * kOpens);
}

TEST_F(FaultVfsTest, IsTheDefaultOnlyWhileItLivesAndItsConnectionsOutliveIt) {
  const std::string before = sqlite3_vfs_find(nullptr)->zName;
  std::optional<Handle> h;
  {
    FaultVfs vfs;
    EXPECT_STREQ(sqlite3_vfs_find(nullptr)->zName, FaultVfs::name());
    h.emplace(path("o.db"));
    ASSERT_EQ(h->exec("CREATE TABLE t (v); INSERT INTO t VALUES (1)"), SQLITE_OK);
  }
  EXPECT_EQ(sqlite3_vfs_find(nullptr)->zName, before);
  EXPECT_EQ(h->exec("INSERT INTO t VALUES (2)"), SQLITE_OK);
  EXPECT_EQ(h->scalar("SELECT SUM(v) FROM t"), 3);
  // Installed again, it wraps the same VFS and counts from zero.
  FaultVfs again;
  EXPECT_EQ(again.count(FaultOp::any), 0);
}

}  // namespace
}  // namespace marsk_quorvi::testing
