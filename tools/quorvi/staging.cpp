#include "quorvi/staging.hpp"

#include <sys/stat.h>

#include <cstdio>
#include <map>
#include <unordered_map>

#include "marsk_quorvi/storage/core_schema.hpp"
#include "marsk_quorvi/storage/sqlite.hpp"
#include "marsk_quorvi/storage/storage_size.hpp"
#include "marsk_quorvi/utils/path_filter.hpp"

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

}  // namespace

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

StagingCounts build_staging(const fs::path& staging, const fs::path& repo, const Extraction& extraction,
                            const std::function<void(std::size_t, std::size_t)>& on_progress) {
  remove_database_files(staging);
  StagingCounts counts;
  try {
    auto conn = Connection::open(staging.string());
    // A new file: the live page size, and no journal or syncs, since a crash
    // only costs a staging file that the next pass builds again.
    conn->execute("PRAGMA page_size=" + std::to_string(storage::storage_size::PAGE_SIZE));
    conn->execute("PRAGMA journal_mode=OFF").fetchall();
    conn->execute("PRAGMA synchronous=OFF");
    conn->execute("PRAGMA temp_store=MEMORY");
    conn->execute("PRAGMA cache_size=-131072");  // 128 MiB
    utils::register_path_functions(*conn);

    conn->execute("BEGIN");
    try {
      Cursor ddl = conn->cursor();
      storage::core_schema::create_tables(ddl);
      ddl.close();

      Cursor components = conn->cursor();
      Cursor files = conn->cursor();
      Cursor symbols = conn->cursor();
      Cursor chunks = conn->cursor();
      Cursor errors = conn->cursor();

      std::map<std::string, std::int64_t> component_ids;
      for (const auto& f : extraction.files) {
        const auto folder = top_folder(f.path);
        if (!folder.empty() && !component_ids.count(folder)) {
          const auto id = static_cast<std::int64_t>(component_ids.size()) + 1;
          component_ids.emplace(folder, id);
        }
      }
      for (const auto& [name, id] : component_ids) {
        components.execute("INSERT INTO components (id, name, root_path) VALUES (?, ?, ?)", {id, name, name});
      }
      counts.components = static_cast<std::int64_t>(component_ids.size());

      std::int64_t file_id = 0;
      std::int64_t symbol_id = 0;
      std::size_t done = 0;
      for (const auto& f : extraction.files) {
        ++file_id;
        const auto folder = top_folder(f.path);
        Value component = folder.empty() ? Value() : Value(component_ids.at(folder));
        files.execute(
            "INSERT INTO files (id, path, language, content_hash, size, mtime, component_id, stale) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, 0)",
            {file_id, f.path, f.language, content_hash(f.text), f.size, mtime_of(repo / f.path), component});

        // The file's anchor, under which its top-level symbols hang.
        const auto anchor = ++symbol_id;
        const auto name = fs::path(f.path).filename().string();
        symbols.execute(
            "INSERT INTO symbols (id, file_id, name, fqn, kind, start_line, end_line, parent_id, signature) "
            "VALUES (?, ?, ?, ?, 'module', 1, ?, NULL, NULL)",
            {anchor, file_id, name, f.path, std::max<std::int64_t>(f.line_count, 1)});
        // Qualified name within the file -> symbol id, for nesting. Only
        // symbols seen earlier can be parents, so every parent row precedes
        // its children.
        std::unordered_map<std::string, std::int64_t> scopes;
        const std::string sep = scope_separator(f.language);
        for (const auto& tag : f.tags) {
          const auto id = ++symbol_id;
          std::int64_t parent = anchor;
          std::string qualified = tag.name;
          if (tag.scope && !tag.scope->empty()) {
            qualified = *tag.scope + sep + tag.name;
            if (auto it = scopes.find(*tag.scope); it != scopes.end()) parent = it->second;
          }
          scopes.emplace(qualified, id);
          symbols.execute(
              "INSERT INTO symbols (id, file_id, name, fqn, kind, start_line, end_line, parent_id, signature) "
              "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
              {id, file_id, tag.name, f.path + "::" + qualified, tag.kind.empty() ? "unknown" : tag.kind, tag.line,
               tag.end_line.value_or(tag.line), parent, tag.signature});
        }
        counts.symbols += static_cast<std::int64_t>(f.tags.size());

        // The text in pieces of CHUNK_LINES lines, each keyed by the file id
        // and its number, verbatim.
        std::size_t pos = 0;
        std::int64_t line = 1;
        std::int64_t n = 0;
        while (pos < f.text.size()) {
          std::size_t end = pos;
          std::int64_t lines = 0;
          while (end < f.text.size() && lines < CHUNK_LINES) {
            const auto nl = f.text.find('\n', end);
            end = nl == std::string::npos ? f.text.size() : nl + 1;
            ++lines;
          }
          chunks.execute("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, ?, ?, 1)",
                         {(file_id << 20) + n, std::string_view(f.text).substr(pos, end - pos), line,
                          line + lines - 1});
          ++n;
          line += lines;
          pos = end;
        }
        counts.chunks += n;
        ++done;
        if (on_progress && (done % 64 == 0 || done == extraction.files.size())) {
          on_progress(done, extraction.files.size());
        }
      }
      counts.files = file_id;

      for (const auto& e : extraction.errors) {
        errors.execute("INSERT INTO index_errors (file_path, error_type, message, line) VALUES (?, ?, ?, ?)",
                       {e.path, e.error_type, e.message, e.line});
      }
      counts.errors = static_cast<std::int64_t>(extraction.errors.size());
      for (Cursor* c : {&components, &files, &symbols, &chunks, &errors}) c->close();
      conn->execute("COMMIT");
    } catch (...) {
      try {
        conn->execute("ROLLBACK");
      } catch (const storage::Error&) {
        // The failure that brought us here is the one to report.
      }
      throw;
    }
    conn->close();
  } catch (...) {
    remove_database_files(staging);
    throw;
  }
  return counts;
}

}  // namespace marsk_quorvi::cli
