#include "quorvi/staging.hpp"

#include <sys/stat.h>

#include <cstdio>
#include <map>
#include <utility>
#include <vector>
#include <unordered_map>

#include "marsk_quorvi/storage/core_schema.hpp"
#include "marsk_quorvi/storage/sqlite.hpp"
#include "marsk_quorvi/storage/storage_size.hpp"
#include "marsk_quorvi/utils/path_filter.hpp"
#include "quorvi/source_file.hpp"

namespace marsk_quorvi::cli {

namespace fs = std::filesystem;
using storage::Connection;
using storage::Cursor;
using storage::Params;
using storage::Value;

namespace {

// Scope separators as ctags writes them for the languages it qualifies
// with "::"; the rest use ".".
const char* scope_separator(const std::string& language) {
  return (language == "cpp" || language == "c" || language == "php" || language == "rust") ? "::" : ".";
}

std::string top_folder(const std::string& path) {
  const auto slash = path.find('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::optional<double> mtime_of(const fs::path& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) / 1e9;
}

// `path` with "." and ".." segments worked out; none when it climbs above
// the top.
std::optional<std::string> normal_path(std::string_view path) {
  std::vector<std::string_view> parts;
  while (!path.empty()) {
    const auto slash = path.find('/');
    const auto part = path.substr(0, slash);
    if (part == "..") {
      if (parts.empty()) return std::nullopt;
      parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
  }
  std::string out;
  for (const auto part : parts) (out += out.empty() ? "" : "/") += part;
  return out;
}

std::string replace_all(std::string text, std::string_view from, std::string_view to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// The repository-relative names an import may stand for, best first.
std::vector<std::string> import_names(const std::string& language, const Import& in) {
  if (in.include || language == "shell" || language == "protobuf") return {in.module};
  if (language == "python") {
    const auto base = replace_all(in.module.substr(std::min(in.module.find_first_not_of('.'), in.module.size())), ".", "/");
    std::vector<std::string> out;
    if (!base.empty()) out = {base + ".py", base + "/__init__.py"};
    if (in.name) out.push_back((base.empty() ? "" : base + "/") + *in.name + ".py");
    return out;
  }
  if (language == "perl") return {replace_all(in.module, "::", "/") + ".pm"};
  if (language == "java") return {replace_all(in.module, ".", "/") + ".java"};
  if (language == "ruby") return {in.module + (fs::path(in.module).has_extension() ? "" : ".rb")};
  return {};
}

std::size_t shared_folders(std::string_view a, std::string_view b) {
  std::size_t n = 0;
  for (std::size_t i = 0; i < a.size() && i < b.size() && a[i] == b[i]; ++i) n += a[i] == '/';
  return n;
}

}  // namespace

void ImportResolver::add(const std::string& path, std::int64_t anchor) {
  by_path_.emplace(path, anchor);
  by_last_segment_[path.substr(path.rfind('/') + 1)].push_back(path);
}

std::optional<std::int64_t> ImportResolver::find(const std::string& from, const std::string& name) const {
  const auto folder = from.substr(0, from.rfind('/') + 1);
  if (auto beside = normal_path(folder + name)) {
    if (auto it = by_path_.find(*beside); it != by_path_.end()) return it->second;
  }
  const auto wanted = normal_path(name);
  if (!wanted || wanted->empty() || name.find("..") != std::string::npos) return std::nullopt;
  const auto same = by_last_segment_.find(wanted->substr(wanted->rfind('/') + 1));
  if (same == by_last_segment_.end()) return std::nullopt;
  const std::string* best = nullptr;
  for (const auto& path : same->second) {
    if (path != *wanted && !path.ends_with("/" + *wanted)) continue;
    const auto score = [&](const std::string& p) {
      return std::make_tuple(-static_cast<std::ptrdiff_t>(shared_folders(p, from)), p.size(), std::string_view(p));
    };
    if (!best || score(path) < score(*best)) best = &path;
  }
  if (!best) return std::nullopt;
  return by_path_.at(*best);
}

std::optional<std::int64_t> ImportResolver::resolve(const std::string& from, const std::string& language,
                                                    const Import& in) const {
  for (const auto& name : import_names(language, in)) {
    if (name.empty()) continue;
    if (auto found = find(from, name); found && *found != by_path_.at(from)) return found;
  }
  return std::nullopt;
}

fs::path staging_path_for(const fs::path& db_path) {
  fs::path p = db_path;
  p += ".staging";
  return p;
}

void remove_database_files(const fs::path& path) {
  std::error_code ec;
  for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
    fs::path p = path;
    p += suffix;
    fs::remove(p, ec);
  }
}

std::string content_hash(const std::string& text) {
  std::uint64_t h = 14695981039346656037ull;
  for (unsigned char c : text) {
    h ^= c;
    h *= 1099511628211ull;
  }
  char buf[17];
  std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
  return buf;
}

StagingFile::StagingFile(const fs::path& path) {
  remove_database_files(path);
  conn_ = Connection::open(path.string());
  // A new file: the live page size, and no journal or syncs, since a crash
  // only costs a staging file that the next pass builds again.
  conn_->execute("PRAGMA page_size=" + std::to_string(storage::storage_size::PAGE_SIZE));
  conn_->execute("PRAGMA journal_mode=OFF").fetchall();
  conn_->execute("PRAGMA synchronous=OFF");
  conn_->execute("PRAGMA temp_store=MEMORY");
  conn_->execute("PRAGMA cache_size=-131072");  // 128 MiB
  utils::register_path_functions(*conn_);
  conn_->execute("BEGIN");
  open_ = true;
  Cursor ddl = conn_->cursor();
  storage::core_schema::create_tables(ddl);
  // The secondary indexes are dropped for the bulk load and made again from
  // their own stored definitions at the end: one sort per index instead of a
  // random B-tree insert per row, and the same schema.
  for (const auto& row : ddl.execute("SELECT name, sql FROM sqlite_master WHERE type = 'index' AND sql IS NOT NULL "
                                     "AND tbl_name IN ('components', 'files', 'symbols', 'edges', 'external_imports', "
                                     "'index_errors')")
                             .fetchall()) {
    deferred_.emplace_back(row[0].to_text(), row[1].to_text());
  }
  for (const auto& [name, sql] : deferred_) ddl.execute("DROP INDEX \"" + name + "\"");
  ddl.close();
}

StagingFile::~StagingFile() {
  if (!open_) return;
  try {
    conn_->execute("ROLLBACK");
  } catch (const storage::Error&) {
    // The failure that brought us here is the one that matters.
  }
}

void StagingFile::finish() {
  for (const auto& [name, sql] : deferred_) conn_->execute(sql);
  conn_->execute("COMMIT");
  open_ = false;
  conn_->close();
}

StagingCounts generate_staging_rows(const fs::path& repo, const Extraction& extraction, StagingRows& rows,
                                    const std::function<void(std::size_t, std::size_t)>& on_progress) {
  StagingCounts counts;
  std::map<std::string, std::int64_t> component_ids;
  for (const auto& f : extraction.files) {
    const auto folder = top_folder(f.path);
    if (!folder.empty() && !component_ids.count(folder)) {
      const auto id = static_cast<std::int64_t>(component_ids.size()) + 1;
      component_ids.emplace(folder, id);
    }
  }
  for (const auto& [name, id] : component_ids) rows.component(id, name);
  counts.components = static_cast<std::int64_t>(component_ids.size());

  std::int64_t file_id = 0;
  std::int64_t symbol_id = 0;
  std::size_t done = 0;
  // The includes and imports wait until every file has its anchor.
  ImportResolver resolver;
  struct Pending {
    const FileRecord* file;
    std::int64_t anchor;
  };
  std::vector<Pending> pending;
  for (const auto& f : extraction.files) {
    ++file_id;
    const auto folder = top_folder(f.path);
    std::optional<std::int64_t> component;
    if (!folder.empty()) component = component_ids.at(folder);
    rows.file(file_id, f, content_hash(f.text), f.mtime ? f.mtime : mtime_of(repo / f.path), component);

    // The file's anchor, under which its top-level symbols hang.
    const auto anchor = ++symbol_id;
    rows.symbol(anchor, file_id, fs::path(f.path).filename().string(), f.path, "module", 1,
                std::max<std::int64_t>(f.line_count, 1), std::nullopt, std::nullopt);
    resolver.add(f.path, anchor);
    for (const auto& in : f.imports) rows.import(++counts.imports, file_id, in);
    if (!f.imports.empty()) pending.push_back({&f, anchor});
    // Qualified name within the file -> symbol id, for nesting. Only symbols
    // seen earlier can be parents, so every parent row precedes its children.
    std::unordered_map<std::string, std::int64_t> scopes;
    const std::string sep = scope_separator(f.language);
    static const std::string unknown_kind = "unknown";
    for (const auto& tag : f.tags) {
      const auto id = ++symbol_id;
      std::int64_t parent = anchor;
      std::string qualified = tag.name;
      if (tag.scope && !tag.scope->empty()) {
        qualified = *tag.scope + sep + tag.name;
        if (auto it = scopes.find(*tag.scope); it != scopes.end()) parent = it->second;
      }
      rows.symbol(id, file_id, tag.name, f.path + "::" + qualified, tag.kind.empty() ? unknown_kind : tag.kind, tag.line,
                  tag.end_line.value_or(tag.line), parent, tag.signature);
      scopes.emplace(std::move(qualified), id);
    }
    counts.symbols += static_cast<std::int64_t>(f.tags.size());

    // The text in pieces of CHUNK_LINES lines, each keyed by the file id and
    // its number, verbatim. The rowid layout holds MAX_CHUNKS_PER_FILE of
    // them; the text past that stays out and the file gets an error row,
    // which is better than a chunk that claims the next file's rowids.
    std::size_t pos = 0;
    std::int64_t line = 1;
    std::int64_t n = 0;
    while (pos < f.text.size()) {
      if (n == storage::core_schema::MAX_CHUNKS_PER_FILE) {
        rows.error({f.path, TOO_LARGE_ERROR,
                    "more than " + std::to_string(n * CHUNK_LINES) + " lines, the most the index holds of one file (" +
                        std::to_string(n) + " chunks of " + std::to_string(CHUNK_LINES) + "); lines from " +
                        std::to_string(line) + " on are not searchable",
                    std::nullopt});
        ++counts.errors;
        break;
      }
      std::size_t end = pos;
      std::int64_t lines = 0;
      while (end < f.text.size() && lines < CHUNK_LINES) {
        const auto nl = f.text.find('\n', end);
        end = nl == std::string::npos ? f.text.size() : nl + 1;
        ++lines;
      }
      rows.chunk(storage::core_schema::chunk_rowid(file_id, n), std::string_view(f.text).substr(pos, end - pos), line, line + lines - 1);
      ++n;
      line += lines;
      pos = end;
    }
    counts.chunks += n;
    ++done;
    if (on_progress && (done % 64 == 0 || done == extraction.files.size())) on_progress(done, extraction.files.size());
  }
  counts.files = file_id;
  for (const auto& [f, anchor] : pending) {
    for (const auto& in : f->imports) {
      if (auto target = resolver.resolve(f->path, f->language, in)) {
        rows.edge(++counts.edges, anchor, *target, in.include ? "includes" : "imports", in.line);
      }
    }
  }
  for (const auto& e : extraction.errors) rows.error(e);
  counts.errors += static_cast<std::int64_t>(extraction.errors.size());
  return counts;
}

namespace {

// The rows through the access layer: one cursor per statement, so each
// statement is prepared once. The many small rows (symbols, chunks) go in
// batches through executemany, which binds and steps them without handing
// the statement back to the cache in between. The staging file enforces no
// foreign keys and every id is explicit, so a batch may land after rows of
// other tables that name it.
class CursorRows : public StagingRows {
 public:
  static constexpr std::size_t BATCH = 1024;
  static constexpr const char* SYMBOL_SQL =
      "INSERT INTO symbols (id, file_id, name, fqn, kind, start_line, end_line, parent_id, signature) "
      "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)";
  static constexpr const char* CHUNK_SQL =
      "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, ?, ?, 1)";

  explicit CursorRows(Connection& conn)
      : components_(conn.cursor()), files_(conn.cursor()), symbols_(conn.cursor()), chunks_(conn.cursor()),
        imports_(conn.cursor()), edges_(conn.cursor()), errors_(conn.cursor()) {
    symbol_batch_.reserve(BATCH);
    chunk_batch_.reserve(BATCH);
  }
  ~CursorRows() override {
    for (Cursor* c : {&components_, &files_, &symbols_, &chunks_, &imports_, &edges_, &errors_}) c->close();
  }
  void component(std::int64_t id, const std::string& name) override {
    components_.execute("INSERT INTO components (id, name, root_path) VALUES (?, ?, ?)", {id, name, name});
  }
  void file(std::int64_t id, const FileRecord& f, const std::string& hash, std::optional<double> mtime,
            std::optional<std::int64_t> component_id) override {
    files_.execute(
        "INSERT INTO files (id, path, language, content_hash, size, mtime, component_id, stale) "
        "VALUES (?, ?, ?, ?, ?, ?, ?, 0)",
        {id, f.path, f.language, hash, f.size, mtime, component_id});
  }
  void symbol(std::int64_t id, std::int64_t file_id, const std::string& name, const std::string& fqn,
              const std::string& kind, std::int64_t start_line, std::int64_t end_line,
              std::optional<std::int64_t> parent_id, const std::optional<std::string>& signature) override {
    symbol_batch_.push_back({id, file_id, name, fqn, kind, start_line, end_line, parent_id, signature});
    if (symbol_batch_.size() >= BATCH) flush_symbols();
  }
  void chunk(std::int64_t rowid, std::string_view text, std::int64_t start_line, std::int64_t end_line) override {
    chunk_batch_.push_back({rowid, text, start_line, end_line});
    if (chunk_batch_.size() >= BATCH) flush_chunks();
  }
  void import(std::int64_t id, std::int64_t file_id, const Import& in) override {
    imports_.execute("INSERT INTO external_imports (id, file_id, module, name, alias, line) VALUES (?, ?, ?, ?, ?, ?)",
                     {id, file_id, in.module, in.name, in.alias, in.line});
  }
  void edge(std::int64_t id, std::int64_t source_id, std::int64_t target_id, const char* kind,
            std::int64_t line) override {
    edges_.execute("INSERT INTO edges (id, source_id, target_id, kind, resolution, line) VALUES (?, ?, ?, ?, 'exact', ?)",
                   {id, source_id, target_id, kind, line});
  }
  void error(const FileError& e) override {
    errors_.execute("INSERT INTO index_errors (file_path, error_type, message, line) VALUES (?, ?, ?, ?)",
                    {e.path, e.error_type, e.message, e.line});
  }
  // Writes what the batches still hold; call before committing.
  void flush() {
    flush_symbols();
    flush_chunks();
  }

 private:
  void flush_symbols() {
    if (symbol_batch_.empty()) return;
    symbols_.executemany(SYMBOL_SQL, symbol_batch_);
    symbol_batch_.clear();
  }
  void flush_chunks() {
    if (chunk_batch_.empty()) return;
    chunks_.executemany(CHUNK_SQL, chunk_batch_);
    chunk_batch_.clear();
  }

  Cursor components_, files_, symbols_, chunks_, imports_, edges_, errors_;
  std::vector<Params> symbol_batch_, chunk_batch_;
};

}  // namespace

StagingCounts build_staging(const fs::path& staging, const fs::path& repo, const Extraction& extraction,
                            const std::function<void(std::size_t, std::size_t)>& on_progress) {
  try {
    StagingFile file(staging);
    StagingCounts counts;
    {
      CursorRows rows(file.connection());
      counts = generate_staging_rows(repo, extraction, rows, on_progress);
      rows.flush();
    }
    file.finish();
    return counts;
  } catch (...) {
    remove_database_files(staging);
    throw;
  }
}

}  // namespace marsk_quorvi::cli
