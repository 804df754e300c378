// A process that swaps whole indexes in a loop is killed with SIGKILL at
// random moments, while it opens the file, inside a swap, around its commit,
// and inside the compaction and checkpoint that follow. After every kill a
// fresh handle must find a sound file holding exactly one whole state, the one
// its generation implies, with no swap lost that had returned; then the loop
// is started again and goes on from that generation.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/peer_process.hpp"
#include "reliability/support/prepared_states.hpp"
#include "reliability/support/report.hpp"
#include "support/test_support.hpp"

namespace marsk_quorvi::testing {
namespace {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::duration<double, std::milli>;

// Where the kill is aimed. Aims, not promises: the test never asserts where a
// kill landed, only what the file looks like afterwards.
enum class Aim { Open, Swap, Commit, Compaction, Anywhere };
constexpr std::array kAims = {Aim::Open, Aim::Swap, Aim::Commit, Aim::Compaction, Aim::Anywhere};

const char* aim_name(Aim aim) {
  switch (aim) {
    case Aim::Open: return "open";
    case Aim::Swap: return "swap";
    case Aim::Commit: return "commit";
    case Aim::Compaction: return "compaction";
    case Aim::Anywhere: return "anywhere";
  }
  return "?";
}

bool starts_with(const std::string& line, const char* prefix) { return line.rfind(prefix, 0) == 0; }

// How long the phases of the loop took so far in this test, learned from the
// loop's own output, so that the kills keep landing inside them on a fast
// machine and on a loaded one. A swap into a large state takes longer, and
// only a swap that frees enough pages is followed by a real compaction.
struct Durations {
  double open = 30;      // start to "Schema version", the last step of the open
  double rewrite = 500;  // "Schema version" to "ready": the page rewrite of an older file
  std::map<bool, double> swap;   // by large target: "swapping" to the "replaced" log line
  std::map<bool, double> after;  // by compacting: "replaced" to "swapped"
  static void learn(std::map<bool, double>& table, bool key, double sample) {
    auto [it, fresh] = table.emplace(key, sample);
    if (!fresh) it->second = 0.7 * it->second + 0.3 * sample;
  }
  static double of(const std::map<bool, double>& table, bool key) {
    const auto it = table.find(key);
    return it == table.end() ? 200 : it->second;
  }
};

bool large_state(std::int64_t generation) {
  const auto k = static_cast<std::int64_t>(state_plan().size());
  return generation > 0 && state_plan()[static_cast<std::size_t>((generation - 1) % k)].large;
}

// Where the loop was when it died, by the last line it wrote.
enum class Stage { Opening, Rewriting, Idle, Swapping, AfterSwap };

// One run of `swap-loop`, read line by line until it is killed.
class SwapLoopRun {
 public:
  // `rewrites`: the file is one of an older build, whose pages the open
  // rewrites.
  SwapLoopRun(const std::filesystem::path& live, const std::filesystem::path& dir, Durations& durations,
              bool rewrites = false)
      : peer_({"swap-loop", live.string(), dir.string()}), durations_(durations), rewrites_(rewrites) {}

  // Reads lines until one satisfies `wanted`; false when the loop stops
  // talking first (it died, or two minutes passed without the line).
  template <class Wanted>
  bool until(Wanted&& wanted) {
    const auto deadline = Clock::now() + std::chrono::seconds(120);
    while (auto line = peer_.read_line(deadline)) {
      take(*line, /*live=*/true);
      if (wanted(*line)) return true;
    }
    return false;
  }

  // Goes on following the loop's output until the moment comes, then kills.
  void kill_after(double millis) {
    const auto at = Clock::now() + std::chrono::duration_cast<Clock::duration>(Millis(millis));
    while (auto line = peer_.read_line(at)) take(*line, /*live=*/true);
    peer_.kill();
    for (const auto& line : peer_.read_rest()) take(line, /*live=*/false);
  }

  std::int64_t target() const { return target_; }
  Stage stage() const { return stage_; }
  std::int64_t committed() const { return committed_; }
  std::int64_t begun() const { return begun_; }
  // The last lines the loop wrote, for a failure message.
  std::string tail() const {
    std::string out;
    for (const auto& line : lines_) out += "  " + line + "\n";
    return out;
  }

 private:
  // Follows the loop's progress: what it has surely committed (a line
  // printed after the commit) and the last swap it began.
  void take(const std::string& line, bool live) {
    const auto now = Clock::now();
    lines_.push_back(line);
    if (lines_.size() > 8) lines_.erase(lines_.begin());
    if (starts_with(line, "Schema version ")) {
      schema_ = now;
      stage_ = Stage::Rewriting;
      if (live) durations_.open = 0.7 * durations_.open + 0.3 * Millis(now - started_).count();
    } else if (starts_with(line, "ready ")) {
      committed_ = begun_ = target_ = std::stoll(line.substr(6));
      stage_ = Stage::Idle;
      if (live && rewrites_ && schema_) durations_.rewrite = 0.7 * durations_.rewrite + 0.3 * Millis(now - *schema_).count();
    } else if (starts_with(line, "swapping ")) {
      target_ = begun_ = std::stoll(line.substr(line.find("-> ") + 3));
      swap_started_ = now;
      stage_ = Stage::Swapping;
    } else if (starts_with(line, "swap_index_from: replaced live index")) {
      committed_ = target_;
      if (live && swap_started_) Durations::learn(durations_.swap, large_state(target_), Millis(now - *swap_started_).count());
      replaced_ = now;
      stage_ = Stage::AfterSwap;
    } else if (starts_with(line, "refused ")) {
      // A swap refused by a lock: nothing was committed, the loop tries again.
      stage_ = Stage::Idle;
      swap_started_.reset();
    } else if (starts_with(line, "swapped ")) {
      committed_ = std::stoll(line.substr(8));
      if (live && replaced_) Durations::learn(durations_.after, swap_compacts(target_), Millis(now - *replaced_).count());
      stage_ = Stage::Idle;
      swap_started_.reset();
      replaced_.reset();
    }
  }

  PeerProcess peer_;
  Durations& durations_;
  const bool rewrites_;
  const Clock::time_point started_ = Clock::now();
  std::optional<Clock::time_point> schema_, swap_started_, replaced_;
  std::int64_t committed_ = -1, begun_ = -1, target_ = -1;
  Stage stage_ = Stage::Opening;
  std::vector<std::string> lines_;
};

class CrashTest : public TempDirTest {};

TEST_F(CrashTest, KilledSwapLoopLeavesOneWholeStateItsGenerationImplies) {
  const std::uint32_t seed = crash_seed();
  SCOPED_TRACE("QUORVI_CRASH_SEED=" + std::to_string(seed));
  std::mt19937 rng(seed);
  auto uniform = [&](double low, double high) { return std::uniform_real_distribution<double>(low, high)(rng); };

  const auto dir = path("states");
  prepare_states(dir);
  const KnownStates states(dir);
  std::vector<std::string> digests;
  for (std::int64_t n = 0; n < states.staging_count(); ++n) digests.push_back(file_digest(staging_file(dir, n)));
  // The directory does not exist yet: the first open makes it.
  const auto live = path("repo/memory/codebase-index/index.db");

  const int kills = scaled(8, 200);
  std::vector<Aim> order(kAims.begin(), kAims.end());
  std::shuffle(order.begin(), order.end(), rng);

  Durations durations;
  std::int64_t generation = 0;  // what the previous check found
  std::set<std::int64_t> generations;
  std::map<std::string, int> aimed, landed;
  int survived = 0;
  for (int kill = 0; kill < kills; ++kill) {
    const Aim aim = order[static_cast<std::size_t>(kill) % order.size()];
    ++aimed[aim_name(aim)];
    SwapLoopRun run(live, dir, durations);
    bool reached = true;
    switch (aim) {
      case Aim::Open:
        run.kill_after(uniform(0, 1.5 * durations.open));
        break;
      case Aim::Swap:
        reached = run.until([](const std::string& l) { return starts_with(l, "swapping "); });
        if (reached) run.kill_after(uniform(0, 0.9 * Durations::of(durations.swap, large_state(run.target()))));
        break;
      case Aim::Commit:
        reached = run.until([](const std::string& l) { return starts_with(l, "swapping "); });
        if (reached) run.kill_after(Durations::of(durations.swap, large_state(run.target())) * uniform(0.8, 1.1));
        break;
      case Aim::Compaction:
        reached = run.until([&](const std::string& l) {
          return starts_with(l, "swap_index_from: replaced live index") && swap_compacts(run.target());
        });
        if (reached) run.kill_after(uniform(0, Durations::of(durations.after, true)));
        break;
      case Aim::Anywhere:
        reached = run.until([](const std::string& l) { return starts_with(l, "ready "); });
        if (reached) run.kill_after(uniform(0, 2000));
        break;
    }
    ASSERT_TRUE(reached) << "kill " << kill << " (" << aim_name(aim) << "): the swap loop stopped talking\n"
                         << run.tail();
    // The file must hold at least what a printed line proves committed, and
    // at most the swap the loop had begun.
    const std::int64_t lowest = std::max(generation, run.committed());
    const std::int64_t highest = std::max(generation, run.begun());
    const LiveCheck found = check_live(live, states, lowest, highest);
    ASSERT_EQ(found.problem, "") << "after kill " << kill << " aimed at " << aim_name(aim) << "; last lines:\n"
                                 << run.tail();
    // Where the kill landed, for the summary only.
    switch (run.stage()) {
      case Stage::Opening:
      case Stage::Rewriting: ++landed["open"]; break;
      case Stage::Idle: ++landed["between swaps"]; break;
      case Stage::Swapping: ++landed[found.generation == run.target() ? "swap, after its commit" : "swap"]; break;
      case Stage::AfterSwap: ++landed[swap_compacts(run.target()) ? "compaction" : "after swap"]; break;
    }
    generation = found.generation;
    generations.insert(generation);
    ++survived;
  }

  for (std::int64_t n = 0; n < states.staging_count(); ++n) {
    EXPECT_EQ(file_digest(staging_file(dir, n)), digests[static_cast<std::size_t>(n)])
        << "staging file " << n << " changed";
  }
  EXPECT_GT(generations.size(), 1u) << "the loop never got a swap through between kills";

  std::ostringstream summary;
  summary << "crash test: seed " << seed << ", " << survived << " kills survived, generations up to " << generation
          << " (" << generations.size() << " distinct), aims:";
  const char* separator = " ";
  for (const auto& [name, count] : aimed) summary << std::exchange(separator, ", ") << name << " " << count;
  summary << "; landed in:";
  separator = " ";
  for (const auto& [name, count] : landed) summary << std::exchange(separator, ", ") << name << " " << count;
  std::cout << summary.str() << std::endl;
  report_figure("crashes_survived", survived);
  report_figure("processes", kills);
  report_figure("generations_seen", static_cast<std::int64_t>(generations.size()));
  report_figure("states_checked", survived);
}

// A file of an older build has its pages rewritten at the first open: the
// journal leaves WAL, VACUUM copies every page through a rollback journal,
// and the journal returns to WAL. A kill anywhere in there must leave the file
// with the state it had, rewritten or not, and the next open finishes the job.
TEST_F(CrashTest, KilledDuringThePageRewriteAtOpenLeavesTheStateWhole) {
  const std::uint32_t seed = crash_seed();
  SCOPED_TRACE("QUORVI_CRASH_SEED=" + std::to_string(seed));
  std::mt19937 rng(seed);

  const auto dir = path("states");
  prepare_states(dir);
  const KnownStates states(dir);
  const auto live = path("index.db");
  // Generation 2 holds staging 1, a large state: the longest rewrite.
  const std::int64_t generation = 2;
  ASSERT_TRUE(large_state(generation));

  const int kills = scaled(4, 40);
  Durations durations;
  std::map<std::string, int> landed;
  for (int kill = 0; kill < kills; ++kill) {
    make_small_page_copy(dir, static_cast<std::int64_t>(states.state_of(generation)) - 1, generation, live);
    SwapLoopRun run(live, dir, durations, /*rewrites=*/true);
    ASSERT_TRUE(run.until([](const std::string& l) { return starts_with(l, "Schema version "); }))
        << "kill " << kill << ": the swap loop stopped talking\n" << run.tail();
    run.kill_after(std::uniform_real_distribution<double>(0, 1.2 * durations.rewrite)(rng));
    ++landed[run.stage() == Stage::Rewriting ? "rewrite" : "after it"];
    const LiveCheck found =
        check_live(live, states, std::max(generation, run.committed()), std::max(generation, run.begun()));
    ASSERT_EQ(found.problem, "") << "after kill " << kill << "; last lines:\n" << run.tail();
  }
  std::cout << "page rewrite: seed " << seed << ", " << kills << " kills survived, " << landed["rewrite"]
            << " inside the rewrite" << std::endl;
  report_figure("crashes_survived", kills);
  report_figure("processes", kills);
  report_figure("states_checked", kills);
}

}  // namespace
}  // namespace marsk_quorvi::testing
