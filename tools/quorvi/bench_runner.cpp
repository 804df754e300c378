#include "quorvi/bench_runner.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/sqlite.hpp"
#include "marsk_quorvi/storage/storage_size.hpp"
#include "quorvi/index_pass.hpp"
#include "quorvi/language.hpp"
#include "quorvi/subprocess.hpp"

namespace marsk_quorvi::cli {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

std::string format_g(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.6g", v);
  return buf;
}

bool is_bench_program(const fs::directory_entry& entry) {
  const auto name = entry.path().filename().string();
  if (!name.ends_with("_bench")) return false;
  std::error_code ec;
  if (!entry.is_regular_file(ec)) return false;
  return ::access(entry.path().c_str(), X_OK) == 0;
}

// Universal Ctags alone over the same tree: what extraction cannot beat.
double ctags_alone(const fs::path& tree) {
  std::vector<std::string> args{"ctags", "--output-format=json", "--fields=+neKS", "--sort=no", "-f", "/dev/null", "-R"};
  const auto own = Ctags::arguments({});
  args.insert(args.end(), own.begin() + 5, own.end());  // the same --languages and --map options
  args.push_back(tree.string());
  const auto start = Clock::now();
  run_process(args, [](std::string_view) {});
  return since(start);
}

// The chunks of `extraction` into a bare FTS5 table with the staging pragmas:
// the tokenising that the staging build cannot avoid.
double fts_alone(const Extraction& extraction, const fs::path& path) {
  remove_database_files(path);
  const auto start = Clock::now();
  auto conn = storage::Connection::open(path.string());
  conn->execute("PRAGMA page_size=" + std::to_string(storage::storage_size::PAGE_SIZE));
  conn->execute("PRAGMA journal_mode=OFF").fetchall();
  conn->execute("PRAGMA synchronous=OFF");
  conn->execute("PRAGMA cache_size=-131072");
  conn->execute("BEGIN");
  conn->executescript(
      "CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line UNINDEXED, end_line UNINDEXED, exact UNINDEXED)");
  auto cursor = conn->cursor();
  std::int64_t file_id = 0;
  for (const auto& f : extraction.files) {
    ++file_id;
    std::size_t pos = 0;
    std::int64_t n = 0, line = 1;
    while (pos < f.text.size()) {
      std::size_t end = pos;
      std::int64_t lines = 0;
      while (end < f.text.size() && lines < CHUNK_LINES) {
        const auto nl = f.text.find('\n', end);
        end = nl == std::string::npos ? f.text.size() : nl + 1;
        ++lines;
      }
      cursor.execute("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, ?, ?, 1)",
                     {(file_id << 20) + n, std::string_view(f.text).substr(pos, end - pos), line, line + lines - 1});
      ++n;
      line += lines;
      pos = end;
    }
  }
  cursor.close();
  conn->execute("COMMIT");
  conn->close();
  const auto seconds = since(start);
  remove_database_files(path);
  return seconds;
}

}  // namespace

BenchRow bench_row(const std::string& source, const std::string& figure, double value, const std::string& unit,
                   const std::string& peer, double peer_value, const std::string& target) {
  std::string ratio = "-";
  if (!peer.empty() && peer_value > 0) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", value / peer_value);
    ratio = buf;
  }
  return BenchRow{source, figure, format_g(value), unit, peer.empty() ? "-" : peer, format_g(peer_value), ratio,
                  target};
}

std::vector<BenchRow> index_benchmark(const fs::path& tree, std::ostream& err) {
  std::string pattern = (fs::temp_directory_path() / "quorvi-bench-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw OSError("cannot make a scratch folder in " + fs::temp_directory_path().string());
  const fs::path scratch = pattern;
  struct Cleanup {
    fs::path dir;
    ~Cleanup() {
      std::error_code ec;
      fs::remove_all(dir, ec);
    }
  } cleanup{scratch};

  const Ctags ctags;
  storage::Database db(scratch / "index.db");
  open_like_the_service(db);
  db.refresh_extractor_stamp(extractor_versions(&ctags));
  const std::string src = "quorvi-db";

  err << "indexing benchmark: walking and extracting " << tree.string() << "\n";
  auto start = Clock::now();
  const auto walked = walk_repository(tree, IgnoreRules::load(tree));
  auto extraction = extract(tree, walked, &ctags, {});
  const double walk_extract = since(start);
  const double ctags_peer = ctags_alone(tree);

  err << "indexing benchmark: staging build of " << extraction.files.size() << " files\n";
  const fs::path staging = scratch / "index.db.staging";
  start = Clock::now();
  build_staging(staging, tree, extraction);
  const double staging_seconds = since(start);
  const double fts_peer = fts_alone(extraction, scratch / "fts-only.db");
  const auto files = extraction.files.size();
  std::int64_t bytes = 0;
  for (const auto& f : extraction.files) bytes += f.size;
  extraction = Extraction{};

  err << "indexing benchmark: swaps\n";
  const fs::path second = scratch / "index.db.staging2";
  fs::copy_file(staging, second);
  start = Clock::now();
  db.swap_index_from(staging);
  const double swap_into_empty = since(start);
  start = Clock::now();
  db.swap_index_from(second);
  const double swap_replacing = since(start);
  db.close();

  const double total = walk_extract + staging_seconds + swap_replacing;
  std::vector<BenchRow> rows;
  rows.push_back(bench_row(src, "index.walk_extract", walk_extract, "s", "ctags -R alone", ctags_peer, "<= 1.5"));
  rows.push_back(bench_row(src, "index.staging_build", staging_seconds, "s", "fts5 chunks alone", fts_peer, "<= 1.5"));
  rows.push_back(bench_row(src, "index.swap", swap_replacing, "s", "swap into empty index", swap_into_empty, "<= 2"));
  rows.push_back(bench_row(src, "index.files", static_cast<double>(files), "files", "", 0, "-"));
  rows.push_back(bench_row(src, "index.throughput", static_cast<double>(bytes) / storage::_MIB / total, "MiB/s", "",
                           0, "-"));
  return rows;
}

bool run_benchmarks(const BenchOptions& options, std::ostream& out, std::ostream& err) {
  std::vector<fs::path> programs;
  for (const auto& entry : fs::directory_iterator(options.bench_dir)) {
    if (is_bench_program(entry)) programs.push_back(entry.path());
  }
  std::sort(programs.begin(), programs.end());
  std::vector<BenchRow> rows;
  bool ok = true;
  for (const auto& program : programs) {
    const auto name = program.filename().string();
    err << "running " << name << "\n";
    std::size_t found = 0;
    ProcessResult r;
    try {
      r = run_process({program.string()}, [&](std::string_view line) {
        if (auto row = parse_bench_line(line, name)) {
          rows.push_back(std::move(*row));
          ++found;
        } else if (options.verbose) {
          err << "  " << line << "\n";
        }
      });
    } catch (const std::exception& e) {
      err << name << ": " << e.what() << "\n";
      ok = false;
      continue;
    }
    if (r.exit_code != 0 || found == 0) {
      ok = false;
      err << name << ": " << (r.signal ? "died of signal " + std::to_string(r.signal)
                                       : "exited with status " + std::to_string(r.exit_code))
          << ", " << found << " result lines\n";
      if (!r.err.empty()) err << r.err;
    }
  }
  if (options.index) {
    auto own = index_benchmark(options.tree, err);
    rows.insert(rows.end(), own.begin(), own.end());
  }
  out << format_table(rows);
  return ok;
}

}  // namespace marsk_quorvi::cli
