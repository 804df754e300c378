#include "quorvi/staging.hpp"

#include <nlohmann/json.hpp>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <span>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "marsk_quorvi/storage/core_schema.hpp"
#include "marsk_quorvi/storage/database.hpp"
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

// `path`, absolute, as the path of a file: URI, with what URIs reserve escaped.
std::string uri_path(const fs::path& path) {
  std::string out;
  for (const unsigned char c : fs::absolute(path).string()) {
    if (std::isalnum(c) || std::strchr("/-._~", c)) {
      out += static_cast<char>(c);
    } else {
      char buf[4];
      std::snprintf(buf, sizeof buf, "%%%02X", c);
      out += buf;
    }
  }
  return out;
}

std::string replace_all(std::string_view text, std::string_view from, std::string_view to) {
  std::string out;
  for (std::size_t at = 0;;) {
    const auto hit = text.find(from, at);
    out.append(text.substr(at, hit == std::string_view::npos ? hit : hit - at));
    if (hit == std::string_view::npos) return out;
    out.append(to);
    at = hit + from.size();
  }
}

// Whether the imports of `language` are includes: C and C++ headers,
// makefiles.
bool includes(const std::string& language) { return language == "c" || language == "cpp" || language == "make"; }

// The repository-relative names an import may stand for, best first.
std::vector<std::string> import_names(const std::string& language, const Import& in) {
  if (includes(language) || language == "shell" || language == "protobuf") return {in.module};
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
  // A header that includes its own name (a wrapper over the header it
  // stands in for) means the other file of that name.
  if (auto beside = normal_path(folder + name); beside && *beside != from) {
    if (auto it = by_path_.find(*beside); it != by_path_.end()) return it->second;
  }
  const auto wanted = normal_path(name);
  if (!wanted || wanted->empty() || name.find("..") != std::string::npos) return std::nullopt;
  const auto same = by_last_segment_.find(wanted->substr(wanted->rfind('/') + 1));
  if (same == by_last_segment_.end()) return std::nullopt;
  // An include path starts at a folder that holds the including file more
  // often than at one beside it: `<errno.h>` in node/openssl/ means the
  // top-level errno.h rather than node/uv/errno.h, though that one is nearer.
  const auto score = [&](const std::string& p) {
    const auto root = std::string_view(p).substr(0, p.size() - wanted->size());
    return std::make_tuple(!from.starts_with(root), -static_cast<std::ptrdiff_t>(shared_folders(p, from)), p.size(),
                           std::string_view(p));
  };
  const std::string* best = nullptr;
  for (const auto& path : same->second) {
    if (path == from || (path != *wanted && !path.ends_with("/" + *wanted))) continue;
    if (!best || score(path) < score(*best)) best = &path;
  }
  if (!best) return std::nullopt;
  return by_path_.at(*best);
}

std::optional<std::int64_t> ImportResolver::resolve(const std::string& from, const std::string& language,
                                                    const Import& in) const {
  for (const auto& name : import_names(language, in)) {
    if (name.empty()) continue;
    if (auto found = find(from, name)) return found;
  }
  return std::nullopt;
}

void remove_database_files(const fs::path& path) {
  std::error_code ec;
  for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
    fs::path p = path;
    p += suffix;
    fs::remove(p, ec);
  }
}

StagingFile::StagingFile(const fs::path& path, StagingMode mode, const std::optional<fs::path>& live) {
  remove_database_files(path);
  // One thread at a time writes it (the writer thread, then the caller that
  // joined it), so SQLite need not lock around every call.
  Connection::Options options;
  options.serialized = false;
  conn_ = Connection::open(path.string(), options);
  conn_->execute("PRAGMA page_size=" + std::to_string(storage::storage_size::PAGE_SIZE));
  if (mode != StagingMode::journaled) {
    conn_->execute("PRAGMA journal_mode=OFF").fetchall();
    conn_->execute("PRAGMA synchronous=OFF");
  } else {
    conn_->execute("PRAGMA journal_mode=DELETE").fetchall();
    conn_->execute("PRAGMA synchronous=FULL");
  }
  conn_->execute("PRAGMA temp_store=FILE");
  // Rows go in at the end of their tables, which needs few pages at hand;
  // making the indexes of an index file sorts, which wants more.
  conn_->execute(mode == StagingMode::swap_only ? "PRAGMA cache_size=-8192" : "PRAGMA cache_size=-32768");
  if (live && sqlite3_compileoption_used("USE_URI")) {
    try {
      conn_->execute("ATTACH DATABASE ? AS live", {"file:" + uri_path(*live) + "?mode=ro"});
      attached_ = true;
      conn_->execute("CREATE TEMP TABLE symbol_map (old INTEGER PRIMARY KEY, new INTEGER NOT NULL)");
    } catch (const storage::Error&) {
      // Nothing re-used: every file is parsed again.
      if (attached_) conn_->execute("DETACH DATABASE live");
      attached_ = false;
    }
  }
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
  if (mode == StagingMode::swap_only) {
    deferred_.clear();
    ddl.execute("DROP TABLE code_chunks");
    ddl.execute("CREATE TABLE code_chunks (text, start_line, end_line, exact)");
  }
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

namespace {

// Hands the rows of files and errors to a StagingRows, numbering them as
// they come: the one place that decides ids, nesting, chunks and edges.
class RowGenerator {
 public:
  RowGenerator(const fs::path& repo, StagingRows& rows) : repo_(repo), rows_(rows) {}

  void file(const FileRecord& f) {
    const auto file_id = ++counts_.files;
    // Top-level folders become components as the walk meets them, so in
    // name order.
    std::optional<std::int64_t> component;
    if (const auto folder = top_folder(f.path); !folder.empty()) {
      auto [it, added] = components_.emplace(folder, static_cast<std::int64_t>(components_.size()) + 1);
      if (added) rows_.component(it->second, folder);
      component = it->second;
    }
    rows_.file(file_id, f, f.hash.empty() ? content_hash(f.text) : f.hash, f.mtime ? f.mtime : mtime_of(repo_ / f.path),
               component);
    std::int64_t anchor = 0;
    std::vector<Import> copied_imports;
    if (f.reuse_id) {
      auto copied = rows_.copy_file(*f.reuse_id, f.path, file_id, symbol_id_ + 1);
      symbol_id_ += copied.symbols;
      counts_.symbols += copied.symbols - 1;
      counts_.chunks += copied.chunks;
      counts_.errors += copied.errors;
      anchor = copied.anchor;
      copied_imports = std::move(copied.imports);
    } else {
      anchor = parsed(f, file_id);
    }
    const auto& imports = f.reuse_id ? copied_imports : f.imports;
    resolver_.add(f.path, anchor);
    for (const auto& in : imports) rows_.import(++counts_.imports, file_id, in);
    // The includes and imports wait until every file has its anchor.
    if (!imports.empty() && !rows_.reads_back()) pending_.push_back({f.path, f.language, imports});
  }

  void error(const FileError& e) {
    rows_.error(e);
    ++counts_.errors;
  }

  StagingCounts finish() {
    rows_.flush();
    const auto edge = [&](const std::string& path, const std::string& language, const Import& in) {
      if (auto target = resolver_.resolve(path, language, in)) {
        rows_.edge(++counts_.edges, resolver_.anchor(path), *target, includes(language) ? "includes" : "imports",
                   in.line);
      }
    };
    rows_.read_imports(edge);
    for (const auto& p : pending_) {
      for (const auto& in : p.imports) edge(p.path, p.language, in);
    }
    pending_.clear();
    counts_.components = static_cast<std::int64_t>(components_.size());
    return counts_;
  }

 private:
  // The anchor, the symbols and the chunks of a file that was parsed;
  // returns the anchor's id.
  std::int64_t parsed(const FileRecord& f, std::int64_t file_id) {
    // The file's anchor, under which its top-level symbols hang.
    const auto anchor = ++symbol_id_;
    rows_.symbol(anchor, file_id, fs::path(f.path).filename().string(), f.path, "module", 1,
                 std::max<std::int64_t>(f.line_count, 1), std::nullopt, std::nullopt);
    // Qualified name within the file -> symbol id, for nesting. Only symbols
    // seen earlier can be parents, so every parent row precedes its children.
    std::unordered_map<std::string, std::int64_t> scopes;
    scopes.reserve(f.tags.size());
    const std::string sep = scope_separator(f.language);
    static const std::string unknown_kind = "unknown";
    // "path::qualified name", built in one buffer that every tag reuses.
    std::string fqn = f.path + "::";
    const auto prefix = fqn.size();
    for (const auto& tag : f.tags) {
      const auto id = ++symbol_id_;
      std::int64_t parent = anchor;
      fqn.resize(prefix);
      if (tag.scope && !tag.scope->empty()) {
        fqn.append(*tag.scope).append(sep);
        if (auto it = scopes.find(*tag.scope); it != scopes.end()) parent = it->second;
      }
      fqn.append(tag.name);
      rows_.symbol(id, file_id, tag.name, fqn, tag.kind.empty() ? unknown_kind : tag.kind, tag.line,
                   tag.end_line.value_or(tag.line), parent, tag.signature);
      scopes.emplace(fqn.substr(prefix), id);
    }
    counts_.symbols += static_cast<std::int64_t>(f.tags.size());

    // The text in pieces of CHUNK_LINES lines, each keyed by the file id and
    // its number, verbatim. The rowid layout holds MAX_CHUNKS_PER_FILE of
    // them; the text past that stays out and the file gets an error row,
    // which is better than a chunk that claims the next file's rowids.
    std::size_t pos = 0;
    std::int64_t line = 1;
    std::int64_t n = 0;
    while (pos < f.text.size()) {
      if (n == storage::core_schema::MAX_CHUNKS_PER_FILE) {
        error({f.path, TOO_LARGE_ERROR,
               "more than " + std::to_string(n * CHUNK_LINES) + " lines, the most the index holds of one file (" +
                   std::to_string(n) + " chunks of " + std::to_string(CHUNK_LINES) + "); lines from " +
                   std::to_string(line) + " on are not searchable",
               std::nullopt});
        break;
      }
      std::size_t end = pos;
      std::int64_t lines = 0;
      while (end < f.text.size() && lines < CHUNK_LINES) {
        const auto nl = f.text.find('\n', end);
        end = nl == std::string::npos ? f.text.size() : nl + 1;
        ++lines;
      }
      rows_.chunk(storage::core_schema::chunk_rowid(file_id, n), std::string_view(f.text).substr(pos, end - pos),
                  line, line + lines - 1);
      ++n;
      line += lines;
      pos = end;
    }
    counts_.chunks += n;
    return anchor;
  }

  struct Pending {
    std::string path, language;
    std::vector<Import> imports;
  };
  fs::path repo_;
  StagingRows& rows_;
  StagingCounts counts_;
  std::int64_t symbol_id_ = 0;
  std::map<std::string, std::int64_t> components_;
  ImportResolver resolver_;
  std::vector<Pending> pending_;
};

}  // namespace

CopiedFile StagingRows::copy_file(std::int64_t, const std::string& path, std::int64_t, std::int64_t) {
  throw std::logic_error("no live index to take the rows of " + path + " from");
}

StagingCounts generate_staging_rows(const fs::path& repo, const Extraction& extraction, StagingRows& rows,
                                    const std::function<void(std::size_t, std::size_t)>& on_progress) {
  RowGenerator generator(repo, rows);
  std::size_t done = 0;
  for (const auto& f : extraction.files) {
    generator.file(f);
    ++done;
    if (on_progress && (done % 64 == 0 || done == extraction.files.size())) on_progress(done, extraction.files.size());
  }
  for (const auto& e : extraction.errors) generator.error(e);
  return generator.finish();
}

namespace {

// The rows through the access layer: one cursor per statement, so each
// statement is prepared once and, run again by the same cursor, stays with
// it. Each row is bound from the caller's own strings, which the braced
// parameter list borrows: nothing is copied on the way to SQLite.
class CursorRows : public StagingRows {
 public:
  static constexpr const char* SYMBOL_SQL =
      "INSERT OR FAIL INTO symbols (id, file_id, name, fqn, kind, start_line, end_line, parent_id, signature) "
      "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)";
  static constexpr const char* CHUNK_SQL =
      "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, ?, ?, 1)";

  explicit CursorRows(Connection& conn)
      : components_(conn.cursor()), files_(conn.cursor()), symbols_(conn.cursor()), chunks_(conn.cursor()),
        imports_(conn.cursor()), edges_(conn.cursor()), errors_(conn.cursor()), copy_(conn.cursor()) {}
  ~CursorRows() override { close(); }
  void close() {
    for (Cursor* c : {&components_, &files_, &symbols_, &chunks_, &imports_, &edges_, &errors_, &copy_,
                      &symbol_batches_}) {
      c->close();
    }
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
  // Symbols go in kSymbolBatch to a statement, which halves SQLite's work per
  // row; the batch keeps copies of the strings in buffers that keep their
  // room, so that filling it allocates nothing once it has run a while.
  // The statement fails rather than aborts on a broken constraint (the
  // staging file is then given up whole): an aborting statement of several
  // rows opens a statement savepoint, at which FTS5 writes out the chunks it
  // holds in memory, and a savepoint every 16 symbols left code_chunks of an
  // index file in hundreds of small segments to merge.
  void symbol(std::int64_t id, std::int64_t file_id, const std::string& name, const std::string& fqn,
              const std::string& kind, std::int64_t start_line, std::int64_t end_line,
              std::optional<std::int64_t> parent_id, const std::optional<std::string>& signature) override {
    auto& p = pending_[pending_count_++];
    p.id = id;
    p.file_id = file_id;
    p.name.assign(name);
    p.fqn.assign(fqn);
    p.kind.assign(kind);
    p.start_line = start_line;
    p.end_line = end_line;
    p.parent_id = parent_id;
    p.has_signature = signature.has_value();
    if (signature) p.signature.assign(*signature);
    if (pending_count_ == kSymbolBatch) write_symbols();
  }
  void flush() override {
    if (pending_count_ > 0) write_symbols();
  }
  void chunk(std::int64_t rowid, std::string_view text, std::int64_t start_line, std::int64_t end_line) override {
    chunks_.execute(CHUNK_SQL, {rowid, text, start_line, end_line});
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
  // The rows of the live index's file `live_id` (attached as `live`, with the
  // temp.symbol_map table) under new ids: symbols numbered from
  // `first_symbol_id` in their live order with their nesting kept, chunks at
  // the new file's rowids, the path's error rows; its imports are read out.
  CopiedFile copy_file(std::int64_t live_id, const std::string& path, std::int64_t file_id,
                       std::int64_t first_symbol_id) override {
    namespace layout = storage::core_schema;
    CopiedFile out;
    flush();
    copy_.execute("INSERT INTO temp.symbol_map (old, new) SELECT id, ? + row_number() OVER (ORDER BY id) - 1 "
                  "FROM live.symbols WHERE file_id = ?",
                  {first_symbol_id, live_id});
    copy_.execute(
        "INSERT INTO symbols (id, file_id, name, fqn, kind, start_line, end_line, parent_id, signature, docstring) "
        "SELECT m.new, ?, s.name, s.fqn, s.kind, s.start_line, s.end_line, p.new, s.signature, s.docstring "
        "FROM live.symbols AS s JOIN temp.symbol_map AS m ON m.old = s.id "
        "LEFT JOIN temp.symbol_map AS p ON p.old = s.parent_id WHERE s.file_id = ?",
        {file_id, live_id});
    out.symbols = copy_.rowcount();
    auto anchor = copy_.execute("SELECT m.new FROM live.symbols AS s JOIN temp.symbol_map AS m ON m.old = s.id "
                                "WHERE s.file_id = ? AND s.kind = 'module' AND s.parent_id IS NULL ORDER BY s.id",
                                {live_id}).fetchone();
    copy_.execute("DELETE FROM temp.symbol_map");
    if (!anchor) throw storage::Error("the live index has no anchor for " + path);
    out.anchor = (*anchor)[0].as_int();
    const auto old_base = layout::chunk_rowid(live_id, 0), new_base = layout::chunk_rowid(file_id, 0);
    copy_.execute("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
                  "SELECT rowid - ? + ?, text, start_line, end_line, exact FROM live.code_chunks "
                  "WHERE rowid BETWEEN ? AND ?",
                  {old_base, new_base, old_base, layout::chunk_rowid(live_id, layout::MAX_CHUNKS_PER_FILE - 1)});
    out.chunks = copy_.rowcount();
    copy_.execute("INSERT INTO index_errors (file_path, error_type, message, line) "
                  "SELECT file_path, error_type, message, line FROM live.index_errors WHERE file_path = ? ORDER BY id",
                  {path});
    out.errors = copy_.rowcount();
    for (const auto& row : copy_.execute("SELECT module, name, alias, line FROM live.external_imports "
                                         "WHERE file_id = ? ORDER BY id",
                                         {live_id})
                               .fetchall()) {
      const auto text = [&](int i) { return row[i].is_null() ? std::nullopt : std::optional(row[i].to_text()); };
      out.imports.push_back({row[0].to_text(), text(1), text(2), row[3].is_null() ? 0 : row[3].as_int()});
    }
    return out;
  }

  bool reads_back() const override { return true; }
  void read_imports(const std::function<void(const std::string&, const std::string&, const Import&)>& each) override {
    Cursor read = copy_.connection().cursor();
    read.execute("SELECT f.path, f.language, e.module, e.name, e.line FROM external_imports AS e "
                 "JOIN files AS f ON f.id = e.file_id ORDER BY e.id");
    while (auto row = read.fetchone()) {
      const auto& r = *row;
      each(r[0].to_text(), r[1].to_text(),
           {r[2].to_text(), r[3].is_null() ? std::nullopt : std::optional(r[3].to_text()), std::nullopt,
            r[4].is_null() ? 0 : r[4].as_int()});
    }
    read.close();
  }

 private:
  static constexpr std::size_t kSymbolBatch = 16;
  static constexpr std::size_t kSymbolColumns = 9;
  struct PendingSymbol {
    std::int64_t id = 0, file_id = 0, start_line = 0, end_line = 0;
    std::optional<std::int64_t> parent_id;
    std::string name, fqn, kind, signature;
    bool has_signature = false;
  };

  static std::string symbol_batch_sql() {
    std::string sql = SYMBOL_SQL;
    for (std::size_t i = 1; i < kSymbolBatch; ++i) sql += ", (?, ?, ?, ?, ?, ?, ?, ?, ?)";
    return sql;
  }

  void write_symbols() {
    std::array<storage::Param, kSymbolBatch * kSymbolColumns> params;
    for (std::size_t i = 0; i < pending_count_; ++i) {
      const auto& p = pending_[i];
      storage::Param* row = params.data() + i * kSymbolColumns;
      row[0] = p.id;
      row[1] = p.file_id;
      row[2] = p.name;
      row[3] = p.fqn;
      row[4] = p.kind;
      row[5] = p.start_line;
      row[6] = p.end_line;
      row[7] = p.parent_id;
      row[8] = p.has_signature ? storage::Param(p.signature) : storage::Param();
    }
    const auto count = std::exchange(pending_count_, 0);
    if (count == kSymbolBatch) {
      static const std::string batch_sql = symbol_batch_sql();
      symbol_batches_.execute(batch_sql, std::span<const storage::Param>(params));
      return;
    }
    for (std::size_t i = 0; i < count; ++i) {
      symbols_.execute(SYMBOL_SQL, std::span<const storage::Param>(params.data() + i * kSymbolColumns, kSymbolColumns));
    }
  }

  Cursor components_, files_, symbols_, chunks_, imports_, edges_, errors_, copy_;
  Cursor symbol_batches_ = symbols_.connection().cursor();
  std::array<PendingSymbol, kSymbolBatch> pending_;
  std::size_t pending_count_ = 0;
};

}  // namespace

StagingCounts build_staging(const fs::path& staging, const fs::path& repo, const Extraction& extraction,
                            const std::function<void(std::size_t, std::size_t)>& on_progress, StagingMode mode) {
  try {
    StagingFile file(staging, mode);
    StagingCounts counts;
    {
      CursorRows rows(file.connection());
      counts = generate_staging_rows(repo, extraction, rows, on_progress);
    }
    file.finish();
    return counts;
  } catch (...) {
    remove_database_files(staging);
    throw;
  }
}

struct StagingWriter::Impl {
  Impl(const fs::path& staging, const fs::path& repo, const std::optional<fs::path>& live,
       const storage::ExtractorVersions& stamp, StagingMode mode)
      : path(staging), file(staging, mode, live), rows(file.connection()), generator(repo, rows) {
    if (file.attached()) load_reusable(stamp);
    holding = !reuse.empty();
  }

  // The live files whose rows may be re-used: none unless the live index was
  // made by the same extractors; then those not marked stale, with an anchor.
  void load_reusable(const storage::ExtractorVersions& stamp) {
    auto& conn = file.connection();
    try {
      auto row = conn.execute("SELECT value FROM live.schema_info WHERE key = ?", {storage::EXTRACTOR_VERSIONS_KEY})
                     .fetchone();
      if (!row || stamp.empty()) return;
      // An index of an older shape is migrated only when it is opened for
      // the swap: its rows are copied only when every column read is there.
      for (const char* columns :
           {"id, path, size, mtime, content_hash, language, stale FROM live.files",
            "id, file_id, name, fqn, kind, start_line, end_line, parent_id, signature, docstring FROM live.symbols",
            "rowid, text, start_line, end_line, exact FROM live.code_chunks",
            "file_path, error_type, message, line FROM live.index_errors",
            "file_id, module, name, alias, line FROM live.external_imports"}) {
        conn.execute(std::string("SELECT ") + columns + " LIMIT 0").fetchall();
      }
      const auto stored = nlohmann::json::parse((*row)[0].to_text(), nullptr, false);
      if (!stored.is_object() || stored.size() != stamp.size()) return;
      for (const auto& [language, version] : stamp) {
        const auto it = stored.find(language);
        if (it == stored.end() || !it->is_number_integer() || it->get<std::int64_t>() != version) return;
      }
      for (const auto& r : conn.execute("SELECT f.id, f.path, f.size, f.mtime, f.content_hash, f.language "
                                        "FROM live.files AS f WHERE f.stale = 0 AND EXISTS (SELECT 1 FROM "
                                        "live.symbols AS s WHERE s.file_id = f.id AND s.kind = 'module' "
                                        "AND s.parent_id IS NULL)")
                               .fetchall()) {
        if (r[2].is_null() || r[4].is_null() || r[5].is_null()) continue;
        reuse[r[1].to_text()] = {r[0].as_int(), r[2].as_int(),
                                 r[3].is_null() ? std::nullopt : std::optional(r[3].as_double()), r[4].to_text(),
                                 r[5].to_text()};
      }
      live_files = (*conn.execute("SELECT COUNT(*) FROM live.files").fetchone())[0].as_int();
    } catch (const storage::Error&) {
      // A live index that cannot be read lends nothing.
      reuse.clear();
    }
  }

  void write(const FileRecord& f) { generator.file(f); }
  void write(const FileError& e) { generator.error(e); }

  // What was held back goes in, in the order it came.
  void release() {
    holding = false;
    for (const auto& item : held) std::visit([&](const auto& x) { write(x); }, item);
    held.clear();
  }

  // Whether the held rows are the live index's own: the same files, and the
  // error rows found now are the live ones of the files not re-used.
  bool same_as_live() {
    std::vector<FileError> fresh, old;
    std::unordered_map<std::string_view, bool> reused;
    std::int64_t files = 0;
    for (const auto& item : held) {
      if (const auto* f = std::get_if<FileRecord>(&item)) {
        reused[f->path] = true;
        ++files;
      } else {
        fresh.push_back(std::get<FileError>(item));
      }
    }
    if (files != live_files) return false;
    for (const auto& r : file.connection()
                             .execute("SELECT file_path, error_type, message, line FROM live.index_errors")
                             .fetchall()) {
      if (reused.count(r[0].to_text())) continue;
      old.push_back({r[0].to_text(), r[1].to_text(), r[2].is_null() ? "" : r[2].to_text(),
                     r[3].is_null() ? std::nullopt : std::optional(r[3].as_int())});
    }
    const auto order = [](const FileError& a, const FileError& b) {
      return std::tie(a.path, a.error_type, a.message, a.line) < std::tie(b.path, b.error_type, b.message, b.line);
    };
    std::sort(fresh.begin(), fresh.end(), order);
    std::sort(old.begin(), old.end(), order);
    return fresh == old;
  }

  StagingCounts live_counts() {
    StagingCounts c;
    auto& conn = file.connection();
    const auto count = [&](const std::string& table, const std::string& where = "") {
      const auto n = (*conn.execute("SELECT COUNT(*) FROM live." + table + where).fetchone())[0].as_int();
      live_rows.set(table, n);
      return n;
    };
    c.components = count("components");
    c.files = count("files");
    const auto symbols = count("symbols");
    c.symbols = symbols - c.files;
    c.edges = count("edges");
    c.imports = count("external_imports");
    c.errors = count("index_errors");
    c.chunks = count("code_chunks");
    return c;
  }

  fs::path path;
  StagingFile file;
  CursorRows rows;
  RowGenerator generator;
  ReuseMap reuse;
  std::int64_t live_files = 0;
  bool holding = false, unchanged = false;
  std::vector<std::variant<FileRecord, FileError>> held;
  storage::RowCounts live_rows;
};

StagingWriter::StagingWriter(const fs::path& staging, const fs::path& repo, const std::optional<fs::path>& live,
                             const storage::ExtractorVersions& stamp, StagingMode mode)
    : impl_(std::make_unique<Impl>(staging, repo, live && fs::exists(*live) ? live : std::nullopt, stamp, mode)) {}

StagingWriter::~StagingWriter() = default;

const ReuseMap& StagingWriter::reusable() const noexcept { return impl_->reuse; }

void StagingWriter::error(const FileError& e) {
  if (impl_->holding) {
    impl_->held.emplace_back(e);
  } else {
    impl_->write(e);
  }
}

void StagingWriter::add(ExtractedBatch&& batch) {
  auto& d = *impl_;
  for (auto& f : batch.files) {
    if (d.holding && f.reuse_id) {
      d.held.emplace_back(std::move(f));
      continue;
    }
    if (d.holding) d.release();
    d.write(f);
  }
  for (const auto& e : batch.errors) error(e);
}

StagingCounts StagingWriter::finish() {
  auto& d = *impl_;
  if (d.holding && d.same_as_live()) {
    d.unchanged = true;
    return d.live_counts();
  }
  if (d.holding) d.release();
  auto counts = d.generator.finish();
  d.rows.close();
  d.file.finish();
  return counts;
}

bool StagingWriter::unchanged() const noexcept { return impl_->unchanged; }

const storage::RowCounts& StagingWriter::live_rows() const noexcept { return impl_->live_rows; }

}  // namespace marsk_quorvi::cli
