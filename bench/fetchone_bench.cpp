// Point queries through Database::fetchone against the same query on a bare
// prepared statement, and a reader's latency while another thread holds a
// long write transaction, with and without the read pool.
//
//   fetchone_bench [DIR]   (a scratch directory; the system temp dir by default)
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "harness.hpp"
#include "marsk_quorvi/storage/database.hpp"

namespace fs = std::filesystem;
namespace mq = marsk_quorvi::storage;
using marsk_quorvi::bench::Clock;
using marsk_quorvi::bench::quantile;
using marsk_quorvi::bench::report;
using marsk_quorvi::bench::seconds_since;

namespace {

constexpr int kRows = 20000;
constexpr const char* kPointQuery = "SELECT id, path, size FROM files WHERE id = ?";

void fill(mq::Database& db) {
  db.execute("CREATE TABLE IF NOT EXISTS files (id INTEGER PRIMARY KEY, path TEXT NOT NULL, size INTEGER)");
  db.execute("DELETE FROM files");
  std::vector<mq::Params> rows;
  rows.reserve(kRows);
  for (int i = 1; i <= kRows; ++i) {
    rows.push_back({i, "src/module_" + std::to_string(i % 97) + "/file_" + std::to_string(i) + ".cpp", i * 31});
  }
  db.transaction([&](mq::Cursor& c) { c.executemany("INSERT INTO files (id, path, size) VALUES (?, ?, ?)", rows); });
}

std::vector<std::int64_t> random_ids(std::size_t n) {
  std::mt19937_64 rng(42);
  std::uniform_int_distribution<std::int64_t> pick(1, kRows);
  std::vector<std::int64_t> ids(n);
  for (auto& id : ids) id = pick(rng);
  return ids;
}

// What a caller of the raw API does with a row: copy its values out.
struct PlainRow {
  std::int64_t id;
  std::string path;
  std::int64_t size;
};

double raw_seconds(const fs::path& file, const std::vector<std::int64_t>& ids, std::int64_t& checksum) {
  sqlite3* db = nullptr;
  sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v3(db, kPointQuery, -1, SQLITE_PREPARE_PERSISTENT, &st, nullptr);
  const auto start = Clock::now();
  for (auto id : ids) {
    sqlite3_bind_int64(st, 1, id);
    if (sqlite3_step(st) == SQLITE_ROW) {
      PlainRow row{sqlite3_column_int64(st, 0),
                   std::string(reinterpret_cast<const char*>(sqlite3_column_text(st, 1)),
                               static_cast<std::size_t>(sqlite3_column_bytes(st, 1))),
                   sqlite3_column_int64(st, 2)};
      checksum += row.id + row.size + static_cast<std::int64_t>(row.path.size());
    }
    sqlite3_reset(st);
  }
  const double s = seconds_since(start);
  sqlite3_finalize(st);
  sqlite3_close(db);
  return s;
}

double database_seconds(mq::Database& db, const std::vector<std::int64_t>& ids, std::int64_t& checksum) {
  const auto start = Clock::now();
  for (auto id : ids) {
    if (auto row = db.fetchone(kPointQuery, {id})) {
      checksum += (*row)[0].as_int() + (*row)[2].as_int() + static_cast<std::int64_t>((*row)[1].as_text().size());
    }
  }
  return seconds_since(start);
}

// The better of several alternating rounds, so that neither side pays for the
// other's cache misses or a scheduler hiccup.
void point_query_ratio(const fs::path& file) {
  mq::Database db(file);
  db.connect();
  fill(db);
  const auto ids = random_ids(40000);
  std::int64_t raw_sum = 0, db_sum = 0;
  raw_seconds(file, ids, raw_sum);  // warm the page cache
  database_seconds(db, ids, db_sum);
  raw_sum = db_sum = 0;
  double best_raw = 1e9, best_db = 1e9;
  for (int round = 0; round < 25; ++round) {
    best_raw = std::min(best_raw, raw_seconds(file, ids, raw_sum));
    best_db = std::min(best_db, database_seconds(db, ids, db_sum));
  }
  if (raw_sum != db_sum) std::fprintf(stderr, "checksums differ: %lld vs %lld\n", (long long)raw_sum, (long long)db_sum);
  const double n = static_cast<double>(ids.size());
  report("fetchone point query", best_db / n * 1e9, "ns/query", "raw sqlite3 prepared statement", best_raw / n * 1e9,
         "<= 1.1x");
  db.close();
}

// A reader issues one query every `interval` while another thread holds a
// write transaction for `hold`. Latency counts from the moment the query was
// due, so a query stuck behind the writer is charged for all of its wait.
std::vector<double> latencies_during_write(const fs::path& file, std::chrono::milliseconds hold) {
  mq::Database db(file);
  db.connect();
  db.fetchone(kPointQuery, {1});
  std::atomic<bool> in_tx{false};
  std::thread writer([&] {
    db.transaction([&](mq::Cursor& c) {
      c.execute("UPDATE files SET size = size + 1 WHERE id = ?", {7});
      in_tx = true;
      std::this_thread::sleep_for(hold);
    });
  });
  while (!in_tx) std::this_thread::yield();
  const auto interval = std::chrono::milliseconds(10);
  const int samples = static_cast<int>(hold / interval) - 10;
  const auto ids = random_ids(static_cast<std::size_t>(samples));
  std::vector<double> out;
  const auto start = Clock::now();
  for (int i = 0; i < samples; ++i) {
    const auto due = start + i * interval;
    std::this_thread::sleep_until(due);
    db.fetchone(kPointQuery, {ids[static_cast<std::size_t>(i)]});
    out.push_back(std::chrono::duration<double, std::micro>(Clock::now() - due).count());
  }
  writer.join();
  db.close();
  return out;
}

void reader_latency(const fs::path& file) {
  const auto hold = std::chrono::milliseconds(2000);
  ::setenv("QUORVI_DB_READERS", "6", 1);
  auto pooled = latencies_during_write(file, hold);
  ::setenv("QUORVI_DB_READERS", "0", 1);
  auto shared = latencies_during_write(file, hold);
  ::unsetenv("QUORVI_DB_READERS");
  const double pooled_p50 = quantile(pooled, 0.5), pooled_p99 = quantile(pooled, 0.99);
  const double shared_p50 = quantile(shared, 0.5), shared_p99 = quantile(shared, 0.99);
  report("reader p50 during 2 s write, pool on", pooled_p50, "us", "pool off", shared_p50, "pool on << pool off");
  report("reader p99 during 2 s write, pool on", pooled_p99, "us", "pool off", shared_p99, "pool on << pool off");
}

}  // namespace

int main(int argc, char** argv) {
  const fs::path dir = argc > 1 ? fs::path(argv[1]) : fs::temp_directory_path() / ("mq-fetchone-bench-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  const fs::path file = dir / "index.db";
  point_query_ratio(file);
  reader_latency(file);
  std::error_code ec;
  if (argc <= 1) fs::remove_all(dir, ec);
  return 0;
}
