// The staged swap of a full index next to the same statements run directly
// through the SQLite C API, and the memory the swap costs the process.
//
//   swap_bench [SCALE] [REPS]
//
// SCALE (also QUORVI_SWAP_BENCH_SCALE, default 1.0) sizes the staging index:
// at 1.0 it holds 100 000 files, 700 000 symbols, 200 000 edges and 50 MB of
// chunk text; 0.05 makes a quick run. REPS (also QUORVI_SWAP_BENCH_REPS,
// default 3) repeats both runs on fresh copies, alternating which goes first,
// and keeps the fastest of each.
//
// The peer runs, on a copy of the same two files, the statements the swap
// runs: attach, one transaction that re-creates code_chunks, empties the six
// tables, copies them with INSERT ... SELECT and raises the generation, then
// detach. Target: the swap within 1.1 times the peer, and less than 64 MiB
// of peak resident memory added while it runs, since no row passes through
// the program.
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "harness.hpp"
#include "marsk_quorvi/storage/database.hpp"
#include "storage/migrations.hpp"

namespace fs = std::filesystem;
namespace mq = marsk_quorvi::storage;
using marsk_quorvi::bench::Clock;
using marsk_quorvi::bench::report;
using marsk_quorvi::bench::seconds_since;

namespace {

const char* const kInsertTables[] = {"components", "files", "symbols", "edges", "external_imports", "index_errors"};

struct Size {
  std::int64_t files, symbols, edges, chunk_bytes;
};

std::int64_t status_kib(const char* field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const std::string key = std::string(field) + ":";
  while (std::getline(in, line)) {
    if (line.rfind(key, 0) == 0) return std::stoll(line.substr(key.size()));
  }
  return -1;
}

bool reset_peak() {
  std::ofstream out("/proc/self/clear_refs");
  out << "5";
  out.flush();
  return static_cast<bool>(out);
}

// An index of `size` made by SQL alone, so that seeding does not dominate.
void seed(const fs::path& path, const Size& size, const std::string& tag) {
  mq::Database db(path);
  db.connect();
  db.create_schema();
  db.transaction([&](mq::Cursor& c) {
    c.execute("INSERT INTO components (id, name) VALUES (1, ?)", {"core-" + tag});
    c.execute(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < ?) "
        "INSERT INTO files (id, path, language, content_hash, size, mtime) "
        "SELECT i, ? || '/pkg' || (i % 100) || '/f' || i || '.py', 'py', hex(randomblob(8)), i, 0 FROM n",
        {size.files, "src-" + tag});
    c.execute(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < ?) "
        "INSERT INTO symbols (id, file_id, name, fqn, kind, start_line, end_line) "
        "SELECT i, 1 + (i % ?), 'sym' || i, 'pkg.mod.sym' || i, 'function', i % 500, i % 500 + 3 FROM n",
        {size.symbols, size.files});
    c.execute(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < ?) "
        "INSERT INTO edges (source_id, target_id, kind) SELECT 1 + (i % ?), 1 + ((i * 7) % ?), 'calls' FROM n",
        {size.edges, size.symbols, size.symbols});
    c.execute("INSERT INTO external_imports (file_id, module) SELECT id, 'os' FROM files WHERE id % 10 = 0");
    c.execute(
        "INSERT INTO index_errors (file_path, error_type, message, line) "
        "SELECT path, 'parse_error', 'unexpected token', 1 FROM files WHERE id % 1000 = 0");
    // Words of varied spelling so the full-text index has real work to do.
    c.execute(
        "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
        "WITH RECURSIVE w(k, s) AS (SELECT 0, '' UNION ALL SELECT k + 1, s || ' w' || (k * 7919 % 5000) "
        "FROM w WHERE length(s) < ?) "
        "SELECT f.id << 20, 'def f' || f.id || '():' || substr((SELECT s FROM w ORDER BY k DESC LIMIT 1), 1 + f.id % 50), "
        "1, 100, 1 FROM files f",
        {size.chunk_bytes + 50});
  });
  db.close();
}

void exec(sqlite3* db, const std::string& sql) {
  char* err = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
    std::string message = err ? err : "error";
    sqlite3_free(err);
    throw std::runtime_error(message + " in " + sql);
  }
}

std::string column_list(sqlite3* db, const char* table) {
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, (std::string("PRAGMA table_info(") + table + ")").c_str(), -1, &st, nullptr);
  std::string joined;
  while (sqlite3_step(st) == SQLITE_ROW) {
    if (!joined.empty()) joined += ", ";
    joined += reinterpret_cast<const char*>(sqlite3_column_text(st, 1));
  }
  sqlite3_finalize(st);
  return joined;
}

// The same statements, straight through the C API.
double run_peer(const fs::path& live, const fs::path& staging) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(live.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr) != SQLITE_OK) {
    throw std::runtime_error("cannot open " + live.string());
  }
  sqlite3_busy_timeout(db, 5000);
  exec(db, "PRAGMA journal_mode=WAL; PRAGMA foreign_keys=ON; PRAGMA synchronous=NORMAL");
  const auto started = Clock::now();
  sqlite3_stmt* attach = nullptr;
  sqlite3_prepare_v2(db, "ATTACH DATABASE ? AS stg", -1, &attach, nullptr);
  sqlite3_bind_text(attach, 1, staging.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_step(attach);
  sqlite3_finalize(attach);
  std::vector<std::pair<const char*, std::string>> cols;
  for (const char* t : kInsertTables) cols.emplace_back(t, column_list(db, t));
  exec(db, "BEGIN");
  exec(db, "DROP TABLE code_chunks");
  exec(db, mq::migrations::CODE_CHUNKS_DDL);
  for (const char* t : {"edges", "external_imports", "symbols", "files", "components", "index_errors"}) {
    exec(db, std::string("DELETE FROM ") + t);
  }
  for (const auto& [t, c] : cols) {
    exec(db, std::string("INSERT INTO ") + t + " (" + c + ") SELECT " + c + " FROM stg." + t);
  }
  exec(db,
       "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
       "SELECT rowid, text, start_line, end_line, exact FROM stg.code_chunks");
  exec(db, "PRAGMA user_version = 1");
  exec(db, "COMMIT");
  exec(db, "DETACH DATABASE stg");
  const double elapsed = seconds_since(started);
  sqlite3_close_v2(db);
  return elapsed;
}

struct Ours {
  double seconds;
  std::int64_t peak_growth_kib;  // -1 when not measured
};

Ours run_ours(const fs::path& live, const fs::path& staging, bool measure_peak) {
  mq::Database db(live);
  db.connect();
  std::int64_t base = -1;
  if (measure_peak && reset_peak()) base = status_kib("VmRSS");
  const auto started = Clock::now();
  db.swap_index_from(staging);
  const double elapsed = seconds_since(started);
  const std::int64_t growth = base >= 0 ? status_kib("VmHWM") - base : -1;
  db.close();
  return {elapsed, growth};
}

// Without clear_refs, the peak is measured in a fresh child process whose
// only work is the swap.
std::int64_t peak_in_child(const char* self, const fs::path& live, const fs::path& staging) {
  int fds[2];
  if (::pipe(fds) != 0) return -1;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(fds[1], 1);
    ::close(fds[0]);
    ::execl(self, self, "--swap-only", live.c_str(), staging.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(fds[1]);
  std::string out;
  char buf[256];
  ssize_t n;
  while ((n = ::read(fds[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<std::size_t>(n));
  ::close(fds[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  return out.empty() ? -1 : std::stoll(out);
}

double env_or(const char* name, const char* arg, double fallback) {
  if (arg) return std::atof(arg);
  if (const char* v = std::getenv(name)) return std::atof(v);
  return fallback;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--swap-only") {
    mq::Database db(argv[2]);
    db.connect();
    const std::int64_t base = status_kib("VmRSS");
    db.swap_index_from(argv[3]);
    std::printf("%lld\n", static_cast<long long>(status_kib("VmHWM") - base));
    db.close();
    return 0;
  }

  const double scale = env_or("QUORVI_SWAP_BENCH_SCALE", argc > 1 ? argv[1] : nullptr, 1.0);
  const int reps = std::max(1, static_cast<int>(env_or("QUORVI_SWAP_BENCH_REPS", argc > 2 ? argv[2] : nullptr, 3)));
  const Size staging_size{static_cast<std::int64_t>(100000 * scale), static_cast<std::int64_t>(700000 * scale),
                          static_cast<std::int64_t>(200000 * scale), 500};
  // The live index being replaced is small, so that the compaction after the
  // swap finds too few free pages to run and both sides do the same work.
  const Size live_size{std::max<std::int64_t>(1, staging_size.files / 100),
                       std::max<std::int64_t>(1, staging_size.symbols / 100),
                       std::max<std::int64_t>(1, staging_size.edges / 100), 500};

  const fs::path dir = fs::temp_directory_path() / ("quorvi-swap-bench-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  std::printf("scale %.3g: %lld files, %lld symbols, %lld edges, ~%lld MB chunk text; %d rep(s) in %s\n", scale,
              static_cast<long long>(staging_size.files), static_cast<long long>(staging_size.symbols),
              static_cast<long long>(staging_size.edges),
              static_cast<long long>(staging_size.files * staging_size.chunk_bytes / 1000000), reps, dir.c_str());
  std::fflush(stdout);

  int rc = 0;
  try {
    const auto seeded = Clock::now();
    seed(dir / "staging.db", staging_size, "new");
    seed(dir / "live-template.db", live_size, "old");
    std::printf("seeded in %.1fs; staging file %lld MiB\n", seconds_since(seeded),
                static_cast<long long>(fs::file_size(dir / "staging.db") / 1048576));

    double best_ours = 1e300, best_peer = 1e300;
    std::int64_t peak = -1;
    for (int rep = 0; rep < reps; ++rep) {
      // Fresh copies for each side: the swap changes the live file.
      for (const char* name : {"peer-live.db", "peer-staging.db", "live.db"}) fs::remove(dir / name);
      fs::copy_file(dir / "live-template.db", dir / "peer-live.db");
      fs::copy_file(dir / "staging.db", dir / "peer-staging.db");
      fs::copy_file(dir / "live-template.db", dir / "live.db");
      // Alternate which side goes first, so that neither always meets the
      // write-back of the other's commit.
      Ours ours{};
      if (rep % 2 == 0) {
        best_peer = std::min(best_peer, run_peer(dir / "peer-live.db", dir / "peer-staging.db"));
        ours = run_ours(dir / "live.db", dir / "staging.db", rep == 0);
      } else {
        ours = run_ours(dir / "live.db", dir / "staging.db", false);
        best_peer = std::min(best_peer, run_peer(dir / "peer-live.db", dir / "peer-staging.db"));
      }
      best_ours = std::min(best_ours, ours.seconds);
      if (rep == 0) peak = ours.peak_growth_kib;
      std::printf("rep %d: swap_index_from %.3fs\n", rep + 1, ours.seconds);
    }
    if (peak < 0) {
      fs::remove(dir / "live.db");
      fs::copy_file(dir / "live-template.db", dir / "live.db");
      peak = peak_in_child(argv[0], dir / "live.db", dir / "staging.db");
    }

    report("swap_index_from", best_ours, "s", "raw INSERT...SELECT transaction", best_peer, "<=1.1x");
    report("swap peak RSS growth", static_cast<double>(peak) / 1024.0, "MiB", "", 0, "<64 MiB");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "swap_bench: %s\n", e.what());
    rc = 1;
  }
  std::error_code ec;
  fs::remove_all(dir, ec);
  return rc;
}
