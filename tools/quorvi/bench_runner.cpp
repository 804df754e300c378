#include "quorvi/bench_runner.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <span>

#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/sqlite.hpp"
#include "marsk_quorvi/storage/storage_size.hpp"
#include "quorvi/index_pass.hpp"
#include "quorvi/progress.hpp"
#include "quorvi/search.hpp"
#include "quorvi/language.hpp"
#include "quorvi/subprocess.hpp"

namespace marsk_quorvi::cli {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;


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
// With `all_fields`, ctags' own default fields as well (the source line of
// each tag, its type, file scope), which the index does not read: the run
// that the index once paid for.
double ctags_alone(const fs::path& tree, bool all_fields = false) {
  std::vector<std::string> args{"ctags", "--options=NONE"};
  const auto own = Ctags::arguments({});  // the same fields, kinds, extras, languages and maps
  args.insert(args.end(), own.begin(), own.end());
  if (all_fields) args.push_back("--fields=+Pft");
  args.push_back("-R");
  args.push_back(tree.string());
  const auto start = Clock::now();
  run_process(args, [](std::string_view) {});
  return since(start);
}

// The same rows through the bare SQLite API: one prepared statement per
// table, bound and stepped per row. What the access layer adds on top is the
// staging build's own overhead.
class RawRows : public StagingRows {
 public:
  explicit RawRows(sqlite3* db) : db_(db) {
    prepare(components_, "INSERT INTO components (id, name, root_path) VALUES (?, ?, ?)");
    prepare(files_,
            "INSERT INTO files (id, path, language, content_hash, size, mtime, component_id, stale) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, 0)");
    prepare(symbols_,
            "INSERT INTO symbols (id, file_id, name, fqn, kind, start_line, end_line, parent_id, signature) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)");
    prepare(chunks_, "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, ?, ?, 1)");
    prepare(imports_, "INSERT INTO external_imports (id, file_id, module, name, alias, line) VALUES (?, ?, ?, ?, ?, ?)");
    prepare(edges_, "INSERT INTO edges (id, source_id, target_id, kind, resolution, line) VALUES (?, ?, ?, ?, 'exact', ?)");
    prepare(errors_, "INSERT INTO index_errors (file_path, error_type, message, line) VALUES (?, ?, ?, ?)");
  }
  ~RawRows() override {
    for (auto* s : {components_, files_, symbols_, chunks_, imports_, edges_, errors_}) sqlite3_finalize(s);
  }
  void component(std::int64_t id, const std::string& name) override {
    sqlite3_bind_int64(components_, 1, id);
    text(components_, 2, name);
    text(components_, 3, name);
    run(components_);
  }
  void file(std::int64_t id, const FileRecord& f, const std::string& hash, std::optional<double> mtime,
            std::optional<std::int64_t> component_id) override {
    sqlite3_bind_int64(files_, 1, id);
    text(files_, 2, f.path);
    text(files_, 3, f.language);
    text(files_, 4, hash);
    sqlite3_bind_int64(files_, 5, f.size);
    mtime ? sqlite3_bind_double(files_, 6, *mtime) : sqlite3_bind_null(files_, 6);
    component_id ? sqlite3_bind_int64(files_, 7, *component_id) : sqlite3_bind_null(files_, 7);
    run(files_);
  }
  void symbol(std::int64_t id, std::int64_t file_id, const std::string& name, const std::string& fqn,
              const std::string& kind, std::int64_t start_line, std::int64_t end_line,
              std::optional<std::int64_t> parent_id, const std::optional<std::string>& signature) override {
    sqlite3_bind_int64(symbols_, 1, id);
    sqlite3_bind_int64(symbols_, 2, file_id);
    text(symbols_, 3, name);
    text(symbols_, 4, fqn);
    text(symbols_, 5, kind);
    sqlite3_bind_int64(symbols_, 6, start_line);
    sqlite3_bind_int64(symbols_, 7, end_line);
    parent_id ? sqlite3_bind_int64(symbols_, 8, *parent_id) : sqlite3_bind_null(symbols_, 8);
    signature ? text(symbols_, 9, *signature) : sqlite3_bind_null(symbols_, 9);
    run(symbols_);
  }
  void chunk(std::int64_t rowid, std::string_view t, std::int64_t start_line, std::int64_t end_line) override {
    sqlite3_bind_int64(chunks_, 1, rowid);
    text(chunks_, 2, t);
    sqlite3_bind_int64(chunks_, 3, start_line);
    sqlite3_bind_int64(chunks_, 4, end_line);
    run(chunks_);
  }
  void import(std::int64_t id, std::int64_t file_id, const Import& in) override {
    sqlite3_bind_int64(imports_, 1, id);
    sqlite3_bind_int64(imports_, 2, file_id);
    text(imports_, 3, in.module);
    in.name ? text(imports_, 4, *in.name) : sqlite3_bind_null(imports_, 4);
    in.alias ? text(imports_, 5, *in.alias) : sqlite3_bind_null(imports_, 5);
    sqlite3_bind_int64(imports_, 6, in.line);
    run(imports_);
  }
  void edge(std::int64_t id, std::int64_t source_id, std::int64_t target_id, const char* kind,
            std::int64_t line) override {
    sqlite3_bind_int64(edges_, 1, id);
    sqlite3_bind_int64(edges_, 2, source_id);
    sqlite3_bind_int64(edges_, 3, target_id);
    text(edges_, 4, kind);
    sqlite3_bind_int64(edges_, 5, line);
    run(edges_);
  }
  void error(const FileError& e) override {
    text(errors_, 1, e.path);
    text(errors_, 2, e.error_type);
    text(errors_, 3, e.message);
    e.line ? sqlite3_bind_int64(errors_, 4, *e.line) : sqlite3_bind_null(errors_, 4);
    run(errors_);
  }

 private:
  void prepare(sqlite3_stmt*& s, const char* sql) {
    if (sqlite3_prepare_v2(db_, sql, -1, &s, nullptr) != SQLITE_OK) storage::raise_error(db_, sqlite3_errcode(db_));
  }
  static int text(sqlite3_stmt* s, int i, std::string_view t) {
    return sqlite3_bind_text(s, i, t.data(), static_cast<int>(t.size()), SQLITE_TRANSIENT);
  }
  void run(sqlite3_stmt* s) {
    const int rc = sqlite3_step(s);
    sqlite3_reset(s);
    if (rc != SQLITE_DONE) storage::raise_error(db_, rc);
  }
  sqlite3* db_;
  sqlite3_stmt *components_ = nullptr, *files_ = nullptr, *symbols_ = nullptr, *chunks_ = nullptr,
               *imports_ = nullptr, *edges_ = nullptr, *errors_ = nullptr;
};

double raw_staging(const fs::path& repo, const Extraction& extraction, const fs::path& path) {
  const auto start = Clock::now();
  {
    StagingFile file(path);
    {
      RawRows rows(file.connection().handle());
      generate_staging_rows(repo, extraction, rows);
    }
    file.finish();
  }
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

namespace {

// One `quorvi-db` run in a child process: its wall time, its peak RSS as
// wait4 reports it (the child's own, or a waited-for descendant's if
// larger), its exit status and its standard output.
struct ChildRun {
  double seconds = 0;
  double peak_mib = 0;
  int status = -1;
  std::string out;
};

ChildRun run_child(const std::vector<std::string>& argv, const fs::path& out_file) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  ChildRun run;
  const auto start = Clock::now();
  pid_t pid = 0;
  const int rc = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw OSError("cannot run " + argv[0] + ": " + std::strerror(rc), rc);
  int status = 0;
  rusage usage{};
  while (::wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  run.seconds = since(start);
  run.peak_mib = static_cast<double>(usage.ru_maxrss) / 1024.0;  // KiB on Linux
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  std::ifstream in(out_file);
  run.out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return run;
}

// The seconds the index command printed after `label` ("swap:" ...), 0 when absent.
double printed_seconds(const std::string& out, const std::string& label) {
  const auto at = out.find("\n" + label);
  if (at == std::string::npos) return 0;
  const auto line = out.substr(at + 1, out.find('\n', at + 1) - at - 1);
  const auto in = line.rfind(" in ");
  return std::atof(line.c_str() + (in == std::string::npos ? label.size() : in + 4));
}

// Row counts of every index table, for "the same rows".
std::vector<std::int64_t> table_counts(const fs::path& db) {
  auto conn = storage::Connection::open(db.string());
  std::vector<std::int64_t> counts;
  for (const char* t : {"components", "files", "symbols", "edges", "external_imports", "index_errors", "code_chunks"}) {
    counts.push_back((*conn->execute(std::string("SELECT COUNT(*) FROM ") + t).fetchone())[0].as_int());
  }
  conn->close();
  return counts;
}

}  // namespace

// Identifiers of /usr/include on Debian 12 and the header that defines each:
// where `def` and `search` put that header is the figure.
constexpr std::pair<const char*, const char*> kKnownDefinitions[] = {
    {"memcpy", "string.h"},
    {"strlen", "string.h"},
    {"fopen", "stdio.h"},
    {"printf", "stdio.h"},
    {"malloc", "stdlib.h"},
    {"pthread_create", "pthread.h"},
    {"epoll_wait", "x86_64-linux-gnu/sys/epoll.h"},
    {"deflate", "zlib.h"},
    {"sqlite3_open", "sqlite3.h"},
    {"FILE", "x86_64-linux-gnu/bits/types/FILE.h"},
    {"EOF", "stdio.h"},
    {"errno", "errno.h"},
    {"z_stream", "zlib.h"},
    {"pthread_mutex_t", "x86_64-linux-gnu/bits/pthreadtypes.h"},
    {"timespec", "x86_64-linux-gnu/bits/types/struct_timespec.h"},
    {"uint32_t", "x86_64-linux-gnu/bits/stdint-uintn.h"},
    {"vector", "c++/12/bits/stl_vector.h"},
    {"unique_ptr", "c++/12/bits/unique_ptr.h"},
    {"shared_ptr", "c++/12/bits/shared_ptr.h"},
    {"map", "c++/12/bits/stl_map.h"},
};

// Identifiers of this project's own sources and the file that defines each.
constexpr std::pair<const char*, const char*> kOwnDefinitions[] = {
    {"chunk_rowid", "include/marsk_quorvi/storage/core_schema.hpp"},
    {"content_hash", "tools/quorvi/source_file.cpp"},
    {"create_tables", "src/storage/core_schema.cpp"},
    {"build_staging", "tools/quorvi/staging.cpp"},
    {"_is_read_statement", "src/storage/database_connection.cpp"},
    {"raise_os_error", "src/storage/platform.cpp"},
    {"fts_query", "tools/quorvi/search.cpp"},
    {"walk_repository", "tools/quorvi/walker.cpp"},
    {"Glob", "include/marsk_quorvi/utils/path_filter.hpp"},
    {"terminate_children", "tools/quorvi/subprocess.cpp"},
};

// def and search over the index of `tree`, for the known identifiers whose
// file the tree has (`figure` names them), and, with `latency`, the time of a
// search of one common word.
std::vector<BenchRow> definition_rows(const fs::path& tree, const fs::path& db_path,
                                      std::span<const std::pair<const char*, const char*>> known,
                                      const std::string& figure, bool latency) {
  storage::Database db(db_path, storage::OpenMode::ReadOnly);
  db.connect();
  double probes = 0, def_first = 0, search_top3 = 0, slowest = 0;
  for (const auto& [name, header] : known) {
    if (!fs::exists(tree / header)) continue;
    const auto probe = probe_definition(db, name, header, 20);
    ++probes;
    def_first += probe.def_rank == 1;
    search_top3 += probe.search_rank >= 1 && probe.search_rank <= 3;
    slowest = std::max({slowest, probe.def_seconds, probe.search_seconds});
  }
  const auto timed = [&](std::int64_t limit) {
    double best = 1e300;
    for (int round = 0; round < 3; ++round) {
      const auto start = Clock::now();
      (void)search(db, "const", limit);
      best = std::min(best, since(start));
    }
    return best * 1000;
  };
  const std::string src = "quorvi-db";
  std::vector<BenchRow> rows;
  if (probes > 0) {
    rows.push_back(bench_row(src, figure + ".def.defining_file_first", def_first, "names", "names probed", probes, ">= 1"));
    rows.push_back(
        bench_row(src, figure + ".search.defining_chunk_top3", search_top3, "names", "names probed", probes, ">= 0.9"));
    rows.push_back(bench_row(src, figure + ".slowest_probe", slowest * 1000, "ms", "", 0, "-"));
  }
  if (latency) {
    rows.push_back(bench_row(src, "search.one_word.limit20", timed(20), "ms", "limit", 50, "<= 1"));
    rows.push_back(bench_row(src, "search.one_word.limit1000", timed(1000), "ms", "limit", 500, "<= 1"));
  }
  db.close();
  return rows;
}

std::vector<BenchRow> index_benchmark(const fs::path& tree, const fs::path& quorvi, std::ostream& err) {
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
  const std::string src = "quorvi-db";
  const auto index = [&](const fs::path& what, const fs::path& db) {
    auto run = run_child({quorvi.string(), "index", what.string(), "--db", db.string()}, scratch / "out.txt");
    if (run.status != 0) throw RuntimeError("quorvi-db index " + what.string() + " exited with status " +
                                            std::to_string(run.status));
    return run;
  };

  // The first half of the tree's files, by walk order, copied.
  const auto walked = walk_repository(tree, IgnoreRules::load(tree));
  const fs::path half = scratch / "half";
  std::int64_t bytes = 0;
  std::size_t half_files = 0;
  for (const auto& f : walked.files) {
    bytes += f.size;
    if (half_files >= walked.files.size() / 2 || f.kind != WalkEntry::Kind::regular) continue;
    std::error_code ec;
    fs::create_directories((half / f.path).parent_path(), ec);
    if (fs::copy_file(tree / f.path, half / f.path, ec)) ++half_files;
  }

  err << "indexing benchmark: ctags alone and index over " << tree.string() << ", two rounds\n";
  // Two rounds, each side's better one: a single run of either moves by a
  // third on a shared machine. Each index is a first one, into a new file.
  double ctags_peer = 1e300;
  ChildRun full;
  for (int round = 0; round < 2; ++round) {
    ctags_peer = std::min(ctags_peer, ctags_alone(tree));
    remove_database_files(scratch / "full.db");
    auto run = index(tree, scratch / "full.db");
    if (round == 0 || run.seconds < full.seconds) full = std::move(run);
  }
  const double ctags_all_fields = ctags_alone(tree, true);
  err << "indexing benchmark: half index, re-index\n";
  const auto halved = index(half, scratch / "half.db");
  err << "indexing benchmark: def and search on the index\n";
  auto definitions = definition_rows(tree, scratch / "full.db", kKnownDefinitions, "usr_include", true);
  // This project's own tree, when the tool runs from its build (build/<preset>/tools/quorvi-db).
  const fs::path own = fs::weakly_canonical(quorvi).parent_path().parent_path().parent_path().parent_path();
  if (fs::exists(own / kOwnDefinitions[0].second)) {
    index(own, scratch / "own.db");
    for (auto& r : definition_rows(own, scratch / "own.db", kOwnDefinitions, "own_sources", false)) {
      definitions.push_back(std::move(r));
    }
  }
  const auto before = table_counts(scratch / "full.db");
  const auto again = index(tree, scratch / "full.db");
  const bool same = table_counts(scratch / "full.db") == before &&
                    run_child({quorvi.string(), "check", "--db", (scratch / "full.db").string()}, scratch / "out.txt")
                            .status == 0;
  // One file of the half tree changes: the rest is re-used through a staging build and a swap.
  for (const auto& f : walked.files) {
    if (!fs::exists(half / f.path)) continue;
    std::ofstream(half / f.path, std::ios::app) << "\n";
    break;
  }
  const auto one_changed = index(half, scratch / "half.db");

  err << "indexing benchmark: staging builds of the half tree's rows\n";
  const Ctags ctags;
  auto extraction = extract(half, walk_repository(half, IgnoreRules::load(half)), &ctags, {});
  const fs::path staging = scratch / "staging.db";
  // Two rounds, interleaved, the better of each: the machine's noise is
  // larger than some of the differences measured.
  double seconds[3] = {1e300, 1e300, 1e300}, raw_peer = 1e300;
  for (int round = 0; round < 2; ++round) {
    for (const auto mode : {StagingMode::swap_only, StagingMode::index_file, StagingMode::journaled}) {
      const auto start = Clock::now();
      build_staging(staging, half, extraction, {}, mode);
      auto& best = seconds[static_cast<int>(mode)];
      best = std::min(best, since(start));
    }
    raw_peer = std::min(raw_peer, raw_staging(half, extraction, scratch / "raw-staging.db"));
  }
  const auto [for_swap, index_file, journaled] = seconds;
  extraction = Extraction{};

  std::vector<BenchRow> rows;
  const auto row = [&](const std::string& figure, double value, const std::string& unit, const std::string& peer,
                       double peer_value, const std::string& target) {
    rows.push_back(bench_row(src, figure, value, unit, peer, peer_value, target));
  };
  row("index.wall", full.seconds, "s", "ctags -R alone, same options", ctags_peer, "<= 1.5");
  row("index.wall_vs_default_fields", full.seconds, "s", "ctags -R alone, + default fields", ctags_all_fields, "-");
  row("index.walk_extract_write", printed_seconds(full.out, "walk + extract:"), "s", "", 0, "-");
  row("index.staging_finish", printed_seconds(full.out, "staging build:"), "s", "", 0, "-");
  row("index.swap", printed_seconds(full.out, "swap:"), "s", "", 0, "-");
  row("index.peak_rss", full.peak_mib, "MiB", "limit", 150, "<= 1");
  row("index.peak_rss_full_vs_half", full.peak_mib, "MiB", "index of half the tree", halved.peak_mib, "<= 1.2");
  row("index.half.wall", halved.seconds, "s", "", 0, "-");
  row("reindex.unchanged.wall", again.seconds, "s", "first index", full.seconds, "<= 0.3");
  row("reindex.unchanged.same_rows", same ? 1 : 0, "", "check passes, counts equal", 1, ">= 1");
  row("reindex.one_changed_half.wall", one_changed.seconds, "s", "first index of half", halved.seconds, "-");
  row("staging.half.for_swap", for_swap, "s", "index file, journal + full sync", journaled, "<= 1");
  row("staging.half.for_swap_vs_file", for_swap, "s", "index file, no journal", index_file, "<= 1");
  row("staging.half.index_file", index_file, "s", "same rows, bare sqlite3 API", raw_peer, "<= 1.25");
  row("index.files", static_cast<double>(walked.files.size()), "files", "half", static_cast<double>(half_files), "-");
  row("index.throughput", static_cast<double>(bytes) / 1048576.0 / full.seconds, "MiB/s", "", 0, "-");
  for (auto& r : definitions) rows.push_back(std::move(r));
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
    auto own = index_benchmark(options.tree, options.self, err);
    rows.insert(rows.end(), own.begin(), own.end());
  }
  out << format_table(rows);
  return ok;
}

}  // namespace marsk_quorvi::cli
