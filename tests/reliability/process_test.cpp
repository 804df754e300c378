// Processes on one index file, as the daemon, the server and the command-line
// tool share it. A process that swaps whole indexes in a loop is killed with
// SIGKILL while it opens the file (and rewrites an older one's pages), inside
// a swap, around its commit, and in the compaction after it: a fresh handle
// must then find a sound file holding exactly the state its generation
// implies, with no swap lost that had returned. Other processes reading the
// generation and the content in one statement must never see a mix of two
// states or a generation going back, also while the swapping one is killed.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "marsk_quorvi/storage/storage_size.hpp"
#include "reliability/support/report.hpp"
#include "support/index_rows.hpp"
#include "support/test_support.hpp"

namespace marsk_quorvi::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using storage::Connection;

// ------------------------------------------------------------------ the states

// The staging files, swapped in turn: small and large alternate, so the swap
// away from a large one frees pages enough for a compaction, and every table's
// count differs between any two. Generation 0 is the empty index, g > 0
// staging number (g - 1) mod 4: a process can tell what the file must hold.
const struct {
  Seed seed;
  bool large;
} kPlan[] = {{{1500, 4500, 6000, 400, "alpha"}, false},
             {{2500, 8000, 12000, 5000, "bravo"}, true},
             {{1700, 5000, 7000, 500, "charlie"}, false},
             {{2700, 9000, 13000, 5000, "delta"}, true}};

bool large_state(std::int64_t g) { return g > 0 && kPlan[(g - 1) % 4].large; }
bool swap_compacts(std::int64_t g) { return large_state(g - 1) && !large_state(g); }

// The generation, then a fingerprint of every index table in which each
// column on its own tells any two states apart. One statement reads one
// snapshot, so a reader that could see part of one swap and part of another,
// or a new generation with old rows, gets a row no state has. The MATCH asks
// the full-text index itself for the state's marker word.
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

// A row of kStateQuery as the peer prints it: "generation|fingerprint".
std::string observed(const storage::Row& row) {
  std::string line;
  for (std::size_t i = 0; i < row.size(); ++i) line += (i ? "|" : "") + row[i].to_text();
  return line;
}

// A states directory: empty.db and staging-0.db ... staging-3.db, each a
// whole index left in rollback-journal mode, so that reading or attaching it
// makes no -wal or -shm beside it; and their fingerprints.
struct States {
  fs::path dir;
  std::vector<std::string> fingerprints;  // [0] the empty index, [1 + n] staging-n

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
      auto conn = Connection::open(file.string());
      conn->execute("PRAGMA journal_mode=DELETE").fetchall();
      const std::string line = observed(*conn->execute(kStateQuery).fetchone());
      fingerprints.push_back(line.substr(line.find('|') + 1));
    }
  }
  fs::path staging(std::int64_t n) const { return dir / ("staging-" + std::to_string(n) + ".db"); }
  std::size_t state_of(std::int64_t g) const { return g <= 0 ? 0 : 1 + (g - 1) % 4; }

  // What is wrong with seeing `line` ("generation|fingerprint"), or nothing.
  std::string mismatch(const std::string& line, std::int64_t& generation) const {
    generation = std::stoll(line);
    const std::string fingerprint = line.substr(line.find('|') + 1);
    if (fingerprint == fingerprints[state_of(generation)]) return "";
    const auto found = std::find(fingerprints.begin(), fingerprints.end(), fingerprint);
    return "generation " + std::to_string(generation) + " implies state " + std::to_string(state_of(generation)) +
           " but the index holds " +
           (found == fingerprints.end() ? "no known state" : "state " + std::to_string(found - fingerprints.begin())) +
           ": " + fingerprint + "\n";
  }

  // Makes `live` a copy of the state of generation `g` as a file of an older
  // build (pages of 4096 bytes, WAL mode), whose pages the next open rewrites.
  void small_page_copy(std::int64_t g, const fs::path& live) const {
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) fs::remove(live.string() + suffix);
    fs::create_directories(live.parent_path());
    fs::copy_file(g == 0 ? dir / "empty.db" : staging((g - 1) % 4), live);
    Connection::open(live.string())
        ->executescript("PRAGMA page_size=4096; VACUUM; PRAGMA user_version=" + std::to_string(g) +
                        "; PRAGMA journal_mode=WAL");
  }

  // Opens `live` as a service process does and requires "ok" from SQLite's
  // integrity check and the full-text index's own, the page size and
  // auto-vacuum mode of a new file, exactly the state its generation implies,
  // and a generation from `lowest` to `highest`: what the dead writer had
  // surely committed, and the last swap it had begun.
  std::string check_live(const fs::path& live, std::int64_t lowest, std::int64_t highest, std::int64_t& g) const {
    std::ostringstream problem;
    try {
      TestDb db(live);
      db.connect();
      db.create_schema();
      db.migrate_schema();
      for (const auto& row : db.fetchall("PRAGMA integrity_check")) {
        if (row[0].to_text() != "ok") problem << "integrity_check: " << row[0].to_text() << "\n";
      }
      try {
        db.execute("INSERT INTO code_chunks(code_chunks) VALUES('integrity-check')");
      } catch (const storage::Error& e) {
        problem << "full-text integrity-check: " << e.what() << "\n";
      }
      const auto page_size = (*db.fetchone("SELECT page_size FROM pragma_page_size"))[0].as_int();
      const auto auto_vacuum = (*db.fetchone("SELECT auto_vacuum FROM pragma_auto_vacuum"))[0].as_int();
      if (page_size != storage::storage_size::PAGE_SIZE || auto_vacuum != storage::detail::kAutoVacuumIncremental) {
        problem << "page size " << page_size << ", auto_vacuum " << auto_vacuum << "\n";
      }
      problem << mismatch(observed(*db.fetchone(kStateQuery)), g);
      if (g < lowest || g > highest) problem << "generation " << g << " outside " << lowest << " .. " << highest << "\n";
    } catch (const std::exception& e) {
      problem << "opening and reading the file failed: " << e.what() << "\n";
    }
    return problem.str();
  }
};

std::string digest(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::to_string(std::hash<std::string>{}(std::string(std::istreambuf_iterator<char>(in), {})));
}

// ------------------------------------------------------------------ the swap loop

// One `swap-loop` peer, followed line by line. It learns how long the phases
// of the loop take on this machine (in `took`, ms), so that kills keep
// landing inside them on a fast machine and on a loaded one.
class SwapLoop {
 public:
  using Wanted = std::function<bool(const std::string&)>;
  SwapLoop(const fs::path& live, const States& states, std::map<std::string, double>& took, bool rewrites = false)
      : peer_({"swap-loop", live.string(), states.dir.string()}), took_(took), rewrites_(rewrites) {}

  // Follows the output until a line is `wanted` (true) or the deadline passes.
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
  std::string tail() const {
    std::string out;
    for (const auto& line : lines_) out += "  " + line + "\n";
    return out;
  }

  std::int64_t committed = -1;  // surely: a line printed after the commit says so
  std::int64_t begun = -1;      // the last swap begun
  bool swapped = false;         // a swap committed since the start

 private:
  void take(const std::string& line) {
    const auto now = Clock::now();
    auto learn = [&](const std::string& phase, Clock::time_point since) {
      const double ms = std::chrono::duration<double, std::milli>(now - since).count();
      took_[phase] = took_.count(phase) ? 0.7 * took_[phase] + 0.3 * ms : ms;
    };
    lines_.push_back(line);
    if (lines_.size() > 8) lines_.erase(lines_.begin());
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
      swapped = true;
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
  std::vector<std::string> lines_;
};

SwapLoop::Wanted starting(const char* prefix) {
  return [prefix](const std::string& line) { return line.starts_with(prefix); };
}

// ------------------------------------------------------------------ crashes

using Crashes = TempDirTest;

TEST_F(Crashes, AKilledSwapLoopLeavesTheWholeStateItsGenerationImplies) {
  const std::uint32_t seed = crash_seed();
  SCOPED_TRACE("QUORVI_CRASH_SEED=" + std::to_string(seed));
  std::mt19937 rng(seed);
  auto uniform = [&](double low, double high) { return std::uniform_real_distribution<double>(low, high)(rng); };
  const States states(path("states"));
  std::vector<std::string> digests;
  for (int n = 0; n < 4; ++n) digests.push_back(digest(states.staging(n)));
  const auto live = path("repo/memory/codebase-index/index.db");  // the first open makes the directory

  // Where the kill is aimed; the test never asserts where it landed, only
  // what the file looks like afterwards.
  const std::string aims[] = {"open", "swap", "commit", "compaction", "anywhere", "rewrite"};
  std::map<std::string, double> took = {{"open", 30}, {"rewrite", 500}};
  std::int64_t generation = 0;  // what the last check found
  std::set<std::int64_t> generations;
  const int kills = scaled(18, 240);
  for (int kill = 0; kill < kills; ++kill) {
    const std::string aim = aims[(kill + seed) % 6];
    if (aim == "rewrite") {
      // An older build's file holding a large state: the longest rewrite.
      while (!large_state(generation)) ++generation;
      states.small_page_copy(generation, live);
    }
    SwapLoop run(live, states, took, aim == "rewrite");
    bool reached = true;
    double ms = 0;
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
      ms = uniform(0, 2000);
    }
    ASSERT_TRUE(reached) << "kill " << kill << " (" << aim << "): the swap loop stopped talking\n" << run.tail();
    run.kill_after(ms);
    std::int64_t found = -1;
    ASSERT_EQ(states.check_live(live, std::max(generation, run.committed), std::max(generation, run.begun), found), "")
        << "after kill " << kill << " aimed at " << aim << "; last lines:\n" << run.tail();
    generations.insert(generation = found);
  }
  for (int n = 0; n < 4; ++n) EXPECT_EQ(digest(states.staging(n)), digests[n]) << "staging file " << n << " changed";
  EXPECT_GT(generations.size(), 1u) << "the loop never got a swap through between kills";
  std::cout << "crashes: seed " << seed << ", " << kills << " kills survived, " << generations.size()
            << " generations" << std::endl;
  report_figure("crashes_survived", kills);
  report_figure("processes", kills);
  report_figure("generations_seen", static_cast<std::int64_t>(generations.size()));
  report_figure("states_checked", kills);
}

// ------------------------------------------------------------------ observers

class Observers : public TempDirTest, public ::testing::WithParamInterface<bool> {};

TEST_P(Observers, InOtherProcessesSeeOnlyWholeStatesAndGenerationsThatOnlyGrow) {
  const bool kill_writer = GetParam();
  const std::uint32_t seed = crash_seed();
  SCOPED_TRACE("QUORVI_CRASH_SEED=" + std::to_string(seed));
  std::mt19937 rng(seed);
  auto soon = [&] { return Clock::now() + std::chrono::milliseconds(std::uniform_int_distribution<int>(0, 1000)(rng)); };
  const States states(path("states"));
  const auto live = path("index.db");
  std::map<std::string, double> took;
  auto writer = std::make_unique<SwapLoop>(live, states, took);
  ASSERT_TRUE(writer->until(starting("ready "))) << "the swap loop did not start";

  // The observers start on a file that has its schema, and stop when told.
  std::vector<std::unique_ptr<PeerProcess>> observers;
  for (int i = 0; i < 2; ++i) {
    observers.push_back(std::make_unique<PeerProcess>(
        std::vector<std::string>{"observe", live.string(), kStateQuery, path("stop").string()}));
  }
  struct Seen {
    std::int64_t last = -1;
    std::set<std::int64_t> generations;
    long long observations = -1;
  };
  std::vector<Seen> seen(observers.size());
  auto follow = [&](std::size_t i, const std::string& line) {
    std::int64_t g = 0;
    if (line.starts_with("observations ")) {
      seen[i].observations = std::stoll(line.substr(13));
      return;
    }
    ASSERT_EQ(states.mismatch(line, g), "") << "observer " << i;
    ASSERT_GE(g, seen[i].last) << "observer " << i << ": the generation went back";
    seen[i].generations.insert(seen[i].last = g);
  };

  int processes = 3, kills = 0;
  std::int64_t committed = 0, begun = 0;
  const auto enough = Clock::now() + std::chrono::seconds(scaled(3, 30));
  const auto give_up = enough + std::chrono::minutes(5);
  for (auto next_kill = soon();;) {
    ASSERT_LT(Clock::now(), give_up) << "the observers saw too few generations";
    writer->until([](auto&) { return false; }, Clock::now() + std::chrono::milliseconds(20));
    ASSERT_FALSE(writer->ended()) << "the swap loop stopped:\n" << writer->tail();
    committed = std::max(committed, writer->committed);
    begun = std::max(begun, writer->begun);
    bool done = Clock::now() >= enough;
    for (std::size_t i = 0; i < observers.size(); ++i) {
      while (auto line = observers[i]->read_line(Clock::now())) ASSERT_NO_FATAL_FAILURE(follow(i, *line));
      done = done && seen[i].generations.size() >= 4;
    }
    if (done) break;
    // A kill comes only after a swap committed since the start, so the
    // file keeps moving however slow the machine is.
    if (kill_writer && writer->swapped && Clock::now() >= next_kill) {
      writer.reset();  // SIGKILL
      writer = std::make_unique<SwapLoop>(live, states, took);
      ++processes;
      ++kills;
      next_kill = soon();
    }
  }
  std::ofstream(path("stop")).put('\n');
  long long observations = 0;
  std::set<std::int64_t> generations;
  for (std::size_t i = 0; i < observers.size(); ++i) {
    for (const auto& line : observers[i]->read_rest()) ASSERT_NO_FATAL_FAILURE(follow(i, line));
    EXPECT_EQ(observers[i]->wait(), 0);
    EXPECT_GT(seen[i].observations, 0) << "observer " << i << " did not finish";
    observations += seen[i].observations;
    generations.insert(seen[i].generations.begin(), seen[i].generations.end());
  }
  writer->kill_after(0);
  std::int64_t found = -1;
  ASSERT_EQ(states.check_live(live, std::max(committed, writer->committed), std::max(begun, writer->begun), found), "");
  generations.insert(found);
  std::cout << processes << " processes, " << observations << " observations, " << generations.size()
            << " generations, writer killed " << kills << " times" << std::endl;
  report_figure("processes", processes);
  report_figure("generations_seen", static_cast<std::int64_t>(generations.size()));
  report_figure("states_checked", observations + 1);
  report_figure("crashes_survived", kills);
}

INSTANTIATE_TEST_SUITE_P(Writers, Observers, ::testing::Bool(), [](const auto& info) {
  return info.param ? "SwapLoopKilledAndRestarted" : "SwapLoopRunsThrough";
});

}  // namespace
}  // namespace marsk_quorvi::testing
