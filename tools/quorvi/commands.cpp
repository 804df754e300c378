#include "quorvi/commands.hpp"

#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iomanip>
#include <memory>
#include <sstream>

#include "marsk_quorvi/errors.hpp"
#include "marsk_quorvi/storage/core_schema.hpp"
#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/logging.hpp"
#include "quorvi/bench_runner.hpp"
#include "quorvi/index_pass.hpp"
#include "quorvi/index_run.hpp"
#include "quorvi/search.hpp"
#include "quorvi/source_file.hpp"

namespace marsk_quorvi::cli {

namespace fs = std::filesystem;
using storage::Database;
using storage::OpenMode;

// A running command: its invocation, its streams, and how it shows text
// that came from files.
struct Context {
  const Invocation& inv;
  std::ostream& out;
  std::ostream& err;
  fs::path self;
  bool terminal;

  std::string shown(std::string_view text) const { return terminal ? escape_unprintable(text) : std::string(text); }
  fs::path db_path(const fs::path& repo = ".") const;
  // The command that builds this index anew, as a hint names it, ready to be
  // pasted into a shell.
  std::string index_command() const {
    const auto db = inv.value("--db");
    if (!db) return "`quorvi-db index`";
    std::string quoted = *db;
    if (quoted.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./-+=:,") !=
        std::string::npos) {
      for (std::size_t at = 0; (at = quoted.find('\'', at)) != std::string::npos; at += 4) quoted.replace(at, 1, "'\\''");
      quoted = "'" + quoted + "'";
    }
    return "`quorvi-db index REPO --db " + quoted + "`";
  }
};

namespace {

// Search queries longer than this are refused: ranking costs grow with the
// square of the terms.
constexpr std::size_t kMaxQueryTerms = 64;
constexpr std::size_t kMaxQueryBytes = 4096;

// A file the command needs and cannot have: exit code EXIT_MISSING.
class Missing : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

int code_for(const storage::Error& e) {
  if (e.permission_denied()) return EXIT_PERMISSION;
  if (e.busy()) return EXIT_LOCKED;
  if (e.damaged()) return EXIT_CORRUPT;
  if (e.cannot_open()) return EXIT_MISSING;
  return EXIT_FAILED;
}

bool permission_errno(int e) { return e == EACCES || e == EPERM; }

std::string mib(std::int64_t bytes) { return std::to_string(bytes / 1048576) + " MiB"; }

std::string seconds(double s) {
  std::ostringstream o;
  o << std::fixed << std::setprecision(2) << s << "s";
  return o.str();
}

// 50900 -> "5.9.0": the extractor version is major * 10000 + minor * 100 + patch.
std::string version_text(std::int64_t v) {
  return std::to_string(v / 10000) + "." + std::to_string(v / 100 % 100) + "." + std::to_string(v % 100);
}

std::string utc_now(const char* format) {
  const auto t = std::time(nullptr);
  std::tm tm{};
  ::gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, format, &tm);
  return buf;
}

void require_file(const Context& ctx, const fs::path& path) {
  std::error_code ec;
  const auto status = fs::status(path, ec);
  if (!fs::exists(status)) {
    throw Missing("no index at " + path.string() + " (build one with " + ctx.index_command() +
                  ", or name the file with --db)");
  }
  // A FIFO or a device would block or be read as garbage.
  if (!fs::is_regular_file(status)) throw std::runtime_error("not a regular file: " + path.string());
}

// An index the command only reads: opened read-only, so nothing in the file
// changes, and refused when it is not an index.
std::unique_ptr<Database> open_for_reading(const Context& ctx) {
  const auto path = ctx.db_path();
  require_file(ctx, path);
  auto db = std::make_unique<Database>(path, OpenMode::ReadOnly);
  db->connect();
  return db;
}

// A file of an older build lacks what this build reads; only a command that
// writes upgrades it.
void require_column(Database& db, const Context& ctx, const std::string& table, const std::string& column) {
  if (!db.fetchone("SELECT 1 FROM pragma_table_info(?) WHERE name = ?", {table, column})) {
    throw std::runtime_error("the index at " + db.db_path.string() + " was made by an older build (" + table +
                             " has no column " + column + "); " + ctx.index_command() + " upgrades it");
  }
}

// Moves a damaged index file and its journal files aside, under a name with
// the time, so that nothing of it is lost and a new index can begin.
void set_aside(const fs::path& path, const std::string& why, const Context& ctx) {
  fs::path target = path;
  target += ".damaged-" + utc_now("%Y%m%dT%H%M%SZ");
  std::error_code ec;
  for (int n = 2; fs::exists(fs::symlink_status(target, ec)); ++n) {
    target = path;
    target += ".damaged-" + utc_now("%Y%m%dT%H%M%SZ") + "-" + std::to_string(n);
  }
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    fs::path from = path, to = target;
    from += suffix;
    to += suffix;
    if (fs::exists(fs::symlink_status(from, ec))) fs::rename(from, to);
  }
  ctx.err << "quorvi-db: index: " << path.string() << " is damaged (" << why << "); moved it aside as "
          << target.string() << " and building a new index\n";
}

// Whether a command may write the index at `path`, read-only. It must exist
// unless `create`, and must be an index (or, with `create`, an empty file):
// a file of another kind is never turned into one. With `create`, a damaged
// file is set aside instead.
void probe(const Context& ctx, const fs::path& path, bool create) {
  std::error_code ec;
  if (create && !fs::exists(fs::status(path, ec))) return;
  require_file(ctx, path);
  if (create && fs::file_size(path) == 0) return;
  try {
    Database probe(path, OpenMode::ReadOnly);
    probe.connect();
  } catch (const storage::Error& e) {
    if (!create || !e.damaged()) throw;
    set_aside(path, e.what(), ctx);
  }
}

std::unique_ptr<Database> open_for_writing(const Context& ctx, const fs::path& path, bool create) {
  probe(ctx, path, create);
  auto db = std::make_unique<Database>(path);
  open_like_the_service(*db);
  return db;
}

void print_rows(std::ostream& out, const storage::RowCounts& rows, const std::string& symbols_note = {}) {
  std::size_t width = 0;
  for (const auto& [k, v] : rows) width = std::max(width, k.size());
  for (const auto& [k, v] : rows) {
    out << "  " << std::left << std::setw(static_cast<int>(width) + 2) << k << v;
    if (k == "symbols") out << symbols_note;
    out << "\n";
  }
}

std::string describe(const storage::PageCounts& before, const storage::PageCounts& after) {
  return std::to_string(before.page_count) + " pages before, " + std::to_string(after.page_count) + " after (" +
         std::to_string(after.freelist_count) + " free) of " + std::to_string(after.page_size) + " bytes";
}

std::string describe(const storage::Compaction& c) {
  if (c.skipped) return "skipped: " + *c.skipped;
  if (c.converted) {
    return "converted to incremental auto-vacuum, " + std::to_string(c.pages_released) + " pages released";
  }
  if (c.pages_released == 0) return "nothing to release";
  return std::to_string(c.pages_released) + " free pages released";
}

int cmd_index(Context& ctx) {
  const fs::path repo = ctx.inv.operands.empty() ? fs::path(".") : fs::path(ctx.inv.operands[0]);
  std::error_code ec;
  if (!fs::is_directory(repo, ec)) throw Missing("no repository folder at " + repo.string());
  const fs::path abs_repo = fs::canonical(repo);
  ExtractOptions options;
  options.max_file_bytes = ctx.inv.int_value("--max-file-size", DEFAULT_MAX_FILE_BYTES, 1);
  options.jobs = static_cast<unsigned>(ctx.inv.int_value("--jobs", 0, 0, 256));
  const fs::path path = ctx.db_path(abs_repo);
  Ctags ctags;
  if (path.has_parent_path()) {
    fs::create_directories(path.parent_path(), ec);
    if (ec) raise_os_error(ec.value(), path.parent_path());
  }
  IndexRun run(path, lock_wait());
  probe(ctx, path, true);
  // The live index is opened for writing only once the new one is built.
  Progress progress;
  IndexPass pass;
  build_pass(pass, abs_repo, path, run.staging(), &ctags, options, progress);
  auto db = open_for_writing(ctx, path, true);
  db->refresh_extractor_stamp(extractor_versions(&ctags));
  if (pass.unchanged) {
    pass.generation = db->index_generation();
    pass.before = pass.after = db->page_counts();
  } else {
    try {
      swap_pass(pass, *db, run.staging(), progress);
    } catch (const storage::Error& e) {
      // Damage that opening did not reach: the new index goes into a new file.
      if (!e.damaged()) throw;
      db.reset();
      set_aside(path, e.what(), ctx);
      db = open_for_writing(ctx, path, true);
      db->refresh_extractor_stamp(extractor_versions(&ctags));
      swap_pass(pass, *db, run.staging(), progress);
    }
  }
  // When the index was last rebuilt, for the layers above.
  db->execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
              {storage::LAST_INDEX_KEY, utc_now("%Y-%m-%dT%H:%M:%SZ")});

  auto& out = ctx.out;
  out << "indexed " << ctx.shown(abs_repo.string()) << " into " << ctx.shown(path.string()) << "\n";
  if (run.leftovers_removed()) out << "removed " << run.leftovers_removed() << " staging files of interrupted runs\n";
  out << "walk + extract: " << pass.files_walked << " files walked, " << pass.files_indexed << " indexed, "
      << pass.file_errors << " with errors, " << pass.tags << " symbols (ctags " << version_text(ctags.version())
      << ") in " << seconds(pass.walk_extract_seconds) << "\n";
  out << "re-used:        " << pass.files_reused << " unchanged files from the index\n";
  if (pass.unchanged) {
    out << "staging build:  none, nothing changed\nswap:           none\n";
  } else {
    out << "staging build:  " << pass.staging.chunks << " chunks in " << seconds(pass.staging_seconds) << "\n";
    out << "swap:           " << seconds(pass.swap_seconds) << "\n";
  }
  out << "rows:\n";
  // Each file has an anchor row in `symbols` that is no symbol of its own.
  print_rows(out, pass.rows,
             " (" + std::to_string(pass.staging.symbols) + " symbols, " + std::to_string(pass.staging.files) +
                 " file anchors)");
  out << "generation: " << pass.generation << "\n";
  out << "file: " << describe(pass.before, pass.after) << "\n";
  db->close();
  return EXIT_OK;
}

int cmd_stats(Context& ctx) {
  auto db = open_for_reading(ctx);
  const auto stats = db->get_stats();
  const auto pages = db->page_counts();
  auto last = db->fetchone("SELECT value FROM schema_info WHERE key = ?", {storage::LAST_INDEX_KEY});
  auto& out = ctx.out;
  out << "index: " << ctx.shown(db->db_path.string()) << "\n";
  print_rows(out, stats);
  out << "files with errors: " << db->get_error_count() << "\n";
  out << "generation: " << db->index_generation() << "\n";
  out << "size: " << mib(pages.page_count * pages.page_size) << " (" << pages.page_count << " pages of "
      << pages.page_size << " bytes, " << pages.freelist_count << " free)\n";
  if (last && !(*last)[0].is_null()) out << "last index: " << (*last)[0].to_text() << "\n";
  return EXIT_OK;
}

int cmd_check(Context& ctx) {
  auto db = open_for_reading(ctx);
  if (db->check_integrity()) {
    ctx.out << "ok\n";
    return EXIT_OK;
  }
  ctx.out << "integrity check failed:\n";
  int shown = 0;
  for (const auto& row : db->fetchall("PRAGMA integrity_check")) {
    if (++shown > 20) break;
    ctx.out << "  " << ctx.shown(row[0].to_text()) << "\n";
  }
  return EXIT_CHECK_FAILED;
}

int cmd_compact(Context& ctx) {
  auto db = open_for_writing(ctx, ctx.db_path(), false);
  const auto before = db->page_counts();
  const auto result = db->compact();
  ctx.out << "compaction: " << describe(result) << "\nfile: " << describe(before, db->page_counts()) << "\n";
  if (result.skipped && result.skipped->starts_with("failed: ")) {
    const auto& why = *result.skipped;
    return why.find("locked") != std::string::npos || why.find("busy") != std::string::npos ? EXIT_LOCKED
                                                                                            : EXIT_FAILED;
  }
  return EXIT_OK;
}

int cmd_generation(Context& ctx) {
  ctx.out << open_for_reading(ctx)->index_generation() << "\n";
  return EXIT_OK;
}

int cmd_errors(Context& ctx) {
  const auto limit = ctx.inv.int_value("--limit", -1, 1);
  auto db = open_for_reading(ctx);
  require_column(*db, ctx, "index_errors", "line");
  const auto rows = db->fetchall(
      "SELECT file_path, error_type, line, message FROM index_errors ORDER BY file_path, id LIMIT ?", {limit});
  for (const auto& row : rows) {
    ctx.out << ctx.shown(row[0].to_text());
    if (!row[2].is_null()) ctx.out << ":" << row[2].as_int();
    ctx.out << ": " << ctx.shown(row[1].to_text());
    if (!row[3].is_null()) ctx.out << ": " << ctx.shown(row[3].to_text());
    ctx.out << "\n";
  }
  const auto total = db->get_stats().at("errors");
  ctx.out << db->get_error_count() << " files with errors (" << total << " rows";
  if (static_cast<std::int64_t>(rows.size()) < total) ctx.out << ", " << rows.size() << " shown";
  ctx.out << ")\n";
  return EXIT_OK;
}

int cmd_clear(Context& ctx) {
  auto db = open_for_writing(ctx, ctx.db_path(), false);
  const auto before = db->get_stats();
  db->clear_all();
  ctx.out << "cleared " << ctx.shown(db->db_path.string()) << ":\n";
  print_rows(ctx.out, before);
  return EXIT_OK;
}

int cmd_swap(Context& ctx) {
  const fs::path staging = ctx.inv.operands[0];
  if (!fs::exists(staging)) throw Missing("no staging file at " + staging.string());
  auto db = open_for_writing(ctx, ctx.db_path(), false);
  Progress progress;
  progress.show("swapping " + staging.string() + " in", true);
  const auto rows = db->swap_index_from(staging);
  progress.clear();
  ctx.out << "swapped " << ctx.shown(staging.string()) << " into " << ctx.shown(db->db_path.string()) << "\nrows:\n";
  print_rows(ctx.out, rows);
  ctx.out << "generation: " << db->index_generation() << "\n";
  return EXIT_OK;
}

// The operands as one query, refused past the limits that keep its ranking cheap.
std::string query_of(Context& ctx, const char* command) {
  std::string query;
  for (const auto& w : ctx.inv.operands) query += (query.empty() ? "" : " ") + w;
  const std::size_t terms = fts_query(query).terms;
  if (query.size() > kMaxQueryBytes || terms > kMaxQueryTerms) {
    throw UsageError("search query too long: " + std::to_string(terms) + " terms, " + std::to_string(query.size()) +
                         " bytes; at most " + std::to_string(kMaxQueryTerms) + " terms and " +
                         std::to_string(kMaxQueryBytes) + " bytes",
                     command);
  }
  return query;
}

int cmd_search(Context& ctx) {
  const std::string query = query_of(ctx, "search");
  const auto limit = ctx.inv.int_value("--limit", 20, 1);
  auto db = open_for_reading(ctx);
  require_column(*db, ctx, "code_chunks", "exact");
  std::vector<Hit> hits;
  try {
    hits = search(*db, query, limit);
  } catch (const QueryError& e) {
    ctx.err << "quorvi-db: malformed search query '" << query << "': " << e.what() << "\n"
            << "Words, \"phrases\", prefix*, AND, OR, NOT and NEAR(...) keep their meaning; other code is searched as "
               "typed.\n";
    return EXIT_BAD_ARGUMENT;
  }
  for (const auto& hit : hits) ctx.out << ctx.shown(format_hit(hit)) << "\n";
  if (hits.empty()) ctx.err << "no hits for '" << query << "'\n";
  return EXIT_OK;
}

int cmd_def(Context& ctx) {
  const std::string name = ctx.inv.operands.front();
  const auto limit = ctx.inv.int_value("--limit", 20, 1);
  auto db = open_for_reading(ctx);
  const auto found = find_definitions(*db, name, limit);
  for (const auto& d : found) ctx.out << ctx.shown(format_definition(d)) << "\n";
  if (found.empty()) ctx.err << "no definition of '" << name << "'\n";
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
  options.self = ctx.self;
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

fs::path Context::db_path(const fs::path& repo) const {
  if (auto p = inv.value("--db")) return *p;
  // The repository decides what memory/ is. Through a symbolic link on the
  // way, the index would be written elsewhere (another folder, another
  // program's database), so the default path is refused; --db is followed.
  const fs::path db = default_index_path(repo);
  std::vector<fs::path> steps{repo / "memory", repo / "memory" / "codebase-index", db};
  for (const char* suffix : {"-wal", "-shm", "-journal", ".lock"}) steps.push_back(fs::path(db.native() + suffix));
  for (const auto& p : steps) {
    std::error_code ec;
    if (fs::is_symlink(fs::symlink_status(p, ec))) {
      throw std::runtime_error(p.string() + " is a symbolic link (to " + fs::read_symlink(p, ec).string() +
                               "): the default index must lie inside the repository; remove the link, or name "
                               "the index file with --db to use it anyway");
    }
  }
  return db;
}

fs::path default_index_path(const fs::path& repo) { return repo / "memory" / "codebase-index" / "index.db"; }

std::string escape_unprintable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = byte(i);
    std::size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    bool ok = len > 0 && i + len <= text.size();
    for (std::size_t k = 1; ok && k < len; ++k) ok = (byte(i + k) & 0xC0) == 0x80;
    const bool c1 = ok && len == 2 && c == 0xC2 && byte(i + 1) < 0xA0;
    if (ok && !c1 && !(len == 1 && ((c < 0x20 && c != '\t') || c == 0x7F))) {
      out.append(text.substr(i, len));
      i += len;
      continue;
    }
    for (std::size_t k = 0; k < (c1 ? 2 : 1); ++k, ++i) {
      char buf[5];
      std::snprintf(buf, sizeof buf, "\\x%02x", byte(i));
      out += buf;
    }
  }
  return out;
}

const std::vector<CommandSpec>& command_specs() {
  static const std::vector<CommandSpec> specs{
      {"index", "[REPO]", 0, 1, "index a repository and swap the new index in",
       "Walks REPO (default: the current directory), leaving out .git, the memory/\n"
       "folder, build output and what the top-level .gitignore excludes; builds a\n"
       "complete staging index next to the index file (files, components from the\n"
       "top-level folders, symbols from Universal Ctags, the text of every file for\n"
       "search, an error row for each file that cannot be read, is binary or is too\n"
       "large); swaps it in atomically and removes it. Prints the row counts, the new\n"
       "generation and the file's pages before and after.\n"
       "Creates the index file and its folders when missing. One run at a time per\n"
       "index: a second waits up to 5 s for the lock file INDEX.lock, then gives up.\n"
       "A damaged index is moved aside as INDEX.damaged-<UTC time> and a new one is\n"
       "built; a database that is not an index is refused. Fails, changing nothing,\n"
       "when the repository's root cannot be listed.",
       {{"--max-file-size", "BYTES", "files larger than this get an error row instead (default 1048576)"},
        {"--jobs", "N", "extraction threads (default: one per core)"}},
       Access::writes, cmd_index},
      {"stats", "", 0, 0, "counts of files, symbols, edges, components and errors",
       "Prints the counts of the index, its generation and the size of its file.", {}, Access::reads, cmd_stats},
      {"check", "", 0, 0, "run SQLite's integrity check (exit 1 when it fails)",
       "Runs the integrity check on the index file; exit status 1 when it fails.", {}, Access::reads, cmd_check},
      {"generation", "", 0, 0, "print the index generation",
       "Prints the index generation: it goes up by one with every swap.", {}, Access::reads, cmd_generation},
      {"errors", "", 0, 0, "list the files that could not be indexed",
       "Lists the index_errors rows (path, kind, line, message) and the number of\n"
       "files that have one.",
       {{"--limit", "N", "list at most N rows (default: all)"}}, Access::reads, cmd_errors},
      {"search", "TEXT...", 1, static_cast<std::size_t>(-1), "full-text search over the indexed text",
       "Searches the text of the indexed files (FTS5 query syntax: words, \"phrases\",\n"
       "prefix*, AND/OR/NOT, NEAR(...); any other code, such as a::b or foo(, is\n"
       "searched as typed); prints the path and the line range of each hit. A chunk\n"
       "that defines a name the query names comes first, in the order `def` gives\n"
       "the definitions, then the best by bm25.\n"
       "Several operands are joined with blanks; at most 64 terms and 4 KiB.",
       {{"--limit", "N", "print at most N hits (default 20)"}}, Access::reads, cmd_search},
      {"def", "NAME", 1, 1, "list the definitions of a symbol",
       "Lists where NAME is defined, best first: symbols of exactly that name, then\n"
       "those whose qualified name is NAME or ends in ::NAME or .NAME, then, for\n"
       "NAME*, every name with that prefix. Types first, then what more files of\n"
       "the repository include, directly or not (a definition in a file that\n"
       "includes the declaration counts as the declaration); definitions before\n"
       "declarations and macros. Each line: kind, path:line, scope, signature.",
       {{"--limit", "N", "print at most N definitions (default 20)"}}, Access::reads, cmd_def},
      {"compact", "", 0, 0, "give free pages back to the file system",
       "Releases the free pages of an existing index file in short steps and prints\n"
       "what was done, or why nothing was.",
       {}, Access::writes, cmd_compact},
      {"clear", "", 0, 0, "empty the index",
       "Deletes every row of the index tables of an existing index in one transaction.", {}, Access::writes,
       cmd_clear},
      {"swap", "STAGING", 1, 1, "replace the index with a staging index file",
       "Replaces the live index (which must exist) with the contents of the staging\n"
       "index file STAGING in one transaction (the generation goes up by one), then\n"
       "compacts. The staging file is left as it is.",
       {}, Access::writes, cmd_swap},
      {"bench", "", 0, 0, "run the benchmarks and print one table",
       "Runs every *_bench program of the build's bench/ folder and an indexing\n"
       "benchmark of its own in a scratch folder (index against ctags alone, peak\n"
       "memory against half the tree, re-index of an unchanged tree, the staging\n"
       "build's settings), and prints one table: each figure, its peer measured\n"
       "in the same run, the ratio and the target.",
       {{"--bench-dir", "DIR", "where the *_bench programs are (default: bench/ of this build)"},
        {"--tree", "PATH", "the tree the indexing benchmark indexes (default /usr/include)"},
        {"--no-index", "", "leave out the indexing benchmark"}},
       Access::none, cmd_bench},
  };
  return specs;
}

int run_tool(const std::vector<std::string>& args, std::ostream& out, std::ostream& err, const fs::path& self,
             bool terminal) {
  std::string command;
  std::string rebuild = "`quorvi-db index`";
  try {
    const auto inv = parse_args(command_specs(), args);
    if (!inv.help.empty()) {
      out << inv.help;
      return EXIT_OK;
    }
    command = inv.command->name;
    configure_logging(inv.flag("--verbose"));
    Context ctx{inv, out, err, self, terminal};
    rebuild = ctx.index_command();
    return inv.command->run(ctx);
  } catch (const UsageError& e) {
    err << "quorvi-db: " << e.what() << "\n";
    err << "Try 'quorvi-db " << (e.command().empty() ? "" : e.command() + " ") << "--help'.\n";
    return EXIT_BAD_ARGUMENT;
  } catch (const Missing& e) {
    err << "quorvi-db: " << e.what() << "\n";
    return EXIT_MISSING;
  } catch (const IndexLocked& e) {
    err << "quorvi-db: " << command << ": " << e.what() << "\n";
    return EXIT_LOCKED;
  } catch (const storage::NotAnIndexError& e) {
    err << "quorvi-db: " << command << ": " << e.what() << " (left as it is)\n";
    return EXIT_NOT_INDEX;
  } catch (const storage::Error& e) {
    const int code = code_for(e);
    err << "quorvi-db: " << command << ": " << e.what();
    if (code == EXIT_LOCKED) err << " (another process holds the index; try again when it is done)";
    if (code == EXIT_PERMISSION) err << " (permission denied on the index file or its folder)";
    if (code == EXIT_CORRUPT) err << " (the file is damaged or not a database; " << rebuild << " moves it aside and builds a new index)";
    err << "\n";
    return code;
  } catch (const OSError& e) {
    err << "quorvi-db: " << command << ": " << e.what() << "\n";
    if (e.error_number() == ENOENT) return EXIT_MISSING;
    return permission_errno(e.error_number()) ? EXIT_PERMISSION : EXIT_FAILED;
  } catch (const fs::filesystem_error& e) {
    err << "quorvi-db: " << command << ": " << e.what() << "\n";
    return permission_errno(e.code().value()) ? EXIT_PERMISSION : EXIT_FAILED;
  } catch (const std::exception& e) {
    err << "quorvi-db: " << command << ": " << e.what() << "\n";
    return EXIT_FAILED;
  }
}

}  // namespace marsk_quorvi::cli
