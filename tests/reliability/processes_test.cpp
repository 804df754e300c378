// Several processes on one index file, as the daemon, the server and the
// command-line tool share it: one process swaps whole indexes in a loop while
// two others keep reading the generation and the content in one statement.
// No reader may ever see a generation without the rows it implies, a mix of
// two swaps, or a generation going backwards; also not while the swapping
// process is killed and started again under their feet.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/peer_process.hpp"
#include "reliability/support/prepared_states.hpp"
#include "reliability/support/report.hpp"
#include "support/test_support.hpp"

namespace marsk_quorvi::testing {
namespace {

using Clock = std::chrono::steady_clock;

bool starts_with(const std::string& line, const char* prefix) { return line.rfind(prefix, 0) == 0; }

// The swap loop's progress, from the lines it printed.
struct Progress {
  std::int64_t committed = 0;  // surely committed: printed after the commit
  std::int64_t begun = 0;      // the last swap begun
  bool swapped_since_start = false;
  void take(const std::string& line) {
    if (starts_with(line, "swapping ")) {
      begun = std::max<std::int64_t>(begun, std::stoll(line.substr(line.find("-> ") + 3)));
    } else if (starts_with(line, "swap_index_from: replaced live index")) {
      committed = std::max(committed, begun);
      swapped_since_start = true;
    } else if (starts_with(line, "swapped ")) {
      committed = std::max<std::int64_t>(committed, std::stoll(line.substr(8)));
    }
  }
};

// An observer's last line: "observations N generations M: G1 G2 ...".
struct ObserverReport {
  long long observations = 0;
  std::set<std::int64_t> generations;
};

std::optional<ObserverReport> parse_report(const std::string& line) {
  std::istringstream in(line);
  std::string word1, word2;
  ObserverReport out;
  std::size_t count = 0;
  if (!(in >> word1 >> out.observations >> word2 >> count) || word1 != "observations") return std::nullopt;
  in.ignore(1);  // ':'
  for (std::int64_t g; in >> g;) out.generations.insert(g);
  if (out.generations.size() != count) return std::nullopt;
  return out;
}

struct ProcessCase {
  const char* name;
  bool kill_writer;  // SIGKILL the swap loop now and then and start it again
};

void PrintTo(const ProcessCase& c, std::ostream* os) { *os << c.name; }

class ProcessesTest : public TempDirTest, public ::testing::WithParamInterface<ProcessCase> {};

TEST_P(ProcessesTest, ObserversInOtherProcessesSeeOnlyWholeStates) {
  const ProcessCase& c = GetParam();
  const std::uint32_t seed = crash_seed();
  SCOPED_TRACE("QUORVI_CRASH_SEED=" + std::to_string(seed));
  std::mt19937 rng(seed);

  const auto dir = path("states");
  prepare_states(dir);
  const KnownStates states(dir);
  const auto live = path("index.db");
  const auto give_up = Clock::now() + std::chrono::minutes(5);
  int processes = 0;
  int writer_kills = 0;
  Progress progress;

  auto start_writer = [&] {
    auto writer = std::make_unique<PeerProcess>(std::vector<std::string>{"swap-loop", live.string(), dir.string()});
    ++processes;
    progress.swapped_since_start = false;
    return writer;
  };
  auto writer = start_writer();
  // The observers start on a file that exists and has its schema.
  std::optional<std::string> ready;
  do {
    ready = writer->read_line(Clock::now() + std::chrono::minutes(2));
  } while (ready && !starts_with(*ready, "ready "));
  ASSERT_TRUE(ready) << "the swap loop did not start";

  const std::string seconds = std::to_string(scaled(3, 30));
  const std::string min_generations = "4";
  std::vector<std::unique_ptr<PeerProcess>> observers;
  for (int i = 0; i < 2; ++i) {
    observers.push_back(std::make_unique<PeerProcess>(
        std::vector<std::string>{"observe", live.string(), dir.string(), seconds, min_generations}));
    ++processes;
  }
  std::vector<std::vector<std::string>> said(observers.size());

  // A kill comes only after the loop has committed a swap since it started,
  // so the file keeps moving however slow the machine is.
  auto next_kill = Clock::now() + std::chrono::milliseconds(std::uniform_int_distribution<int>(0, 1000)(rng));
  auto all_ended = [&] {
    for (const auto& o : observers) {
      if (!o->output_ended()) return false;
    }
    return true;
  };
  while (!all_ended()) {
    ASSERT_LT(Clock::now(), give_up) << "the observers did not finish";
    while (auto line = writer->read_line(Clock::now() + std::chrono::milliseconds(20))) progress.take(*line);
    ASSERT_FALSE(writer->output_ended()) << "the swap loop stopped: status " << writer->wait();
    for (std::size_t i = 0; i < observers.size(); ++i) {
      while (auto line = observers[i]->read_line(Clock::now())) said[i].push_back(*line);
    }
    if (c.kill_writer && progress.swapped_since_start && Clock::now() >= next_kill) {
      writer->kill();
      for (const auto& line : writer->read_rest()) progress.take(line);
      ++writer_kills;
      writer = start_writer();
      next_kill = Clock::now() + std::chrono::milliseconds(std::uniform_int_distribution<int>(0, 1000)(rng));
    }
  }

  std::set<std::int64_t> generations;
  long long observations = 0;
  for (std::size_t i = 0; i < observers.size(); ++i) {
    std::string all;
    for (const auto& line : said[i]) all += "  " + line + "\n";
    ASSERT_EQ(observers[i]->wait(), 0) << "observer " << i << " said:\n" << all;
    ASSERT_FALSE(said[i].empty());
    const auto report = parse_report(said[i].back());
    ASSERT_TRUE(report) << "observer " << i << " said:\n" << all;
    EXPECT_GE(report->generations.size(), 4u) << all;
    generations.insert(report->generations.begin(), report->generations.end());
    observations += report->observations;
  }

  writer->kill();
  for (const auto& line : writer->read_rest()) progress.take(line);
  const LiveCheck found = check_live(live, states, progress.committed, progress.begun);
  ASSERT_EQ(found.problem, "");
  generations.insert(found.generation);

  std::cout << c.name << ": " << processes << " processes, " << observations << " observations, "
            << generations.size() << " generations, writer killed " << writer_kills << " times" << std::endl;
  report_figure("processes", processes);
  report_figure("generations_seen", static_cast<std::int64_t>(generations.size()));
  report_figure("states_checked", observations + 1);
  if (c.kill_writer) report_figure("crashes_survived", writer_kills);
}

INSTANTIATE_TEST_SUITE_P(Writers, ProcessesTest,
                         ::testing::Values(ProcessCase{"SwapLoopRunsThrough", false},
                                           ProcessCase{"SwapLoopKilledAndRestarted", true}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace marsk_quorvi::testing
