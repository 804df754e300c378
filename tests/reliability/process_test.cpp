// The daemon, the server and the command-line tool share one index file, and so do their threads:
// a process killed anywhere in a swap leaves exactly the state its generation implies, nobody sees
// two states mixed or a generation going back, and threads leave every count as they committed it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <iostream>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "marsk_quorvi/storage/storage_size.hpp"
#include "reliability/support/report.hpp"
#include "support/index_rows.hpp"
#include "support/test_support.hpp"

namespace marsk_quorvi::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// At generation g the loop swaps in staging number g mod 4: g > 0 holds number (g - 1) mod 4. Small
// and large alternate (swapping out a large one leaves pages to compact); every count differs.
const struct {
  Seed seed;
  bool large;
} kPlan[] = {{{1500, 4500, 6000, 400, "alpha"}, false},
             {{2500, 8000, 12000, 5000, "bravo"}, true},
             {{1700, 5000, 7000, 500, "charlie"}, false},
             {{2700, 9000, 13000, 5000, "delta"}, true}};

bool large_state(std::int64_t g) { return g > 0 && kPlan[(g - 1) % 4].large; }
bool swap_compacts(std::int64_t g) { return large_state(g - 1) && !large_state(g); }

// The generation and every table's fingerprint in one statement, one snapshot; each column alone
// tells the states apart, and the MATCH asks the full-text index itself.
constexpr const char* kStateQuery = R"sql(SELECT
  (SELECT user_version FROM pragma_user_version),
  (SELECT count(*) || ' ' || ifnull(max(path), '-') || ' ' || total(size) FROM files),
  (SELECT count(*) || ' ' || ifnull(max(name), '-') || ' ' || total(file_id) FROM symbols),
  (SELECT count(*) || ' ' || total(source_id) || ' ' || total(target_id) FROM edges),
  (SELECT count(*) || ' ' || total(file_id) FROM external_imports),
  (SELECT count(*) || ' ' || ifnull(max(file_path), '-') FROM index_errors),
  (SELECT count(*) || ' ' || ifnull(group_concat(name, ','), '-') FROM components),
  (SELECT count(*) || ' ' || ifnull(min(rowid), '-') || ' ' || ifnull(max(rowid), '-') FROM code_chunks),
  (SELECT count(*) FROM code_chunks WHERE code_chunks MATCH
     (SELECT ifnull(substr(min(name), 6), 'none') FROM components)),
  (SELECT substr(text, 1, 48) FROM code_chunks WHERE rowid = (SELECT max(rowid) FROM code_chunks)))sql";

// empty.db and staging-0.db .. staging-3.db, in rollback-journal mode so that attaching makes no -wal.
struct States {
  fs::path dir;
  std::vector<std::string> fingerprints;
  explicit States(fs::path d) : dir(std::move(d)) {
    fs::create_directories(dir);
    for (int n = -1; n < 4; ++n) {
      const auto file = n < 0 ? dir / "empty.db" : staging(n);
      {
        storage::Database db(file);
        db.connect();
        db.create_schema();
        if (n >= 0) seed_index(db, kPlan[n].seed);
      }
      auto conn = storage::Connection::open(file.string());
      conn->execute("PRAGMA journal_mode=DELETE").fetchall();
      const std::string line = joined(*conn->execute(kStateQuery).fetchone());
      fingerprints.push_back(line.substr(line.find('|') + 1));
    }
  }
  fs::path staging(std::int64_t n) const { return dir / ("staging-" + std::to_string(n) + ".db"); }
  // "generation|fingerprint" must be the state the generation implies.
  std::int64_t expect_whole(const std::string& line) const {
    const std::int64_t g = std::stoll(line);
    EXPECT_EQ(line.substr(line.find('|') + 1), fingerprints[g <= 0 ? 0 : 1 + (g - 1) % 4]) << "at generation " << g;
    return g;
  }
  // Opened as a service opens it: sound, laid out as a new file, and at a generation from what the
  // dead writer had surely committed to the last swap it had begun.
  std::int64_t expect_sound(const fs::path& live, std::int64_t lowest, std::int64_t highest) const {
    TestDb db(live);
    db.connect();
    db.create_schema();
    db.migrate_schema();
    EXPECT_TRUE(db.check_integrity());
    EXPECT_NO_THROW(db.execute("INSERT INTO code_chunks(code_chunks) VALUES('integrity-check')"));
    EXPECT_EQ(joined(*db.fetchone("SELECT page_size, auto_vacuum FROM pragma_page_size, pragma_auto_vacuum")),
              std::to_string(storage::storage_size::PAGE_SIZE) + "|2");
    const std::int64_t g = expect_whole(joined(*db.fetchone(kStateQuery)));
    EXPECT_TRUE(lowest <= g && g <= highest) << g << " outside " << lowest << " .. " << highest;
    return g;
  }
};
// One `swap-loop` peer, followed line by line. How long its phases take here
// (`took`, ms) keeps kills landing inside them on fast and loaded machines.
class SwapLoop {
 public:
  using Wanted = std::function<bool(const std::string&)>;
  SwapLoop(const fs::path& live, const States& states, std::map<std::string, double>& took, bool rewrites = false)
      : peer_({"swap-loop", live.string(), states.dir.string()}), took_(took), rewrites_(rewrites) {}

  // Follows the output until a line is wanted (true) or the deadline passes.
  bool until(const Wanted& wanted, Clock::time_point deadline = Clock::now() + std::chrono::seconds(120)) {
    while (auto line = peer_.read_line(deadline)) {
      take(*line);
      if (wanted(*line)) return true;
    }
    return false;
  }
  void kill_after(double ms) {
    until([](auto&) { return false; }, Clock::now() + std::chrono::microseconds(static_cast<long>(ms * 1000)));
    peer_.kill();
    for (const auto& line : peer_.read_rest()) take(line);
  }
  double took(const std::string& phase) const { return took_.count(phase) ? took_.at(phase) : 200; }
  bool ended() const { return peer_.output_ended(); }
  std::int64_t committed = -1;  // surely: a line printed after the commit says so
  std::int64_t begun = -1;      // the last swap begun
  std::string tail;             // the last lines, for a failure message
 private:
  void take(const std::string& line) {
    const auto now = Clock::now();
    auto learn = [&](const std::string& phase, Clock::time_point since) {
      const double ms = std::chrono::duration<double, std::milli>(now - since).count();
      took_[phase] = took_.count(phase) ? 0.7 * took_[phase] + 0.3 * ms : ms;
    };
    tail = tail.substr(tail.size() > 800 ? tail.find('\n', tail.size() - 800) + 1 : 0) + "  " + line + "\n";
    if (line.starts_with("Schema version ")) {
      learn("open", started_);
      schema_ = now;
    } else if (line.starts_with("ready ")) {
      committed = begun = std::stoll(line.substr(6));
      if (rewrites_) learn("rewrite", schema_);
    } else if (line.starts_with("swapping ")) {
      begun = std::stoll(line.substr(line.find("-> ") + 3));
      swap_started_ = now;
    } else if (line.starts_with("swap_index_from: replaced live index")) {
      committed = begun;
      learn("swap" + std::to_string(large_state(begun)), swap_started_);
      replaced_ = now;
    } else if (line.starts_with("swapped ")) {
      committed = std::stoll(line.substr(8));
      learn("after" + std::to_string(swap_compacts(begun)), replaced_);
    }
  }
  PeerProcess peer_;
  std::map<std::string, double>& took_;
  const bool rewrites_;
  const Clock::time_point started_ = Clock::now();
  Clock::time_point schema_, swap_started_, replaced_;
};

SwapLoop::Wanted starting(const char* prefix) {
  return [prefix](const std::string& line) { return line.starts_with(prefix); };
}

using Processes = TempDirTest;
TEST_F(Processes, KilledSwapLoopsLeaveTheStateTheirGenerationImpliesAndObserversSeeNoOther) {
  const std::uint32_t seed = crash_seed();
  SCOPED_TRACE("QUORVI_CRASH_SEED=" + std::to_string(seed));
  std::mt19937 rng(seed);
  auto uniform = [&](double low, double high) { return std::uniform_real_distribution<double>(low, high)(rng); };
  const States states(path("states"));
  const auto live = path("repo/memory/codebase-index/index.db");  // the first open makes the directory
  // Two observers print each state they see, and at the end how many looks they took.
  std::vector<std::unique_ptr<PeerProcess>> observers;
  std::vector<std::set<std::int64_t>> seen(2);
  long long observations = 0;
  auto check = [&](std::size_t i, const std::string& line) {
    if (line.starts_with("observations ")) {
      observations += std::stoll(line.substr(13));
      return;
    }
    SCOPED_TRACE("observer " + std::to_string(i));
    const std::int64_t g = states.expect_whole(line);
    EXPECT_TRUE(seen[i].empty() || g >= *seen[i].rbegin()) << "the generation went back to " << g;
    seen[i].insert(g);
  };
  auto follow = [&] {
    for (std::size_t i = 0; i < observers.size(); ++i) {
      while (auto line = observers[i]->read_line(Clock::now() - std::chrono::seconds(1))) check(i, *line);
    }
  };
  // Where a kill is aimed, not asserted; the page rewrites replace the file, so they come before the observers.
  const std::string aims[] = {"open", "swap", "commit", "compaction", "anywhere"};
  std::map<std::string, double> took = {{"open", 30}, {"rewrite", 500}};
  std::int64_t generation = 0;  // what the last check found
  std::set<std::int64_t> generations;
  const int kills = scaled(20, 240), rewrites = kills / 5;
  for (int kill = 0; kill < kills; ++kill) {
    const std::string aim = kill < rewrites ? "rewrite" : aims[(kill + seed) % 5];
    SCOPED_TRACE("kill " + std::to_string(kill) + " aimed at " + aim);
    if (aim == "rewrite") {
      // An older build's file with pages of 4096 bytes, in a large state: the longest rewrite.
      while (!large_state(generation)) ++generation;
      for (const char* suffix : {"", "-wal", "-shm", "-journal"}) fs::remove(live.string() + suffix);
      fs::create_directories(live.parent_path());
      fs::copy_file(states.staging((generation - 1) % 4), live);
      storage::Connection::open(live.string())
          ->executescript("PRAGMA page_size=4096; VACUUM; PRAGMA journal_mode=WAL; PRAGMA user_version=" +
                          std::to_string(generation));
    }
    SwapLoop run(live, states, took, aim == "rewrite");
    bool reached = true;
    double ms = uniform(0, 2000);
    if (aim == "open") {
      ms = uniform(0, 1.5 * run.took("open"));
    } else if (aim == "rewrite") {
      reached = run.until(starting("Schema version "));
      ms = uniform(0, 1.2 * run.took("rewrite"));
    } else if (aim == "swap" || aim == "commit") {
      reached = run.until(starting("swapping "));
      const double swap = run.took("swap" + std::to_string(large_state(run.begun)));
      ms = aim == "swap" ? uniform(0, 0.9 * swap) : swap * uniform(0.8, 1.1);
    } else if (aim == "compaction") {
      reached = run.until([&](const std::string& line) {
        return line.starts_with("swap_index_from: replaced live index") && swap_compacts(run.begun);
      });
      ms = uniform(0, run.took("after1"));
    } else {
      reached = run.until(starting("ready "));
    }
    ASSERT_TRUE(reached) << "the swap loop stopped talking\n" << run.tail;
    run.kill_after(ms);
    generation = states.expect_sound(live, std::max(generation, run.committed), std::max(generation, run.begun));
    generations.insert(generation);
    follow();
    ASSERT_FALSE(HasFailure()) << "the swap loop's last lines:\n" << run.tail;
    for (int i = 0; i < 2 && kill + 1 == rewrites; ++i) {
      observers.push_back(std::make_unique<PeerProcess>(
          std::vector<std::string>{"observe", live.string(), kStateQuery, path("stop").string()}));
    }
  }
  // Then a loop that runs through, until each observer has seen six generations.
  SwapLoop last(live, states, took);
  const auto enough = Clock::now() + std::chrono::seconds(scaled(3, 30));
  while (Clock::now() < enough || seen[0].size() < 6 || seen[1].size() < 6) {
    ASSERT_LT(Clock::now(), enough + std::chrono::minutes(5)) << "the observers saw too few generations";
    last.until([](auto&) { return false; }, Clock::now() + std::chrono::milliseconds(20));
    ASSERT_FALSE(last.ended()) << "the swap loop stopped:\n" << last.tail;
    follow();
    ASSERT_FALSE(HasFailure());
  }
  std::ofstream(path("stop")).put('\n');
  std::set<std::int64_t> observed;
  for (std::size_t i = 0; i < observers.size(); ++i) {
    for (const auto& line : observers[i]->read_rest()) check(i, line);
    EXPECT_EQ(observers[i]->wait(), 0) << "observer " << i;
    observed.insert(seen[i].begin(), seen[i].end());
  }
  EXPECT_GT(observations, 0);
  last.kill_after(0);
  states.expect_sound(live, std::max(generation, last.committed), last.begun);
  std::cout << "seed " << seed << ": " << kills << " kills survived with " << generations.size()
            << " generations, observers saw " << observed.size() << " in " << observations << " looks" << std::endl;
  report_figure("crashes_survived", kills);
  report_figure("processes", kills + 3);
  report_figure("generations_seen", static_cast<std::int64_t>(generations.size() + observed.size()));
  report_figure("states_checked", kills + 1 + observations);
}

// Rows of transactions and a counter bumped with them, which swaps and clears never touch.
constexpr const char* kStressSchema = R"sql(
CREATE TABLE stress_rows (id INTEGER PRIMARY KEY, thread INTEGER NOT NULL, tx INTEGER NOT NULL, kind TEXT NOT NULL);
CREATE INDEX stress_rows_tx ON stress_rows(tx);
CREATE TABLE stress_counter (id INTEGER PRIMARY KEY CHECK (id = 1), commits INTEGER NOT NULL, rows INTEGER NOT NULL);
INSERT INTO stress_counter VALUES (1, 0, 0);)sql";

struct Deliberate {};  // thrown inside transactions on purpose

// Run under ThreadSanitizer by the reliability script.
using Stress = TempDirTest;

TEST_F(Stress, EveryOperationAtOnceKeepsCountsConsistentAndTheFileSound) {
  // Long error rows in the last: swapping it out frees pages enough for the compaction after it.
  const std::vector<fs::path> stagings = {
      make_staging_file(path("a.db"), {120, 360, 200, 120, "sa"}),
      make_staging_file(path("b.db"), {30, 60, 20, 60, "sb"}),
      make_staging_file(path("c.db"), {50, 100, 50, 80, "sc"}, [](storage::Database& s) {
        s.execute("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2600) "
                  "INSERT INTO index_errors (file_path, error_type, message, line) "
                  "SELECT 'bulk/' || i, 'parse_error', hex(randomblob(3500)), i FROM n");
      })};
  const std::set<std::int64_t> file_counts = {0, 80, 120, 30, 50};  // of every index a reader may see
  storage::Database db(path("live/index.db"));
  db.connect();
  db.create_schema();
  db.connection()->executescript(kStressSchema);
  seed_index(db, {.files = 80, .symbols = 240, .edges = 100, .chunk_bytes = 100, .tag = "live"});
  db.execute("PRAGMA user_version = 100");
  std::mutex mu;  // guards `committed` (transaction id -> rows) and `failures`
  std::map<std::int64_t, std::int64_t> committed;
  std::vector<std::string> failures;
  std::atomic<std::int64_t> operations{0}, swaps{0}, checked{0};
  std::atomic<bool> stop{false};
  std::atomic<int> running{8};
  auto worker = [&](int t) {
    std::mt19937 rng(1000 + t);
    std::int64_t last_generation = 100, last_commits = 0, next_tx = 0;
    // Whether to go on: a failure is noted (with the row read), and twenty end the thread.
    auto check = [&](bool ok, std::string_view what, const storage::Row* row = nullptr) {
      ++checked;
      if (ok) return true;
      std::lock_guard lock(mu);
      failures.push_back(std::to_string(t) + ": " + std::string(what) + (row ? ": " + joined(*row) : ""));
      return failures.size() < 20;
    };
    // Through execute: the owner of the transaction re-enters the lock.
    auto insert = [&](std::int64_t tx, int k, const char* kind) {
      for (int i = 0; i < k; ++i) {
        db.execute("INSERT INTO stress_rows (thread, tx, kind) VALUES (?, ?, ?)", {t, tx, kind});
      }
    };
    auto commit = [&](storage::Cursor& c, std::int64_t tx, std::int64_t k) {
      c.execute("UPDATE stress_counter SET commits = commits + 1, rows = rows + ? WHERE id = 1", {k});
      std::lock_guard lock(mu);
      committed[tx] = k;
    };
    for (bool going = true; going && !stop; ++operations) {
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
          going = check(r[0].as_int() == r[1].as_int(), "files and chunks of two states", &r) &&
                  check(r[2].as_int() == 0, "symbols without their file", &r) &&
                  check(file_counts.count(r[0].as_int()) == 1, "a file count of no known state", &r) &&
                  check(r[3].as_int() >= last_generation, "the generation went back", &r) &&
                  check(r[5].as_int() == r[6].as_int(), "the counter and the rows disagree", &r) &&
                  check(r[7].as_int() == 0, "rows of a rolled-back transaction are visible", &r) &&
                  check(r[4].as_int() >= last_commits, "the commit counter went back", &r);
          last_generation = r[3].as_int();
          last_commits = r[4].as_int();
        } else if (pick < 38) {
          // Not read statements: on the writer connection, under the lock.
          going = check(db.fetchone("PRAGMA page_count").has_value() && db.get_stats().size() == 5, "no stats");
        } else if (pick < 48) {
          db.transaction([&](storage::Cursor& c) {
            insert(tx, k, "plain");
            // Inside the transaction, queries run on the writer, which sees its own rows.
            going = check((*db.fetchone("SELECT COUNT(*) FROM stress_rows WHERE tx = ?", {tx}))[0].as_int() == k,
                          "a transaction does not see its own rows");
            commit(c, tx, k);
          });
        } else if (pick < 60) {
          // Nested scopes join the outer one, which keeps what a failed inner one wrote if it catches.
          db.transaction([&](storage::Cursor& c) {
            insert(tx, k, "outer");
            try {
              db.transaction([&](storage::Cursor&) {
                insert(tx, 2, "inner");
                if (pick >= 54) throw Deliberate{};
              });
            } catch (const Deliberate&) {
            }
            commit(c, tx, k + 2);
          });
        } else if (pick < 66) {
          // Rolled back on purpose, from the outer or from an inner scope.
          try {
            db.transaction([&](storage::Cursor&) {
              insert(tx, k, "doomed");
              db.record_error("doomed/" + std::to_string(tx), "stress_error");
              if (pick % 2 == 0) db.transaction([&](storage::Cursor&) { throw Deliberate{}; });
              throw Deliberate{};
            });
            going = check(false, "a transaction that threw committed");
          } catch (const Deliberate&) {
          }
        } else if (pick < 78) {
          db.record_error("loose/" + std::to_string(tx), pick % 2 ? storage::PARTIAL_PARSE_ERROR : "io_error", "m", k);
        } else if (pick < 82) {
          db.swap_index_from(stagings[std::uniform_int_distribution<std::size_t>(0, stagings.size() - 1)(rng)]);
          ++swaps;
        } else if (pick < 84) {
          db.clear_all();
        } else {
          const auto result = db.compact();
          going = check(!result.skipped, "compaction skipped: " + result.skipped.value_or(""));
        }
      } catch (const std::exception& e) {
        going = check(false, std::string("unexpected exception: ") + e.what());
      } catch (const Deliberate&) {
        going = check(false, "a deliberate failure escaped");
      }
    }
    --running;
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) threads.emplace_back(worker, t);
  // A deadlock cannot end by itself: a minute without an operation ends the process, loudly.
  const auto started = Clock::now();
  auto changed = started;
  for (std::int64_t seen = -1; running > 0; std::this_thread::sleep_for(std::chrono::milliseconds(100))) {
    if (Clock::now() - started > std::chrono::seconds(scaled(3, 60))) stop = true;
    if (operations != seen) {
      seen = operations;
      changed = Clock::now();
    } else if (Clock::now() - changed > std::chrono::minutes(1)) {
      std::fprintf(stderr, "Stress: no operation for a minute after %lld: deadlock\n", static_cast<long long>(seen));
      std::abort();
    }
  }
  for (auto& th : threads) th.join();
  for (const auto& f : failures) ADD_FAILURE() << f;
  EXPECT_GT(swaps, 0) << "no swap ran";
  // Each transaction's rows and the counter are what the threads committed; the generation counts swaps.
  std::int64_t rows = 0;
  for (const auto& [tx, n] : committed) rows += n;
  EXPECT_EQ(joined(*db.fetchone("SELECT commits, rows FROM stress_counter")),
            std::to_string(committed.size()) + "|" + std::to_string(rows));
  std::map<std::int64_t, std::int64_t> stored;
  for (const auto& r : db.fetchall("SELECT tx, COUNT(*) FROM stress_rows GROUP BY tx")) {
    stored[r[0].as_int()] = r[1].as_int();
  }
  EXPECT_EQ(stored, committed);
  EXPECT_EQ(db.index_generation(), 100 + swaps);
  EXPECT_TRUE(db.check_integrity());
  std::printf("stress: %lld operations, %lld swaps, %zu commits\n", static_cast<long long>(operations),
              static_cast<long long>(swaps), committed.size());
  report_figure("stress_operations", operations);
  report_figure("states_checked", checked);
}
}  // namespace
}  // namespace marsk_quorvi::testing
