// A second process for tests: opens an index file the way another service
// process would and reports what it sees on standard output.
//
//   peer generation DB        prints the index generation
//   peer query DB SQL         prints each row, columns joined by '|'
//   peer exec DB SQL          runs one statement through execute
//   peer hold DB SECONDS      keeps a connection open, prints "ready", sleeps
//   peer snapshot DB SECONDS  holds a read transaction (and its snapshot of the
//                             write-ahead log), prints "ready", sleeps
//   peer lock DB SECONDS      holds the file's write lock (BEGIN IMMEDIATE),
//                             prints "ready", sleeps, then commits
//   peer watch DB SQL UNTIL   runs the query over and over, printing each
//                             result that differs from the one before (columns
//                             joined by '|'), until the result is UNTIL; gives
//                             up with status 3 after 120 seconds
//   peer swap-loop DB DIR [COUNT]
//                             opens DB as a service process does (connect,
//                             create_schema, migrate_schema), prints
//                             "ready G", then swaps the staging files of the
//                             states directory DIR in turn: at generation g
//                             staging number g mod K. Prints "swapping G ->
//                             G+1 from staging-N" before and "swapped G+1"
//                             after each swap, and the module's info log
//                             lines (from the open on); stops after COUNT
//                             swaps, or never
//   peer observe DB DIR SECONDS MIN_GENERATIONS
//                             opens DB the same way and runs the state query
//                             over and over for SECONDS, and on until it has
//                             seen MIN_GENERATIONS generations (status 3 when
//                             that takes 120 seconds more); every answer must
//                             be the state its generation implies, and the
//                             generation must never go down, else it prints
//                             "violation: ..." and exits with status 1. Ends
//                             with "observations N generations M: G1 G2 ..."
//                             (the generations it saw)
#include <chrono>
#include <cstdio>
#include <iostream>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include <spdlog/sinks/stdout_sinks.h>

#include "index_states.hpp"
#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/logging.hpp"

using namespace marsk_quorvi::storage;
namespace mt = marsk_quorvi::testing;

namespace {

// The module's info lines ("swap_index_from: replaced live index ...",
// "Compacted ...") on standard output, each flushed at once: a parent that
// kills this process reads them to learn where the swap had got to.
void log_to_stdout() {
  auto sink = std::make_shared<spdlog::sinks::stdout_sink_mt>();
  sink->set_pattern("%v");
  auto logger = database_logger();
  logger->sinks() = {sink};
  logger->set_level(spdlog::level::info);
  logger->flush_on(spdlog::level::info);
}

int swap_loop(Database& db, const std::filesystem::path& dir, long long count) {
  const std::int64_t k = mt::staging_count(dir);
  if (k == 0) {
    std::cerr << "no staging files in " << dir.string() << "\n";
    return 2;
  }
  // Before the schema steps: "Schema version ..." marks the start of the page
  // rewrite that an older file gets at open.
  log_to_stdout();
  db.create_schema();
  db.migrate_schema();
  std::cout << "ready " << db.index_generation() << std::endl;
  for (long long done = 0; count < 0 || done < count; ++done) {
    const std::int64_t g = db.index_generation();
    const std::int64_t n = mt::staging_for_swap(g, k);
    std::cout << "swapping " << g << " -> " << g + 1 << " from staging-" << n << std::endl;
    try {
      db.swap_index_from(mt::staging_file(dir, n));
    } catch (const OperationalError& e) {
      // Every process that opens the file commits its auto-vacuum mode to the
      // header, and a swap whose transaction has read before that commit is
      // refused at its first write, busy time-out or not. The refused swap
      // left the index as it was; the rebuild tries again, as a caller would.
      if (std::string_view(e.what()) != "database is locked") throw;
      std::cout << "refused " << g + 1 << ": " << e.what() << std::endl;
      continue;
    }
    std::cout << "swapped " << g + 1 << std::endl;
  }
  return 0;
}

int observe(Database& db, const std::filesystem::path& dir, double seconds, std::size_t min_generations) {
  using Clock = std::chrono::steady_clock;
  db.create_schema();
  db.migrate_schema();
  const mt::KnownStates states(dir);
  const auto started = Clock::now();
  const auto enough = started + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  const auto give_up = enough + std::chrono::seconds(120);
  std::set<std::int64_t> seen;
  std::int64_t last = -1;
  long long observations = 0;
  for (;;) {
    // One statement, one snapshot: the generation and the content together.
    const auto row = db.fetchone(mt::kStateQuery);
    if (!row) {
      std::cout << "violation: the state query returned no row" << std::endl;
      return 1;
    }
    const auto seen_now = mt::to_observation(*row);
    ++observations;
    if (seen_now.generation < last || seen_now.generation < 0) {
      std::cout << "violation: generation went from " << last << " to " << seen_now.generation << std::endl;
      return 1;
    }
    if (seen_now.fingerprint != states.expected(seen_now.generation)) {
      const auto found = states.find(seen_now.fingerprint);
      std::cout << "violation: generation " << seen_now.generation << " implies state "
                << states.state_of(seen_now.generation) << " but the index holds "
                << (found ? "state " + std::to_string(*found) : std::string("no known state")) << ": "
                << seen_now.fingerprint << std::endl;
      return 1;
    }
    last = seen_now.generation;
    seen.insert(last);
    const auto now = Clock::now();
    if (now >= enough && seen.size() >= min_generations) break;
    if (now >= give_up) {
      std::cout << "only " << seen.size() << " generations in " << observations << " observations" << std::endl;
      return 3;
    }
    // Leave the shared cores to the writer between looks.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  std::cout << "observations " << observations << " generations " << seen.size() << ":";
  for (const auto g : seen) std::cout << " " << g;
  std::cout << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: peer COMMAND DB [ARGS]\n";
    return 2;
  }
  const std::string command = argv[1];
  try {
    if (command == "lock" && argc >= 4) {
      auto conn = Connection::open(argv[2]);
      conn->execute("BEGIN IMMEDIATE");
      std::cout << "ready" << std::endl;
      std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(argv[3])));
      conn->execute("COMMIT");
      return 0;
    }
    Database db(argv[2]);
    db.connect();
    if (command == "generation") {
      std::cout << db.index_generation() << "\n";
    } else if (command == "query" && argc >= 4) {
      for (const auto& row : db.fetchall(argv[3])) {
        for (std::size_t i = 0; i < row.size(); ++i) std::cout << (i ? "|" : "") << row[i].to_text();
        std::cout << "\n";
      }
    } else if (command == "exec" && argc >= 4) {
      db.execute(argv[3]);
    } else if (command == "hold" && argc >= 4) {
      db.fetchone("SELECT count(*) FROM sqlite_master");
      std::cout << "ready" << std::endl;
      std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(argv[3])));
    } else if (command == "snapshot" && argc >= 4) {
      db.transaction([&](Cursor& cursor) {
        cursor.execute("SELECT count(*) FROM sqlite_master").fetchall();
        std::cout << "ready" << std::endl;
        std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(argv[3])));
      });
    } else if (command == "swap-loop" && argc >= 4) {
      const int status = swap_loop(db, argv[3], argc >= 5 ? std::stoll(argv[4]) : -1);
      if (status != 0) return status;
    } else if (command == "observe" && argc >= 6) {
      const int status = observe(db, argv[3], std::stod(argv[4]), std::stoul(argv[5]));
      if (status != 0) return status;
    } else if (command == "watch" && argc >= 5) {
      const std::string until = argv[4];
      auto result = [&] {
        auto row = db.fetchone(argv[3]);
        std::string line;
        for (std::size_t i = 0; row && i < row->size(); ++i) line += (i ? "|" : "") + (*row)[i].to_text();
        return line;
      };
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
      std::string last;
      for (bool first = true;; first = false) {
        const std::string now = result();
        if (first || now != last) std::cout << now << std::endl;
        last = now;
        if (now == until) break;
        if (std::chrono::steady_clock::now() > deadline) return 3;
      }
    } else {
      std::cerr << "unknown command " << command << "\n";
      return 2;
    }
    db.close();
  } catch (const std::exception& e) {
    std::cerr << e.what() << "\n";
    return 1;
  }
  return 0;
}
