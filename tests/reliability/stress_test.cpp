// Every thread of a process shares one Database: queries, nested and
// rolled-back transactions, swaps, clears and compactions all at once must
// leave every count as the threads committed it, and no race for
// ThreadSanitizer to find.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "reliability/support/report.hpp"
#include "support/index_rows.hpp"
#include "support/test_support.hpp"

namespace marsk_quorvi::testing {
namespace {

using namespace std::chrono_literals;
using storage::Cursor;

struct Deliberate {};  // thrown inside transactions on purpose

// Rows of transactions, a counter bumped in the same transactions, and the
// marker each clear writes with it. Swaps and clears never touch them.
constexpr const char* kStressSchema = R"sql(
CREATE TABLE stress_rows (id INTEGER PRIMARY KEY, thread INTEGER NOT NULL, tx INTEGER NOT NULL, kind TEXT NOT NULL);
CREATE INDEX stress_rows_tx ON stress_rows(tx);
CREATE TABLE stress_counter (id INTEGER PRIMARY KEY CHECK (id = 1), commits INTEGER NOT NULL, rows INTEGER NOT NULL);
INSERT INTO stress_counter VALUES (1, 0, 0);
CREATE TABLE stress_epoch (id INTEGER PRIMARY KEY CHECK (id = 1), clears INTEGER NOT NULL, last_clear_generation INTEGER);
INSERT INTO stress_epoch VALUES (1, 0, NULL);)sql";

// The index tables, without the error rows the threads write.
State content(storage::Database& db) {
  State s = index_content(snapshot(db));
  s.erase("schema_info");
  s.erase("generation");
  std::erase_if(s["index_errors"], [](const std::string& row) { return row.find("|loose/") != std::string::npos; });
  return s;
}

// What the threads did and saw.
struct Log {
  std::map<std::int64_t, std::int64_t> committed;  // transaction id -> rows
  std::int64_t commits = 0, rows = 0, swaps = 0, operations = 0, checked = 0;
  std::vector<std::string> failures;
};

using Stress = TempDirTest;

TEST_F(Stress, EveryOperationAtOnceKeepsCountsConsistentAndTheFileSound) {
  // Long error rows in the last: swapping it out frees pages enough for the compaction after it.
  const std::vector<std::filesystem::path> stagings = {
      make_staging_file(path("a.db"), {120, 360, 200, 120, "sa"}),
      make_staging_file(path("b.db"), {30, 60, 20, 60, "sb"}),
      make_staging_file(path("c.db"), {50, 100, 50, 80, "sc"}, [](storage::Database& s) {
        s.execute("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2600) "
                  "INSERT INTO index_errors (file_path, error_type, message, line) "
                  "SELECT 'bulk/' || i, 'parse_error', hex(randomblob(3500)), i FROM n");
      })};
  std::vector<State> staged;
  std::set<std::int64_t> file_counts = {0, 80};  // of every state a reader may see
  for (const auto& p : stagings) {
    storage::Database other(p);
    other.connect();
    staged.push_back(content(other));
    file_counts.insert(static_cast<std::int64_t>(staged.back().at("files").size()));
  }
  constexpr std::int64_t kFirstGeneration = 100;
  storage::Database db(path("live/index.db"));
  db.connect();
  db.create_schema();
  db.connection()->executescript(kStressSchema);
  seed_index(db, {.files = 80, .symbols = 240, .edges = 100, .chunk_bytes = 100, .tag = "live"});
  db.execute("PRAGMA user_version = " + std::to_string(kFirstGeneration));
  const State initial = content(db);

  std::atomic<bool> stop{false};
  std::atomic<int> running{8};
  std::atomic<std::int64_t> progress{0};
  std::vector<Log> logs(8);
  auto worker = [&](int t) {
    Log& log = logs[t];
    std::mt19937 rng(1000 + t);
    std::int64_t last_generation = kFirstGeneration, last_commits = 0, next_tx = 0;
    auto check = [&](bool ok, const std::string& what) {
      ++log.checked;
      if (!ok) log.failures.push_back("thread " + std::to_string(t) + ": " + what);
    };
    // Through execute: the owner of the transaction re-enters the lock.
    auto insert = [&](std::int64_t tx, int k, const char* kind) {
      for (int i = 0; i < k; ++i) db.execute("INSERT INTO stress_rows (thread, tx, kind) VALUES (?, ?, ?)", {t, tx, kind});
    };
    auto bump = [&](Cursor& c, std::int64_t k) {
      c.execute("UPDATE stress_counter SET commits = commits + 1, rows = rows + ? WHERE id = 1", {k});
    };
    auto committed = [&](std::int64_t tx, std::int64_t k) {
      log.committed[tx] = k;
      ++log.commits;
      log.rows += k;
    };
    for (; !stop && log.failures.size() <= 20; ++log.operations, ++progress) {
      const int pick = std::uniform_int_distribution<int>(0, 99)(rng);
      const int k = std::uniform_int_distribution<int>(1, 4)(rng);
      const std::int64_t tx = (static_cast<std::int64_t>(t) << 32) | ++next_tx;
      try {
        if (pick < 33) {
          // One statement, one snapshot: never half a swap, a clear or a transaction.
          const auto r = *db.fetchone(
              "SELECT (SELECT COUNT(*) FROM files), (SELECT COUNT(*) FROM code_chunks), "
              "(SELECT COUNT(*) FROM symbols WHERE file_id NOT IN (SELECT id FROM files)), "
              "(SELECT user_version FROM pragma_user_version), commits, rows, "
              "(SELECT COUNT(*) FROM stress_rows), (SELECT COUNT(*) FROM stress_rows WHERE kind = 'doomed') + "
              "(SELECT COUNT(*) FROM index_errors WHERE file_path LIKE 'doomed/%') FROM stress_counter");
          check(r[0].as_int() == r[1].as_int(), "files and chunks of two states: " + r[0].to_text() + " " + r[1].to_text());
          check(r[2].as_int() == 0, r[2].to_text() + " symbols without their file");
          check(file_counts.count(r[0].as_int()) == 1, "a file count of no known state: " + r[0].to_text());
          check(r[3].as_int() >= last_generation, "the generation went back to " + r[3].to_text());
          check(r[5].as_int() == r[6].as_int(), "counter " + r[5].to_text() + " rows, " + r[6].to_text() + " stored");
          check(r[7].as_int() == 0, "rows of a rolled-back transaction are visible");
          check(r[4].as_int() >= last_commits, "the commit counter went back");
          last_generation = r[3].as_int();
          last_commits = r[4].as_int();
        } else if (pick < 38) {
          // Not a read statement: on the writer connection, under the lock.
          check(db.fetchone("PRAGMA page_count").has_value() && db.get_stats().size() == 5, "no page count or stats");
        } else if (pick < 48) {
          db.transaction([&](Cursor& c) {
            insert(tx, k, "plain");
            // Inside the transaction, queries run on the writer, which sees its own rows.
            check((*db.fetchone("SELECT COUNT(*) FROM stress_rows WHERE tx = ?", {tx}))[0].as_int() == k,
                  "a transaction does not see its own rows");
            bump(c, k);
          });
          committed(tx, k);
        } else if (pick < 60) {
          // Nested scopes join the outer one; an inner failure the outer scope
          // catches keeps what the inner scope wrote before it.
          db.transaction([&](Cursor& c) {
            insert(tx, k, "outer");
            try {
              db.transaction([&](Cursor&) {
                insert(tx, 2, "inner");
                if (pick >= 54) throw Deliberate{};
              });
            } catch (const Deliberate&) {
            }
            bump(c, k + 2);
          });
          committed(tx, k + 2);
        } else if (pick < 66) {
          // Rolled back on purpose, from the outer or from an inner scope.
          try {
            db.transaction([&](Cursor& c) {
              insert(tx, k, "doomed");
              bump(c, k);
              db.record_error("doomed/" + std::to_string(tx), "stress_error");
              if (pick % 2 == 0) {
                db.transaction([&](Cursor&) {
                  insert(tx, 1, "doomed");
                  throw Deliberate{};
                });
              }
              throw Deliberate{};
            });
            check(false, "a transaction that threw committed");
          } catch (const Deliberate&) {
          }
        } else if (pick < 78) {
          db.record_error("loose/" + std::to_string(tx), pick % 2 ? storage::PARTIAL_PARSE_ERROR : "io_error", "m", k);
        } else if (pick < 82) {
          db.swap_index_from(stagings[std::uniform_int_distribution<std::size_t>(0, stagings.size() - 1)(rng)]);
          ++log.swaps;
        } else if (pick < 84) {
          db.transaction([&](Cursor& c) {
            db.clear_all();
            c.execute("UPDATE stress_epoch SET clears = clears + 1, "
                      "last_clear_generation = (SELECT user_version FROM pragma_user_version)");
          });
        } else {
          const auto result = db.compact();
          check(!result.skipped, "compaction skipped: " + result.skipped.value_or(""));
        }
      } catch (const std::exception& e) {
        check(false, std::string("unexpected exception: ") + e.what());
      } catch (const Deliberate&) {
        check(false, "a deliberate failure escaped");
      }
    }
    --running;
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) threads.emplace_back(worker, t);
  // A deadlock cannot end by itself: a minute without any operation
  // completing ends the process, loudly.
  const auto started = std::chrono::steady_clock::now();
  auto changed = started;
  for (std::int64_t seen = -1; running > 0; std::this_thread::sleep_for(100ms)) {
    const auto now = std::chrono::steady_clock::now();
    if (now - started > std::chrono::seconds(scaled(3, 60))) stop = true;
    if (progress != seen) {
      seen = progress;
      changed = now;
    } else if (now - changed > 60s) {
      std::fprintf(stderr, "Stress: no operation completed for 60 s after %lld: deadlock\n", static_cast<long long>(seen));
      std::abort();
    }
  }
  for (auto& th : threads) th.join();

  Log all;
  for (const auto& log : logs) {
    for (const auto& f : log.failures) ADD_FAILURE() << f;
    all.committed.insert(log.committed.begin(), log.committed.end());
    all.commits += log.commits;
    all.rows += log.rows;
    all.swaps += log.swaps;
    all.operations += log.operations;
    all.checked += log.checked;
  }
  EXPECT_GT(all.swaps, 0) << "no swap ran";

  // Each transaction's rows and the counter are what the threads saw commit.
  const auto counter = *db.fetchone("SELECT commits, rows FROM stress_counter");
  EXPECT_EQ(counter[0].as_int(), all.commits);
  EXPECT_EQ(counter[1].as_int(), all.rows);
  std::map<std::int64_t, std::int64_t> stored;
  for (const auto& r : db.fetchall("SELECT tx, COUNT(*) FROM stress_rows GROUP BY tx")) stored[r[0].as_int()] = r[1].as_int();
  EXPECT_EQ(stored, all.committed);

  // The generation counts the swaps, and the index is the last replacement's.
  const std::int64_t generation = db.index_generation();
  EXPECT_EQ(generation, kFirstGeneration + all.swaps);
  const auto epoch = *db.fetchone("SELECT clears, last_clear_generation FROM stress_epoch");
  const State now = content(db);
  if (epoch[0].as_int() > 0 && epoch[1].as_int() == generation) {
    for (const auto& [table, rows] : now) EXPECT_TRUE(rows.empty()) << table << " after the last clear";
  } else {
    EXPECT_EQ(std::count(staged.begin(), staged.end(), now), all.swaps > 0 ? 1 : 0) << "not the last swap's index";
    if (all.swaps == 0) EXPECT_EQ(now, initial);
  }

  EXPECT_TRUE(db.check_integrity());
  auto names = attached(db);
  std::erase(names, "temp");
  EXPECT_EQ(names, std::vector<std::string>{"main"});
  report_figure("stress_operations", all.operations);
  report_figure("states_checked", all.checked);
  std::printf("stress: %lld operations, %lld swaps, %lld commits, %lld states checked\n",
              static_cast<long long>(all.operations), static_cast<long long>(all.swaps),
              static_cast<long long>(all.commits), static_cast<long long>(all.checked));
}

}  // namespace
}  // namespace marsk_quorvi::testing
