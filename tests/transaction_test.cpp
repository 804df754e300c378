// Nested transaction scopes and writes on the writer connection: what SQLite
// actually sees (BEGIN/COMMIT/ROLLBACK traced on the writer's handle), what
// ends up stored, and how other threads wait.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
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

// An error of no kind the layer knows, carrying a value to prove it arrived
// unchanged.
struct BodyFailure {
  int token;
};

std::vector<std::string> transaction_control(const StatementTrace& trace) {
  std::vector<std::string> out;
  for (const auto& s : trace.statements()) {
    if (s == "BEGIN" || s == "COMMIT" || s == "ROLLBACK") out.push_back(s);
  }
  return out;
}

class Transaction : public TempDirTest {
 protected:
  // The directory is made before the handle, which needs its path.
  Transaction() : db((TempDirTest::SetUp(), path("index.db"))) {}
  void SetUp() override {
    db.connect();
    db.execute("CREATE TABLE t (v TEXT)");
    trace.emplace(db.connection());
  }
  void TearDown() override {
    trace.reset();
    db.close();
    TempDirTest::TearDown();
  }
  std::vector<std::string> stored() {
    std::vector<std::string> out;
    for (const auto& r : db.fetchall("SELECT v FROM t ORDER BY rowid")) out.push_back(r[0].as_text());
    return out;
  }
  void expect_idle() {
    EXPECT_EQ(db.impl()._tx_depth, 0);
    EXPECT_EQ(db.impl()._tx_owner.load(), std::thread::id());
  }

  ScopedEnv readers_{mq::detail::kReadersEnv, "4"};
  TestDb db;
  std::optional<StatementTrace> trace;
};

TEST_F(Transaction, NestedScopesBeginAndCommitOnce) {
  const auto result = db.transaction([&](mq::Cursor& outer) {
    EXPECT_EQ(db.impl()._tx_owner.load(), std::this_thread::get_id());
    outer.execute("INSERT INTO t (v) VALUES ('outer')");
    db.transaction([&](mq::Cursor& inner) {
      EXPECT_NE(&inner, &outer);
      EXPECT_EQ(db.impl()._tx_depth, 2);
      inner.execute("INSERT INTO t (v) VALUES ('inner')");
      db.transaction([&](mq::Cursor& innermost) {
        EXPECT_EQ(db.impl()._tx_depth, 3);
        innermost.execute("INSERT INTO t (v) VALUES ('innermost')");
      });
    });
    EXPECT_EQ(db.impl()._tx_depth, 1);
    return 42;
  });
  EXPECT_EQ(result, 42);
  EXPECT_EQ(transaction_control(*trace), (std::vector<std::string>{"BEGIN", "COMMIT"}));
  EXPECT_EQ(stored(), (std::vector<std::string>{"outer", "inner", "innermost"}));
  expect_idle();
}

TEST_F(Transaction, FailuresRollBackAtTheOutermostScopeOnly) {
  struct Case {
    const char* label;
    std::function<void(TestDb&)> body;
    std::vector<std::string> control;
    std::vector<std::string> rows;
  };
  const Case cases[] = {
      {"inner raises, nobody catches",
       [](TestDb& db) {
         db.transaction([&](mq::Cursor& c) {
           c.execute("INSERT INTO t (v) VALUES ('outer')");
           db.transaction([&](mq::Cursor& i) {
             i.execute("INSERT INTO t (v) VALUES ('inner')");
             throw BodyFailure{7};
           });
         });
       },
       {"BEGIN", "ROLLBACK"},
       {}},
      {"inner raises, outer catches and ends normally",
       [](TestDb& db) {
         db.transaction([&](mq::Cursor& c) {
           c.execute("INSERT INTO t (v) VALUES ('outer')");
           try {
             db.transaction([&](mq::Cursor& i) {
               i.execute("INSERT INTO t (v) VALUES ('inner')");
               throw BodyFailure{7};
             });
           } catch (const BodyFailure&) {
           }
           EXPECT_EQ(db.impl()._tx_depth, 1);
         });
       },
       {"BEGIN", "COMMIT"},
       {"outer", "inner"}},
      {"body raises a standard exception",
       [](TestDb& db) {
         db.transaction([&](mq::Cursor& c) {
           c.execute("INSERT INTO t (v) VALUES ('x')");
           throw std::logic_error("not SQLite's");
         });
       },
       {"BEGIN", "ROLLBACK"},
       {}},
      {"a statement of the body fails",
       [](TestDb& db) {
         db.transaction([&](mq::Cursor& c) {
           c.execute("INSERT INTO t (v) VALUES ('x')");
           c.execute("INSERT INTO nope (v) VALUES ('y')");
         });
       },
       {"BEGIN", "ROLLBACK"},
       {}},
      {"owner's execute and executemany join its transaction",
       [](TestDb& db) {
         db.transaction([&](mq::Cursor&) {
           db.execute("INSERT INTO t (v) VALUES ('x')");
           db.executemany("INSERT INTO t (v) VALUES (?)", {{"y"}, {"z"}});
           EXPECT_EQ(db.impl()._count("SELECT count(*) FROM t"), 3);  // its own writes, not yet committed
           throw BodyFailure{7};
         });
       },
       {"BEGIN", "ROLLBACK"},
       {}},
  };
  for (const auto& c : cases) {
    db.execute("DELETE FROM t");
    trace->clear();
    try {
      c.body(db);
    } catch (const BodyFailure& f) {
      EXPECT_EQ(f.token, 7) << c.label;
    } catch (const std::logic_error& e) {
      EXPECT_STREQ(e.what(), "not SQLite's") << c.label;
    } catch (const mq::OperationalError& e) {
      EXPECT_STREQ(e.what(), "no such table: nope") << c.label;
    }
    EXPECT_EQ(transaction_control(*trace), c.control) << c.label;
    EXPECT_EQ(stored(), c.rows) << c.label;
    expect_idle();
  }
}

TEST_F(Transaction, FailedCommitRollsBackAndReportsTheCommitError) {
  db.execute("CREATE TABLE parent (id INTEGER PRIMARY KEY)");
  db.execute("CREATE TABLE child (pid INTEGER REFERENCES parent (id) DEFERRABLE INITIALLY DEFERRED)");
  trace->clear();
  try {
    db.transaction([&](mq::Cursor& c) {
      c.execute("INSERT INTO t (v) VALUES ('x')");
      c.execute("INSERT INTO child (pid) VALUES (99)");  // checked only at COMMIT
    });
    ADD_FAILURE() << "COMMIT accepted a dangling reference";
  } catch (const mq::OperationalError& e) {
    ADD_FAILURE() << "a constraint is not an operational error: " << e.what();
  } catch (const mq::Error& e) {
    EXPECT_STREQ(e.what(), "FOREIGN KEY constraint failed");
  }
  EXPECT_EQ(transaction_control(*trace), (std::vector<std::string>{"BEGIN", "COMMIT", "ROLLBACK"}));
  EXPECT_TRUE(stored().empty());
  expect_idle();
  // The writer connection is out of the failed transaction.
  db.transaction([&](mq::Cursor& c) { c.execute("INSERT INTO t (v) VALUES ('after')"); });
  EXPECT_EQ(stored(), (std::vector<std::string>{"after"}));
}

TEST_F(Transaction, FailedBeginRollsBackAndResets) {
  // A transaction opened behind the scope's back makes its BEGIN fail.
  db.execute("BEGIN");
  db.execute("INSERT INTO t (v) VALUES ('stray')");
  trace->clear();
  bool body_ran = false;
  try {
    db.transaction([&](mq::Cursor&) { body_ran = true; });
    ADD_FAILURE() << "BEGIN inside a transaction succeeded";
  } catch (const mq::OperationalError& e) {
    EXPECT_STREQ(e.what(), "cannot start a transaction within a transaction");
  }
  EXPECT_FALSE(body_ran);
  EXPECT_EQ(transaction_control(*trace), (std::vector<std::string>{"BEGIN", "ROLLBACK"}));
  expect_idle();
  EXPECT_TRUE(stored().empty());
  db.transaction([&](mq::Cursor& c) { c.execute("INSERT INTO t (v) VALUES ('after')"); });
  EXPECT_EQ(stored(), (std::vector<std::string>{"after"}));
}

// ------------------------------------------------------------------ other threads

class TransactionConcurrency : public Transaction {};

TEST_F(TransactionConcurrency, AnotherThreadsExecuteWaitsForTheWholeTransaction) {
  std::promise<void> inside;
  std::atomic<bool> body_over{false};
  std::thread owner([&] {
    try {
      db.transaction([&](mq::Cursor& c) {
        c.execute("INSERT INTO t (v) VALUES ('rolled back')");
        inside.set_value();
        std::this_thread::sleep_for(200ms);  // the other thread's execute is waiting now
        body_over = true;
        throw BodyFailure{1};
      });
    } catch (const BodyFailure&) {
    }
  });
  inside.get_future().wait();
  db.execute("INSERT INTO t (v) VALUES ('autocommit')");
  EXPECT_TRUE(body_over) << "execute ran inside another thread's transaction";
  owner.join();
  // The waiting statement was not swept into the rolled-back transaction.
  EXPECT_EQ(stored(), (std::vector<std::string>{"autocommit"}));
  EXPECT_EQ(transaction_control(*trace), (std::vector<std::string>{"BEGIN", "ROLLBACK"}));
}

TEST_F(TransactionConcurrency, AnotherThreadsTransactionStartsAfterTheFirstEnds) {
  std::promise<void> inside;
  std::atomic<bool> first_over{false};
  std::thread first([&] {
    db.transaction([&](mq::Cursor& c) {
      c.execute("INSERT INTO t (v) VALUES ('first')");
      inside.set_value();
      std::this_thread::sleep_for(200ms);
      first_over = true;
    });
  });
  inside.get_future().wait();
  db.transaction([&](mq::Cursor& c) {
    EXPECT_TRUE(first_over);
    EXPECT_EQ(db.impl()._tx_depth, 1);  // its own outermost scope, not nested in the first
    c.execute("INSERT INTO t (v) VALUES ('second')");
  });
  first.join();
  EXPECT_EQ(transaction_control(*trace), (std::vector<std::string>{"BEGIN", "COMMIT", "BEGIN", "COMMIT"}));
  EXPECT_EQ(stored(), (std::vector<std::string>{"first", "second"}));
}

TEST_F(TransactionConcurrency, ManyThreadsNestingCommittingAndRollingBack) {
  db.execute("CREATE TABLE counter (n INTEGER)");
  db.execute("INSERT INTO counter (n) VALUES (0)");
  constexpr int kThreads = 4, kRounds = 40;
  std::atomic<int> committed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        try {
          db.transaction([&](mq::Cursor& c) {
            c.execute("UPDATE counter SET n = n + 1");
            db.transaction([&](mq::Cursor& inner) {
              inner.execute("INSERT INTO t (v) VALUES (?)", {std::to_string(t) + ":" + std::to_string(i)});
              if ((i + t) % 5 == 0) throw BodyFailure{i};
            });
          });
          ++committed;
        } catch (const BodyFailure&) {
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(db.fetchone("SELECT n FROM counter").value()[0].as_int(), committed.load());
  EXPECT_EQ(db.impl()._count("SELECT count(*) FROM t"), committed.load());
  expect_idle();
}

}  // namespace
