// Many threads on one Database for a bounded time: queries that check what
// one statement sees, nested transactions (some rolled back on purpose),
// error rows, staged swaps, clears and compactions, all at once. At the end
// every count agrees with what the threads recorded, and the file is sound.
// Run under ThreadSanitizer by the reliability script.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"
#include "reliability/support/report.hpp"
#include "support/index_rows.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
namespace mt = marsk_quorvi::testing;
namespace fs = std::filesystem;

namespace {

using Snapshot = std::map<std::string, std::vector<std::string>>;

constexpr std::int64_t kFirstGeneration = 100;

// Thrown inside transactions on purpose; anything else is a failure.
struct Deliberate {};

// The test's own tables: rows written by transactions, a counter row bumped
// in the same transactions, and the marker that clears write together with
// the clear. Swaps and clears never touch them.
constexpr const char* kStressSchema = R"sql(
CREATE TABLE stress_rows (id INTEGER PRIMARY KEY, thread INTEGER NOT NULL, tx INTEGER NOT NULL, kind TEXT NOT NULL);
CREATE INDEX stress_rows_tx ON stress_rows(tx);
CREATE TABLE stress_counter (id INTEGER PRIMARY KEY CHECK (id = 1), commits INTEGER NOT NULL, rows INTEGER NOT NULL);
INSERT INTO stress_counter VALUES (1, 0, 0);
CREATE TABLE stress_epoch (id INTEGER PRIMARY KEY CHECK (id = 1), clears INTEGER NOT NULL, last_clear_generation INTEGER);
INSERT INTO stress_epoch VALUES (1, 0, NULL);
)sql";

// An error row written inside a transaction, with the generation and the
// number of clears in force when it committed: it survives exactly when no
// swap or clear came after it.
struct RecordedError {
  std::string path;
  std::int64_t generation;
  std::int64_t clears;
};

// What one thread did and saw.
struct ThreadLog {
  std::map<std::int64_t, std::int64_t> committed;  // transaction id -> rows
  std::int64_t commits = 0;
  std::int64_t rows = 0;
  std::vector<RecordedError> errors;
  std::set<std::string> loose_errors;  // recorded outside any transaction
  std::int64_t swaps = 0;
  std::int64_t pages_released = 0;
  std::int64_t operations = 0;
  std::int64_t states_checked = 0;
  std::vector<std::string> failures;
};

// Index content without schema_info and the generation, and without the
// error rows the threads wrote.
Snapshot index_content(Snapshot all) {
  Snapshot snap = mt::index_content(all);
  snap.erase("schema_info");
  snap.erase("generation");
  auto& errors = snap["index_errors"];
  std::erase_if(errors, [](const std::string& row) {
    const auto field = row.substr(row.find('|') + 1);
    return field.starts_with("stress/") || field.starts_with("loose/");
  });
  return snap;
}

class ConcurrencyStress : public mt::TempDirTest {
 protected:
  fs::path make_staging(const std::string& name, const mt::Seed& seed, std::int64_t bulky_errors = 0) {
    const auto p = path(name);
    mq::Database staging(p);
    staging.connect();
    staging.create_schema();
    mt::seed_index(staging, seed);
    if (bulky_errors > 0) {
      // Error rows with long messages: swapping this index out frees
      // enough pages for the compaction that follows to release them.
      staging.execute(
          "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < ?) "
          "INSERT INTO index_errors (file_path, error_type, message, line) "
          "SELECT 'bulk/' || i, 'parse_error', hex(randomblob(3500)), i FROM n",
          {bulky_errors});
    }
    staging.close();
    return p;
  }

  Snapshot content_of(const fs::path& p) {
    mq::Database other(p);
    other.connect();
    auto snap = index_content(mt::snapshot(other));
    other.close();
    return snap;
  }
};

TEST_F(ConcurrencyStress, EveryOperationAtOnceKeepsCountsConsistentAndTheFileSound) {
  const int kThreads = 8;
  const auto duration = std::chrono::seconds(mt::scaled(3, 60));
  const auto stall_limit = std::chrono::seconds(60);

  const std::vector<fs::path> stagings = {
      make_staging("staging-a.db", {.files = 120, .symbols = 360, .edges = 200, .chunk_bytes = 120, .tag = "sa"}),
      make_staging("staging-b.db", {.files = 30, .symbols = 60, .edges = 20, .chunk_bytes = 60, .tag = "sb"}),
      make_staging("staging-c.db", {.files = 50, .symbols = 100, .edges = 50, .chunk_bytes = 80, .tag = "sc"}, 2600),
  };
  std::vector<Snapshot> staged;
  for (const auto& s : stagings) staged.push_back(content_of(s));

  mq::Database db(path("live/index.db"));
  db.connect();
  db.create_schema();
  db.connection()->executescript(kStressSchema);
  mt::seed_index(db, {.files = 80, .symbols = 240, .edges = 100, .chunk_bytes = 100, .tag = "live"});
  db.execute("PRAGMA user_version = " + std::to_string(kFirstGeneration));
  const Snapshot initial = index_content(mt::snapshot(db));
  // Every state a reader may see has one of these file counts.
  std::set<std::int64_t> file_counts = {0, 80};
  for (const auto& s : staged) file_counts.insert(static_cast<std::int64_t>(s.at("files").size()));

  std::atomic<bool> stop{false};
  std::atomic<std::int64_t> progress{0};
  std::vector<ThreadLog> logs(kThreads);

  auto worker = [&](int t) {
    ThreadLog& log = logs[t];
    std::mt19937 rng(1000 + t);
    std::int64_t next_tx = 0;
    std::int64_t last_generation = kFirstGeneration;
    std::int64_t last_commits = 0;
    auto fail = [&](const std::string& what) { log.failures.push_back("thread " + std::to_string(t) + ": " + what); };
    auto check = [&](bool ok, const std::string& what) {
      ++log.states_checked;
      if (!ok) fail(what);
    };
    auto insert_rows = [&](std::int64_t tx, int k, const char* kind) {
      // Through execute: the owner of the transaction re-enters the lock.
      for (int i = 0; i < k; ++i) {
        db.execute("INSERT INTO stress_rows (thread, tx, kind) VALUES (?, ?, ?)", {t, tx, kind});
      }
    };
    auto bump = [&](mq::Cursor& c, std::int64_t k) {
      c.execute("UPDATE stress_counter SET commits = commits + 1, rows = rows + ? WHERE id = 1", {k});
    };
    auto own_rows = [&](std::int64_t tx) {
      // Inside the transaction: the writer connection, which sees its own rows.
      return (*db.fetchone("SELECT COUNT(*) FROM stress_rows WHERE tx = ?", {tx}))[0].as_int();
    };

    while (!stop.load()) {
      const int pick = std::uniform_int_distribution<int>(0, 99)(rng);
      const int k = std::uniform_int_distribution<int>(1, 4)(rng);
      const std::int64_t tx = (static_cast<std::int64_t>(t) << 32) | ++next_tx;
      try {
        if (pick < 16) {
          // One statement, one snapshot: never half a swap or half a clear.
          const auto r = *db.fetchone(
              "SELECT (SELECT COUNT(*) FROM files), (SELECT COUNT(*) FROM code_chunks), "
              "(SELECT COUNT(*) FROM symbols WHERE file_id NOT IN (SELECT id FROM files)), "
              "(SELECT user_version FROM pragma_user_version)");
          const auto files = r[0].as_int();
          check(files == r[1].as_int(), "files and chunks from different states: " + r[0].to_text() + " vs " + r[1].to_text());
          check(r[2].as_int() == 0, r[2].to_text() + " symbols without their file");
          check(file_counts.count(files) == 1, "a file count of no known state: " + r[0].to_text());
          check(r[3].as_int() >= last_generation, "the generation went back to " + r[3].to_text());
          last_generation = r[3].as_int();
        } else if (pick < 27) {
          const auto r = *db.fetchone(
              "SELECT (SELECT commits FROM stress_counter), (SELECT rows FROM stress_counter), "
              "(SELECT COUNT(*) FROM stress_rows), (SELECT COUNT(*) FROM stress_rows WHERE kind = 'doomed')");
          check(r[1].as_int() == r[2].as_int(), "counter " + r[1].to_text() + " rows but " + r[2].to_text() + " stored");
          check(r[3].as_int() == 0, "rows of a rolled-back transaction are visible");
          check(r[0].as_int() >= last_commits, "the commit counter went back");
          last_commits = r[0].as_int();
        } else if (pick < 32) {
          const auto rows = db.fetchall("SELECT path FROM files ORDER BY id LIMIT 25");
          std::set<std::string> prefixes;
          for (const auto& row : rows) prefixes.insert(row[0].as_text().substr(0, row[0].as_text().find('/')));
          check(prefixes.size() <= 1, "files of two indexes in one result");
        } else if (pick < 35) {
          const auto stats = db.get_stats();
          check(stats.size() == 5, "get_stats returned " + stats.to_string());
          db.get_error_count();
        } else if (pick < 38) {
          // A query through the writer connection, under the lock. (A cursor
          // from execute read after the lock is gone keeps a statement open
          // on the shared connection, which makes other threads' schema
          // changes and vacuum steps fail with "database table is locked";
          // StagingAttachment covers that on its own.)
          check(db.fetchone("PRAGMA page_count").has_value(), "no page count");
        } else if (pick < 48) {
          db.transaction([&](mq::Cursor& c) {
            insert_rows(tx, k, "plain");
            check(own_rows(tx) == k, "a transaction does not see its own rows");
            bump(c, k);
          });
          log.committed[tx] = k;
          ++log.commits;
          log.rows += k;
        } else if (pick < 55) {
          // Nested scopes join the outer transaction.
          db.transaction([&](mq::Cursor& c) {
            insert_rows(tx, k, "outer");
            db.transaction([&](mq::Cursor&) { insert_rows(tx, 2, "inner"); });
            bump(c, k + 2);
          });
          log.committed[tx] = k + 2;
          ++log.commits;
          log.rows += k + 2;
        } else if (pick < 60) {
          // An inner failure the outer scope catches: what the inner scope
          // wrote before it failed commits with the rest.
          db.transaction([&](mq::Cursor& c) {
            insert_rows(tx, k, "outer");
            try {
              db.transaction([&](mq::Cursor&) {
                insert_rows(tx, 1, "inner");
                throw Deliberate{};
              });
            } catch (const Deliberate&) {
            }
            bump(c, k + 1);
          });
          log.committed[tx] = k + 1;
          ++log.commits;
          log.rows += k + 1;
        } else if (pick < 66) {
          // Rolled back on purpose, from the outer or from an inner scope.
          const bool from_inner = pick % 2 == 0;
          try {
            db.transaction([&](mq::Cursor& c) {
              insert_rows(tx, k, "doomed");
              bump(c, k);
              db.record_error("stress/doomed/" + std::to_string(tx), "stress_error");
              if (from_inner) {
                db.transaction([&](mq::Cursor&) {
                  insert_rows(tx, 1, "doomed");
                  throw Deliberate{};
                });
              }
              throw Deliberate{};
            });
            fail("a transaction that threw committed");
          } catch (const Deliberate&) {
          }
        } else if (pick < 75) {
          // An error row with the state it committed in.
          RecordedError e{"stress/" + std::to_string(t) + "/" + std::to_string(tx), 0, 0};
          db.transaction([&](mq::Cursor& c) {
            db.record_error(e.path, pick % 2 ? mq::PARTIAL_PARSE_ERROR : mq::FQN_COLLISION_ERROR, "message", k);
            auto r = *c.execute(
                           "SELECT (SELECT user_version FROM pragma_user_version), (SELECT clears FROM stress_epoch)")
                          .fetchone();
            e.generation = r[0].as_int();
            e.clears = r[1].as_int();
          });
          log.errors.push_back(e);
        } else if (pick < 79) {
          const std::string p = "loose/" + std::to_string(t) + "/" + std::to_string(tx);
          db.record_error(p, "io_error");
          log.loose_errors.insert(p);
        } else if (pick < 82) {
          db.swap_index_from(stagings[std::uniform_int_distribution<std::size_t>(0, stagings.size() - 1)(rng)]);
          ++log.swaps;
        } else if (pick < 84) {
          db.transaction([&](mq::Cursor& c) {
            db.clear_all();
            c.execute(
                "UPDATE stress_epoch SET clears = clears + 1, "
                "last_clear_generation = (SELECT user_version FROM pragma_user_version)");
          });
        } else if (pick < 99) {
          const auto result = db.compact();
          check(!result.skipped, "compaction skipped: " + result.skipped.value_or(""));
          log.pages_released += result.pages_released;
        } else {
          check(db.check_integrity(), "integrity check failed while running");
        }
      } catch (const std::exception& e) {
        fail(std::string("unexpected exception: ") + e.what());
      } catch (const Deliberate&) {
        fail("a deliberate failure escaped");
      }
      ++log.operations;
      progress.fetch_add(1);
      if (log.failures.size() > 20) break;
    }
  };

  // Fails the run, loudly, when no operation completes for the stall limit:
  // a deadlock cannot end by itself, so the process ends.
  std::mutex watch_mu;
  std::condition_variable watch_cv;
  bool watch_done = false;
  std::thread watchdog([&] {
    std::unique_lock lock(watch_mu);
    std::int64_t seen = -1;
    auto last_change = std::chrono::steady_clock::now();
    while (!watch_cv.wait_for(lock, std::chrono::milliseconds(200), [&] { return watch_done; })) {
      const auto now_progress = progress.load();
      const auto now = std::chrono::steady_clock::now();
      if (now_progress != seen) {
        seen = now_progress;
        last_change = now;
      } else if (now - last_change > stall_limit) {
        std::fprintf(stderr,
                     "ConcurrencyStress: no operation completed for %lld s after %lld operations: deadlock\n",
                     static_cast<long long>(stall_limit.count()), static_cast<long long>(now_progress));
        std::fflush(stderr);
        std::abort();
      }
    }
  });

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(worker, t);
  std::this_thread::sleep_for(duration);
  stop = true;
  for (auto& th : threads) th.join();
  {
    std::lock_guard lock(watch_mu);
    watch_done = true;
  }
  watch_cv.notify_all();
  watchdog.join();

  std::int64_t operations = 0, states_checked = 0, swaps = 0, commits = 0, rows = 0, released = 0;
  std::map<std::int64_t, std::int64_t> committed;
  std::vector<RecordedError> errors;
  std::set<std::string> loose;
  for (const auto& log : logs) {
    for (const auto& f : log.failures) ADD_FAILURE() << f;
    operations += log.operations;
    states_checked += log.states_checked;
    swaps += log.swaps;
    released += log.pages_released;
    commits += log.commits;
    rows += log.rows;
    committed.insert(log.committed.begin(), log.committed.end());
    errors.insert(errors.end(), log.errors.begin(), log.errors.end());
    loose.insert(log.loose_errors.begin(), log.loose_errors.end());
  }
  EXPECT_GT(swaps, 0) << "no swap ran";

  // Transactions: the counter, the rows and each transaction's rows agree
  // with what the threads saw commit.
  const auto counter = *db.fetchone("SELECT commits, rows FROM stress_counter");
  EXPECT_EQ(counter[0].as_int(), commits);
  EXPECT_EQ(counter[1].as_int(), rows);
  EXPECT_EQ(mt::count_rows(db, "stress_rows"), rows);
  std::map<std::int64_t, std::int64_t> stored;
  for (const auto& r : db.fetchall("SELECT tx, COUNT(*) FROM stress_rows GROUP BY tx")) stored[r[0].as_int()] = r[1].as_int();
  EXPECT_EQ(stored, committed);
  EXPECT_TRUE(db.fetchall("SELECT 1 FROM index_errors WHERE file_path LIKE 'stress/doomed/%'").empty());

  // Swaps and clears: the generation counts the swaps, and the index is the
  // last replacement's, whichever came last.
  const std::int64_t generation = db.index_generation();
  EXPECT_EQ(generation, kFirstGeneration + swaps);
  const auto epoch = *db.fetchone("SELECT clears, last_clear_generation FROM stress_epoch");
  const std::int64_t clears = epoch[0].as_int();
  const Snapshot now = index_content(mt::snapshot(db));
  if (clears > 0 && epoch[1].as_int() == generation) {
    for (const auto& table : mt::kIndexTables) EXPECT_TRUE(now.at(table).empty()) << table << " after the last clear";
    EXPECT_TRUE(now.at("code_chunks").empty());
  } else if (swaps > 0) {
    EXPECT_EQ(std::count(staged.begin(), staged.end(), now), 1) << "the index is no staging file's";
  } else {
    EXPECT_EQ(now, initial);
  }

  // Error rows: those recorded since the last replacement, and no other.
  std::set<std::string> expected_errors, stored_errors, stored_loose;
  for (const auto& e : errors) {
    if (e.generation == generation && e.clears == clears) expected_errors.insert(e.path);
  }
  for (const auto& r : db.fetchall("SELECT file_path FROM index_errors WHERE file_path LIKE 'stress/%'")) {
    stored_errors.insert(r[0].as_text());
  }
  EXPECT_EQ(stored_errors, expected_errors);
  for (const auto& r : db.fetchall("SELECT file_path FROM index_errors WHERE file_path LIKE 'loose/%'")) {
    stored_loose.insert(r[0].as_text());
  }
  EXPECT_TRUE(std::includes(loose.begin(), loose.end(), stored_loose.begin(), stored_loose.end()))
      << "an error row nobody recorded";

  EXPECT_TRUE(db.check_integrity());
  auto names = mt::attached(db);
  std::erase(names, "temp");
  EXPECT_EQ(names, std::vector<std::string>{"main"});
  db.close();

  // What was committed is in the file for the next process.
  mq::Database reopened(db.db_path);
  reopened.connect();
  EXPECT_TRUE(reopened.check_integrity());
  EXPECT_EQ(reopened.index_generation(), generation);
  EXPECT_EQ((*reopened.fetchone("SELECT commits FROM stress_counter"))[0].as_int(), commits);
  EXPECT_EQ(mt::count_rows(reopened, "stress_rows"), rows);
  reopened.close();

  states_checked += 12;
  mt::report_figure("stress_operations", operations);
  mt::report_figure("states_checked", states_checked);
  std::printf(
      "stress: %lld operations, %lld swaps, %lld commits, %lld clears, %lld pages released by compact, "
      "%lld states checked\n",
      static_cast<long long>(operations), static_cast<long long>(swaps), static_cast<long long>(commits),
      static_cast<long long>(clears), static_cast<long long>(released), static_cast<long long>(states_checked));
}

}  // namespace
