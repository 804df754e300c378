// Opening an existing, current index the way the service does at start
// (connect, create_schema, migrate_schema, refresh_extractor_stamp, close),
// against a bare SQLite open of the same file that reads its schema.
//
//   open_bench [RUNS]
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>
#include <filesystem>
#include <string>
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

const mq::ExtractorVersions VERSIONS{{"c", 3}, {"cpp", 4}, {"go", 2}, {"python", 7}, {"typescript", 5}};

void build_index(const fs::path& p, int files) {
  mq::Database db(p);
  db.connect();
  db.create_schema();
  db.migrate_schema();
  db.refresh_extractor_stamp(VERSIONS);
  const char* languages[] = {"c", "cpp", "go", "python", "typescript"};
  db.transaction([&](mq::Cursor& c) {
    for (int f = 1; f <= files; ++f) {
      c.execute("INSERT INTO files (id, path, language, size) VALUES (?, ?, ?, ?)",
                {f, "src/module" + std::to_string(f), languages[f % 5], 4000});
      c.execute("INSERT INTO symbols (id, file_id, name, fqn, kind) VALUES (?, ?, ?, ?, 'module')",
                {f * 100, f, "m" + std::to_string(f), "m" + std::to_string(f)});
      for (int s = 1; s <= 8; ++s) {
        c.execute("INSERT INTO symbols (id, file_id, name, fqn, kind, parent_id) VALUES (?, ?, ?, ?, 'function', ?)",
                  {f * 100 + s, f, "fn" + std::to_string(s), "m" + std::to_string(f) + ".fn" + std::to_string(s),
                   f * 100});
        if (s > 1) c.execute("INSERT INTO edges (source_id, target_id, kind) VALUES (?, ?, 'calls')", {f * 100 + s, f * 100 + s - 1});
      }
      std::string text;
      for (int line = 0; line < 40; ++line) text += "def fn_" + std::to_string(line) + "(x): return x * " + std::to_string(line) + "\n";
      c.execute("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, 1, 40, 1)",
                {static_cast<std::int64_t>(f) << 20, text});
    }
  });
  db.close();
}

struct OpenTimes {
  double whole;   // connect through refresh_extractor_stamp
  double schema;  // create_schema through refresh_extractor_stamp
};

// The close is not timed: it checkpoints the log, which is the end of a
// process's use, not part of opening.
OpenTimes open_index(const fs::path& p) {
  const auto start = Clock::now();
  mq::Database db(p);
  db.connect();
  const auto connected = Clock::now();
  db.create_schema();
  db.migrate_schema();
  db.refresh_extractor_stamp(VERSIONS);
  const OpenTimes t{seconds_since(start), seconds_since(connected)};
  db.close();
  return t;
}

double bare_open(const fs::path& p) {
  const auto start = Clock::now();
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(p.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr) != SQLITE_OK) {
    std::fprintf(stderr, "open failed\n");
    std::exit(1);
  }
  // Reading the schema is the least any user of the file does after opening.
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, "SELECT count(*) FROM sqlite_master", -1, &st, nullptr);
  sqlite3_step(st);
  sqlite3_finalize(st);
  sqlite3_close(db);
  return seconds_since(start);
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 200;
  const fs::path dir = fs::temp_directory_path() / ("mq-open-bench-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  const fs::path p = dir / "index.db";
  build_index(p, 2000);
  std::printf("index: %lld bytes, %d runs each\n", static_cast<long long>(fs::file_size(p)), runs);

  std::vector<double> whole, schema, bare;
  for (int i = 0; i < 5; ++i) {
    open_index(p);
    bare_open(p);
  }
  // Interleaved, so that both see the same state of the machine.
  for (int i = 0; i < runs; ++i) {
    const auto t = open_index(p);
    whole.push_back(t.whole);
    schema.push_back(t.schema);
    bare.push_back(bare_open(p));
  }
  const double bare_median = quantile(bare, 0.5);
  report("open_existing_index_median", quantile(whole, 0.5) * 1e3, "ms", "sqlite3_open_schema_read", bare_median * 1e3,
         "informational");
  report("open_existing_index_p90", quantile(whole, 0.9) * 1e3, "ms", "sqlite3_open_schema_read",
         quantile(bare, 0.9) * 1e3, "informational");
  // What the schema check, the registry and the stamp add to connect().
  report("schema_migrate_stamp_median", quantile(schema, 0.5) * 1e3, "ms", "sqlite3_open_schema_read",
         bare_median * 1e3, "informational");
  fs::remove_all(dir);
  return 0;
}
