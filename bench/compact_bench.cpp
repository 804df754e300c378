// Stepped compaction under load, next to one unstepped incremental vacuum of
// the same file under the same load.
//
// The file holds 64000 free pages (500 MiB) interleaved with 16000 pages of
// data, so releasing them moves data as well as truncating. While the
// compaction runs, one writer thread inserts a row every millisecond and two
// reader threads query every 0.2 ms; each records its longest statement.
//
//   compact_bench [DIRECTORY]     (default: the system temporary directory)
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "harness.hpp"
#include "marsk_quorvi/storage/database.hpp"
#include "storage/database_impl.hpp"

namespace fs = std::filesystem;
namespace mq = marsk_quorvi::storage;
using marsk_quorvi::bench::Clock;
using marsk_quorvi::bench::quantile;
using marsk_quorvi::bench::report;
using marsk_quorvi::bench::seconds_since;

namespace {

constexpr std::int64_t kPageSize = 8192;
constexpr std::int64_t kChunks = 250;
constexpr std::int64_t kDataPagesPerChunk = 64;
constexpr std::int64_t kFreePagesPerChunk = 256;

using BenchDb = mq::Database;

// Chunks of data and of soon-free pages, alternating through the file.
void make_fragmented_file(const fs::path& file) {
  fs::remove(file);
  auto conn = mq::Connection::open(file.string());
  conn->execute("PRAGMA page_size=8192");
  conn->execute("PRAGMA auto_vacuum=INCREMENTAL");
  conn->execute("PRAGMA journal_mode=OFF");
  conn->execute("PRAGMA synchronous=OFF");
  conn->executescript(
      "CREATE TABLE bulk (b BLOB); CREATE TABLE spare (b BLOB); CREATE TABLE w (n INTEGER);"
      "CREATE TABLE r (n INTEGER); INSERT INTO r VALUES (1), (2), (3);");
  conn->execute("BEGIN");
  const std::int64_t overflow = kPageSize - 4;
  for (std::int64_t i = 0; i < kChunks; ++i) {
    conn->execute("INSERT INTO bulk VALUES (zeroblob(?))", {kDataPagesPerChunk * overflow});
    conn->execute("INSERT INTO spare VALUES (zeroblob(?))", {kFreePagesPerChunk * overflow});
  }
  conn->execute("DELETE FROM spare");
  conn->execute("COMMIT");
  conn->close();
}

struct Load {
  std::atomic<bool> stop{false};
  std::mutex mu;
  double writer_max = 0;
  double reader_max = 0;
  std::int64_t writes = 0;
  std::int64_t reads = 0;
  std::vector<std::thread> threads;

  void start(mq::Database& db, int readers) {
    threads.emplace_back([&] {
      std::int64_t n = 0;
      while (!stop) {
        const auto t0 = Clock::now();
        db.execute("INSERT INTO w VALUES (?)", {n++});
        const double waited = seconds_since(t0);
        {
          std::lock_guard lock(mu);
          writer_max = std::max(writer_max, waited);
          ++writes;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
    for (int i = 0; i < readers; ++i) {
      threads.emplace_back([&] {
        while (!stop) {
          const auto t0 = Clock::now();
          db.fetchone("SELECT sum(n) FROM r");
          const double waited = seconds_since(t0);
          {
            std::lock_guard lock(mu);
            reader_max = std::max(reader_max, waited);
            ++reads;
          }
          std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
      });
    }
    // Let the load settle before the measured work begins.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::lock_guard lock(mu);
    writer_max = reader_max = 0;
  }

  void finish() {
    stop = true;
    for (auto& t : threads) t.join();
  }
};

// What SQLite's traces of the writer connection show: the duration of every
// step statement, of each step's whole lock scope (from the free-list reading
// before the vacuum to the row of the reading after it), of the longest
// checkpoint and of the writer's longest insert.
struct StepTimes {
  std::mutex mu;
  std::vector<double> seconds;
  std::vector<double> scopes;
  double checkpoint = 0;
  double insert = 0;
  Clock::time_point scope_start;
  bool vacuumed = false;

  static int callback(unsigned type, void* ctx, void* p, void* x) {
    auto* self = static_cast<StepTimes*>(ctx);
    const char* raw = sqlite3_sql(static_cast<sqlite3_stmt*>(p));
    if (raw == nullptr) return 0;
    const std::string sql = raw;
    std::lock_guard lock(self->mu);
    if (sql == "PRAGMA freelist_count") {
      if (type == SQLITE_TRACE_STMT && !self->vacuumed) self->scope_start = Clock::now();
      if (type == SQLITE_TRACE_ROW && self->vacuumed) {
        self->scopes.push_back(seconds_since(self->scope_start));
        self->vacuumed = false;
      }
      return 0;
    }
    if (type != SQLITE_TRACE_PROFILE) return 0;
    const double took = static_cast<double>(*static_cast<sqlite3_int64*>(x)) / 1e9;
    if (sql.rfind("PRAGMA incremental_vacuum", 0) == 0) {
      self->seconds.push_back(took);
      self->vacuumed = true;
    }
    if (sql.rfind("PRAGMA wal_checkpoint", 0) == 0) self->checkpoint = std::max(self->checkpoint, took);
    if (sql.rfind("INSERT INTO w", 0) == 0) self->insert = std::max(self->insert, took);
    return 0;
  }
};

struct Run {
  double total = 0;
  double writer_max = 0;
  double reader_max = 0;
  std::int64_t released = 0;
  std::vector<double> steps;
  std::vector<double> scopes;
  double checkpoint = 0;
  double insert = 0;
};

template <class Work>
Run measure(const fs::path& file, Work&& work) {
  BenchDb db(file);
  db.connect();
  const auto pages_before = (*db.fetchone("PRAGMA page_count"))[0].as_int();
  StepTimes steps;
  sqlite3_trace_v2(db.connection()->handle(), SQLITE_TRACE_PROFILE | SQLITE_TRACE_STMT | SQLITE_TRACE_ROW,
                   &StepTimes::callback, &steps);
  Load load;
  load.start(db, 2);
  const auto t0 = Clock::now();
  work(db);
  Run run;
  run.total = seconds_since(t0);
  load.finish();
  sqlite3_trace_v2(db.connection()->handle(), 0, nullptr, nullptr);
  run.writer_max = load.writer_max;
  run.reader_max = load.reader_max;
  run.released = pages_before - (*db.fetchone("PRAGMA page_count"))[0].as_int();
  run.steps = steps.seconds;
  run.scopes = steps.scopes;
  run.checkpoint = steps.checkpoint;
  run.insert = steps.insert;
  std::printf(
      "# %s: %.2f s, %lld pages fewer, %zu vacuum statements, %lld writes, %lld reads, longest checkpoint %.0f ms, "
      "longest insert %.0f ms\n",
      file.filename().c_str(), run.total, static_cast<long long>(run.released), run.steps.size(),
      static_cast<long long>(load.writes), static_cast<long long>(load.reads), run.checkpoint * 1e3, run.insert * 1e3);
  db.close();
  return run;
}

// The longest query of the readers with nothing else going on.
double idle_reader_max(const fs::path& file) {
  mq::Database db(file);
  db.connect();
  Load load;
  load.start(db, 2);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  load.finish();
  db.close();
  return load.reader_max;
}

}  // namespace

int main(int argc, char** argv) {
  const fs::path base = argc > 1 ? fs::path(argv[1]) : fs::temp_directory_path();
  const fs::path dir = base / ("mq-compact-bench-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  const auto template_file = dir / "template.db";
  std::printf("# building %lld free pages among %lld data pages in %s\n",
              static_cast<long long>(kChunks * kFreePagesPerChunk), static_cast<long long>(kChunks * kDataPagesPerChunk),
              dir.c_str());
  make_fragmented_file(template_file);

  const auto stepped_file = dir / "stepped.db";
  fs::copy_file(template_file, stepped_file);
  const double idle = idle_reader_max(stepped_file);
  const Run stepped = measure(stepped_file, [](BenchDb& db) {
    const auto result = db.compact();
    if (result.skipped) std::printf("# compact skipped: %s\n", result.skipped->c_str());
  });
  fs::remove(stepped_file);

  const auto unstepped_file = dir / "unstepped.db";
  fs::copy_file(template_file, unstepped_file);
  const Run unstepped = measure(unstepped_file, [](BenchDb& db) {
    // The same work in one lock scope: every free page at once, then the
    // checkpoint that shortens the file.
    std::lock_guard lock(mq::detail::internals(db)._lock);
    auto conn = db.connection();
    conn->execute("PRAGMA incremental_vacuum").fetchall();
    conn->execute("PRAGMA wal_checkpoint(TRUNCATE)").fetchall();
  });
  fs::remove_all(dir);

  std::vector<double> scopes = stepped.scopes;
  const double step_max = scopes.empty() ? 0 : *std::max_element(scopes.begin(), scopes.end());
  const double step_median = quantile(scopes, 0.5);
  report("compact total time", stepped.total, "s", "unstepped incremental_vacuum", unstepped.total, "<= 1.5");
  report("one step (median)", step_median * 1e3, "ms", "", 0, "-");
  report("writer max wait during compact", stepped.writer_max * 1e3, "ms", "longest step", step_max * 1e3,
         "~1 (one step and its own insert)");
  report("writer max wait during compact", stepped.writer_max * 1e3, "ms", "writer max wait, unstepped",
         unstepped.writer_max * 1e3, "far below 1");
  // Readers take no lock: what slows them is the disk and the write-ahead
  // log both runs share, the same with or without the writer held for long.
  report("reader max query during compact", stepped.reader_max * 1e3, "ms", "reader max query, unstepped",
         unstepped.reader_max * 1e3, "~1 (no lock wait)");
  report("reader max query during compact", stepped.reader_max * 1e3, "ms", "reader max query, idle", idle * 1e3,
         "-");
  return 0;
}
