#include "quorvi/commands.hpp"

#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "marsk_quorvi/errors.hpp"
#include "marsk_quorvi/storage/core_schema.hpp"
#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/logging.hpp"
#include "quorvi/args.hpp"
#include "quorvi/bench_runner.hpp"
#include "quorvi/index_pass.hpp"
#include "quorvi/source_file.hpp"

namespace marsk_quorvi::cli {

namespace fs = std::filesystem;
using storage::Database;

namespace {

// Result codes of SQLite (the primary code, the low byte of an extended one).
constexpr int SQLITE_BUSY_CODE = 5;
constexpr int SQLITE_LOCKED_CODE = 6;
constexpr int SQLITE_CORRUPT_CODE = 11;
constexpr int SQLITE_CANTOPEN_CODE = 14;
constexpr int SQLITE_NOTADB_CODE = 26;

// A file the command needs and cannot have: exit code EXIT_MISSING.
class Missing : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

int code_for_sqlite(const storage::Error& e) {
  switch (e.code() & 0xff) {
    case SQLITE_BUSY_CODE:
    case SQLITE_LOCKED_CODE:
      return EXIT_LOCKED;
    case SQLITE_CORRUPT_CODE:
    case SQLITE_NOTADB_CODE:
      return EXIT_CORRUPT;
    case SQLITE_CANTOPEN_CODE:
      return EXIT_MISSING;
    default:
      return EXIT_FAILED;
  }
}

std::string mib(std::int64_t bytes) { return std::to_string(bytes / 1048576) + " MiB"; }

std::string seconds(double s) {
  std::ostringstream o;
  o << std::fixed << std::setprecision(2) << s << "s";
  return o.str();
}

struct Context {
  const Invocation& inv;
  std::ostream& out;
  std::ostream& err;
  fs::path self;

  fs::path db_path(const fs::path& repo = ".") const {
    if (auto p = inv.value("--db")) return *p;
    return default_index_path(repo);
  }
};

// Opens the index the way the service does. Commands that only read or
// maintain an index refuse a missing file rather than create an empty one.
void open_index(Database& db, bool must_exist) {
  if (must_exist && !fs::exists(db.db_path)) {
    throw Missing("no index at " + db.db_path.string() +
                  " (build one with `quorvi-db index`, or name the file with --db)");
  }
  open_like_the_service(db);
}

void print_rows(std::ostream& out, const storage::RowCounts& rows) {
  std::size_t width = 0;
  for (const auto& [k, v] : rows) width = std::max(width, k.size());
  for (const auto& [k, v] : rows) out << "  " << std::left << std::setw(static_cast<int>(width) + 2) << k << v << "\n";
}

std::string describe(const storage::Compaction& c) {
  if (c.skipped) return "skipped: " + *c.skipped;
  if (c.converted) {
    return "converted to incremental auto-vacuum, " + std::to_string(c.pages_released) + " pages released";
  }
  if (c.pages_released == 0) return "nothing to release";
  return std::to_string(c.pages_released) + " free pages released";
}

void print_compaction(std::ostream& out, const std::vector<std::string>& lines) {
  if (lines.empty()) {
    out << "compaction: nothing to release\n";
    return;
  }
  for (const auto& l : lines) out << "compaction: " << l << "\n";
}

std::string utc_now() {
  const auto t = std::time(nullptr);
  std::tm tm{};
  ::gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

int cmd_index(Context& ctx) {
  const fs::path repo = ctx.inv.operands.empty() ? fs::path(".") : fs::path(ctx.inv.operands[0]);
  std::error_code ec;
  if (!fs::is_directory(repo, ec)) throw Missing("no repository folder at " + repo.string());
  const fs::path abs_repo = fs::canonical(repo);
  ExtractOptions options;
  options.max_file_bytes = ctx.inv.int_value("--max-file-size", DEFAULT_MAX_FILE_BYTES, 1);
  options.jobs = static_cast<unsigned>(ctx.inv.int_value("--jobs", 0, 0, 256));

  Ctags ctags;
  Database db(ctx.inv.value("--db") ? ctx.db_path() : default_index_path(abs_repo));
  open_index(db, false);
  db.refresh_extractor_stamp(extractor_versions(&ctags));
  Progress progress;
  const auto pass = run_index_pass(db, abs_repo, &ctags, options, progress);
  // When the index was last rebuilt, for the layers above.
  db.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)", {storage::LAST_INDEX_KEY, utc_now()});

  auto& out = ctx.out;
  out << "indexed " << abs_repo.string() << " into " << db.db_path.string() << "\n";
  out << "walk + extract: " << pass.files_walked << " files walked, " << pass.files_indexed << " indexed, "
      << pass.file_errors << " with errors, " << pass.tags << " symbols (ctags " << ctags.version() << ") in "
      << seconds(pass.walk_extract_seconds) << "\n";
  out << "staging build:  " << pass.staging.chunks << " chunks in " << seconds(pass.staging_seconds) << "\n";
  out << "swap:           " << seconds(pass.swap_seconds) << "\n";
  out << "rows:\n";
  print_rows(out, pass.rows);
  out << "generation: " << pass.generation << "\n";
  print_compaction(out, pass.compaction);
  db.close();
  return EXIT_OK;
}

int cmd_stats(Context& ctx) {
  Database db(ctx.db_path());
  open_index(db, true);
  const auto stats = db.get_stats();
  const auto generation = db.index_generation();
  const auto page_size = (*db.fetchone("PRAGMA page_size"))[0].as_int();
  const auto pages = (*db.fetchone("PRAGMA page_count"))[0].as_int();
  const auto free = (*db.fetchone("PRAGMA freelist_count"))[0].as_int();
  auto last = db.fetchone("SELECT value FROM schema_info WHERE key = ?", {storage::LAST_INDEX_KEY});
  auto& out = ctx.out;
  out << "index: " << db.db_path.string() << "\n";
  print_rows(out, stats);
  out << "files with errors: " << db.get_error_count() << "\n";
  out << "generation: " << generation << "\n";
  out << "size: " << mib(pages * page_size) << " (" << pages << " pages of " << page_size << " bytes, " << free
      << " free)\n";
  if (last && !(*last)[0].is_null()) out << "last index: " << (*last)[0].to_text() << "\n";
  db.close();
  return EXIT_OK;
}

int cmd_check(Context& ctx) {
  Database db(ctx.db_path());
  open_index(db, true);
  if (db.check_integrity()) {
    ctx.out << "ok\n";
    return EXIT_OK;
  }
  ctx.out << "integrity check failed:\n";
  int shown = 0;
  for (const auto& row : db.fetchall("PRAGMA integrity_check")) {
    if (++shown > 20) break;
    ctx.out << "  " << row[0].to_text() << "\n";
  }
  return EXIT_CHECK_FAILED;
}

int cmd_compact(Context& ctx) {
  Database db(ctx.db_path());
  open_index(db, true);
  const auto result = db.compact();
  ctx.out << "compaction: " << describe(result) << "\n";
  if (result.skipped && result.skipped->starts_with("failed: ")) {
    const auto& why = *result.skipped;
    return why.find("locked") != std::string::npos || why.find("busy") != std::string::npos ? EXIT_LOCKED
                                                                                            : EXIT_FAILED;
  }
  return EXIT_OK;
}

int cmd_generation(Context& ctx) {
  Database db(ctx.db_path());
  open_index(db, true);
  ctx.out << db.index_generation() << "\n";
  return EXIT_OK;
}

int cmd_errors(Context& ctx) {
  const auto limit = ctx.inv.int_value("--limit", -1, 1);
  Database db(ctx.db_path());
  open_index(db, true);
  const auto rows = db.fetchall(
      "SELECT file_path, error_type, line, message FROM index_errors ORDER BY file_path, id LIMIT ?", {limit});
  for (const auto& row : rows) {
    ctx.out << row[0].to_text();
    if (!row[2].is_null()) ctx.out << ":" << row[2].as_int();
    ctx.out << ": " << row[1].to_text();
    if (!row[3].is_null()) ctx.out << ": " << row[3].to_text();
    ctx.out << "\n";
  }
  const auto total = db.get_stats().at("errors");
  ctx.out << db.get_error_count() << " files with errors (" << total << " rows";
  if (static_cast<std::int64_t>(rows.size()) < total) ctx.out << ", " << rows.size() << " shown";
  ctx.out << ")\n";
  return EXIT_OK;
}

int cmd_clear(Context& ctx) {
  Database db(ctx.db_path());
  open_index(db, false);
  const auto before = db.get_stats();
  db.clear_all();
  ctx.out << "cleared " << db.db_path.string() << ":\n";
  print_rows(ctx.out, before);
  return EXIT_OK;
}

int cmd_swap(Context& ctx) {
  const fs::path staging = ctx.inv.operands[0];
  if (!fs::exists(staging)) throw Missing("no staging file at " + staging.string());
  Database db(ctx.db_path());
  open_index(db, false);
  Progress progress;
  progress.show("swapping " + staging.string() + " in", true);
  const auto rows = db.swap_index_from(staging);
  progress.clear();
  ctx.out << "swapped " << staging.string() << " into " << db.db_path.string() << "\nrows:\n";
  print_rows(ctx.out, rows);
  ctx.out << "generation: " << db.index_generation() << "\n";
  return EXIT_OK;
}

// The lines of `text` (a chunk with FTS5 highlight marks \x01...\x02) on which
// the first and the last match fall, counted from 0; none without marks.
std::optional<std::pair<std::int64_t, std::int64_t>> marked_lines(const std::string& text) {
  const auto first = text.find('\x01');
  const auto last = text.rfind('\x02');
  if (first == std::string::npos || last == std::string::npos) return std::nullopt;
  auto lines_before = [&](std::size_t pos) {
    return static_cast<std::int64_t>(std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(pos), '\n'));
  };
  return std::make_pair(lines_before(first), lines_before(last));
}

std::string first_marked_line(const std::string& text) {
  const auto at = text.find('\x01');
  if (at == std::string::npos) return {};
  const auto begin = text.rfind('\n', at);
  const auto end = text.find('\n', at);
  std::string line = text.substr(begin == std::string::npos ? 0 : begin + 1,
                                 (end == std::string::npos ? text.size() : end) - (begin == std::string::npos ? 0 : begin + 1));
  std::erase(line, '\x01');
  std::erase(line, '\x02');
  const auto s = line.find_first_not_of(" \t");
  line = s == std::string::npos ? std::string() : line.substr(s);
  if (line.size() > 120) line = line.substr(0, 117) + "...";
  return line;
}

int cmd_search(Context& ctx) {
  std::string query;
  for (const auto& w : ctx.inv.operands) query += (query.empty() ? "" : " ") + w;
  const auto limit = ctx.inv.int_value("--limit", 20, 1);
  Database db(ctx.db_path());
  open_index(db, true);
  std::vector<storage::Row> hits;
  try {
    // Best first by FTS5's rank (bm25), then the few hits get their paths.
    hits = db.fetchall(
        "SELECT f.path, h.rid, h.start_line, h.end_line, h.rank FROM ("
        "SELECT rowid AS rid, start_line, end_line, rank FROM code_chunks WHERE code_chunks MATCH ? "
        "ORDER BY rank LIMIT ?) AS h JOIN files AS f ON f.id = (h.rid >> " +
            std::to_string(storage::core_schema::CHUNK_ROWID_BITS) + ") ORDER BY h.rank",
        {query, limit});
  } catch (const storage::Error& e) {
    if (code_for_sqlite(e) != EXIT_FAILED) throw;
    ctx.err << "quorvi-db: malformed search query '" << query << "': " << e.what() << "\n"
            << "Words, \"phrases\", prefix*, AND, OR, NOT and NEAR(...) are understood; quote other punctuation.\n";
    return EXIT_BAD_ARGUMENT;
  }
  for (const auto& hit : hits) {
    const auto path = hit[0].to_text();
    auto start = hit[2].as_int();
    auto end = hit[3].as_int();
    std::string snippet;
    auto marked = db.fetchone(
        "SELECT highlight(code_chunks, 0, char(1), char(2)) FROM code_chunks WHERE code_chunks MATCH ? AND rowid = ?",
        {query, hit[1]});
    if (marked) {
      const auto text = (*marked)[0].to_text();
      if (auto lines = marked_lines(text)) {
        const auto chunk_start = start;
        start = chunk_start + lines->first;
        end = chunk_start + lines->second;
      }
      snippet = first_marked_line(text);
    }
    ctx.out << path << ":" << start;
    if (end != start) ctx.out << "-" << end;
    if (!snippet.empty()) ctx.out << "  " << snippet;
    ctx.out << "\n";
  }
  if (hits.empty()) ctx.err << "no hits for '" << query << "'\n";
  return EXIT_OK;
}

int cmd_bench(Context& ctx) {
  BenchOptions options;
  if (auto dir = ctx.inv.value("--bench-dir")) {
    options.bench_dir = *dir;
  } else {
    options.bench_dir = ctx.self.parent_path().parent_path() / "bench";
  }
  options.tree = ctx.inv.value("--tree").value_or("/usr/include");
  options.index = !ctx.inv.flag("--no-index");
  options.verbose = ctx.inv.flag("--verbose");
  if (!fs::is_directory(options.bench_dir)) {
    throw Missing("no benchmark folder at " + options.bench_dir.string() + " (build with -DMARSK_QUORVI_BUILD_BENCH=ON, or name it with --bench-dir)");
  }
  if (options.index && !fs::is_directory(options.tree)) throw Missing("no tree to index at " + options.tree.string());
  return run_benchmarks(options, ctx.out, ctx.err) ? EXIT_OK : EXIT_FAILED;
}

void configure_logging(bool verbose) {
  auto logger = storage::database_logger();
  auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  sink->set_level(verbose ? spdlog::level::debug : spdlog::level::warn);
  sink->set_pattern("%Y-%m-%d %H:%M:%S %l %n: %v");
  logger->sinks() = {sink};
  logger->set_level(verbose ? spdlog::level::debug : spdlog::level::warn);
}

}  // namespace

fs::path default_index_path(const fs::path& repo) { return repo / "memory" / "codebase-index" / "index.db"; }

int run_tool(const std::vector<std::string>& args, std::ostream& out, std::ostream& err, const fs::path& self) {
  std::string command;
  try {
    const auto inv = parse_args(args);
    command = inv.command;
    if (inv.help) {
      out << (inv.command.empty() ? tool_help() : command_help(*find_command(inv.command)));
      return EXIT_OK;
    }
    configure_logging(inv.flag("--verbose"));
    Context ctx{inv, out, err, self};
    using Handler = int (*)(Context&);
    static const std::pair<const char*, Handler> handlers[] = {
        {"index", cmd_index},     {"stats", cmd_stats}, {"check", cmd_check}, {"compact", cmd_compact},
        {"generation", cmd_generation}, {"errors", cmd_errors}, {"clear", cmd_clear}, {"swap", cmd_swap},
        {"search", cmd_search},   {"bench", cmd_bench},
    };
    for (const auto& [name, handler] : handlers) {
      if (inv.command == name) return handler(ctx);
    }
    throw UsageError("unknown command '" + inv.command + "'");
  } catch (const UsageError& e) {
    err << "quorvi-db: " << e.what() << "\n";
    err << "Try 'quorvi-db " << (e.command().empty() ? "" : e.command() + " ") << "--help'.\n";
    return EXIT_BAD_ARGUMENT;
  } catch (const Missing& e) {
    err << "quorvi-db: " << e.what() << "\n";
    return EXIT_MISSING;
  } catch (const FileNotFoundError& e) {
    err << "quorvi-db: " << e.what() << "\n";
    return EXIT_MISSING;
  } catch (const storage::Error& e) {
    const int code = code_for_sqlite(e);
    err << "quorvi-db: " << (command.empty() ? "" : command + ": ") << e.what();
    if (code == EXIT_LOCKED) err << " (another process holds the index; try again when it is done)";
    if (code == EXIT_CORRUPT) err << " (the file is damaged or not an index; `quorvi-db index` rebuilds it)";
    err << "\n";
    return code;
  } catch (const storage::migrations::SchemaMigrationError& e) {
    err << "quorvi-db: " << e.what() << "\n";
    return EXIT_FAILED;
  } catch (const std::exception& e) {
    err << "quorvi-db: " << (command.empty() ? "" : command + ": ") << e.what() << "\n";
    return EXIT_FAILED;
  }
}

}  // namespace marsk_quorvi::cli
