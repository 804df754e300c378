// The staging index: a complete index file, built from one extraction in a
// single transaction, for the live index to be replaced from.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "marsk_quorvi/storage/sqlite.hpp"

#include "quorvi/extract.hpp"

namespace marsk_quorvi::cli {

// Lines per code_chunks row: a search hit names a range this long at most.
inline constexpr std::int64_t CHUNK_LINES = 60;

// The staging file that belongs to an index file: beside it, so that the
// swap's ATTACH stays on one volume.
std::filesystem::path staging_path_for(const std::filesystem::path& db_path);

// Removes `path` and the journal files SQLite may have left beside it.
// Harmless when none exists.
void remove_database_files(const std::filesystem::path& path);

struct StagingCounts {
  std::int64_t components = 0;
  std::int64_t files = 0;
  std::int64_t symbols = 0;
  std::int64_t chunks = 0;
  std::int64_t errors = 0;
  std::int64_t imports = 0;
  std::int64_t edges = 0;
};

// The repository files that an include or import may name, by path.
//
// A name resolves to a file of the repository by the first rule that finds
// one: the name taken relative to the including file's folder (as a
// compiler reads `#include "x.h"`), then any file whose path ends with the
// name (as an include path would find `<lib/x.h>`); among several, the one
// that shares the most leading folders with the including file, then the
// shorter path, then the first in path order. A name that climbs above the
// repository resolves to nothing. An import is tried as the files its
// language makes of it: Python's `a.b` as a/b.py or a/b/__init__.py (and
// `from a import b` as a/b.py too), Perl's A::B as A/B.pm, Java's a.b.C as
// a/b/C.java, Ruby's name with .rb added; a shell script's or a Protobuf
// file's as written. Go imports name folders, not files, and resolve to none.
class ImportResolver {
 public:
  void add(const std::string& path, std::int64_t anchor);
  // The anchor of the file `in`, made by the file at `from` in `language`,
  // resolves to; none when no other file of the repository matches.
  std::optional<std::int64_t> resolve(const std::string& from, const std::string& language, const Import& in) const;

 private:
  std::optional<std::int64_t> find(const std::string& from, const std::string& name) const;
  std::unordered_map<std::string, std::int64_t> by_path_;
  std::unordered_map<std::string, std::vector<std::string>> by_last_segment_;
};

// Builds a fresh staging index at `staging` (any old file there is removed
// first) with the tables of the live schema: `components` from the
// top-level folders that hold indexed files, `files`, one `module` anchor
// per file plus a `symbols` row per tag (nested under its enclosing symbol
// when ctags names one), an `external_imports` row per include or import,
// an `edges` row (kind `includes` or `imports`, resolution `exact`) from
// the including file's anchor to the anchor of the file it resolves to (see
// ImportResolver), `code_chunks` with the text of each file in
// CHUNK_LINES-line pieces (at most MAX_CHUNKS_PER_FILE of them: the rest
// of a longer file is left out with a TOO_LARGE_ERROR row naming it), and an
// `index_errors` row per error. The file is
// disposable until swapped in, so it is written without a journal and
// without syncs, in one transaction with each statement prepared once.
// `repo` gives the files' modification times. Raises storage::Error for
// SQLite failures; the half-built file is then removed.
StagingCounts build_staging(const std::filesystem::path& staging, const std::filesystem::path& repo,
                            const Extraction& extraction,
                            const std::function<void(std::size_t, std::size_t)>& on_progress = {});

// Where the rows of a staging index go, one call per row, parents before
// children. build_staging writes them through the access layer's cursors;
// the benchmark's peer writes the same rows through the bare SQLite API.
class StagingRows {
 public:
  virtual ~StagingRows() = default;
  virtual void component(std::int64_t id, const std::string& name) = 0;
  virtual void file(std::int64_t id, const FileRecord& f, const std::string& hash, std::optional<double> mtime,
                    std::optional<std::int64_t> component_id) = 0;
  virtual void symbol(std::int64_t id, std::int64_t file_id, const std::string& name, const std::string& fqn,
                      const std::string& kind, std::int64_t start_line, std::int64_t end_line,
                      std::optional<std::int64_t> parent_id, const std::optional<std::string>& signature) = 0;
  virtual void chunk(std::int64_t rowid, std::string_view text, std::int64_t start_line, std::int64_t end_line) = 0;
  // Rows a consumer that only looks at the others may leave alone.
  virtual void import(std::int64_t /*id*/, std::int64_t /*file_id*/, const Import& /*in*/) {}
  virtual void edge(std::int64_t /*id*/, std::int64_t /*source_id*/, std::int64_t /*target_id*/,
                    const char* /*kind*/, std::int64_t /*line*/) {}
  virtual void error(const FileError& e) = 0;
};

// Hands every row of `extraction` to `rows`, in insertion order.
StagingCounts generate_staging_rows(const std::filesystem::path& repo, const Extraction& extraction, StagingRows& rows,
                                    const std::function<void(std::size_t, std::size_t)>& on_progress = {});

// The file of a staging build: made new with the staging pragmas, the
// schema's tables created and their secondary indexes dropped inside one
// open transaction; `finish` remakes the indexes from their stored
// definitions and commits. Destroying an unfinished one rolls back.
class StagingFile {
 public:
  explicit StagingFile(const std::filesystem::path& path);
  ~StagingFile();
  StagingFile(const StagingFile&) = delete;
  StagingFile& operator=(const StagingFile&) = delete;
  storage::Connection& connection() { return *conn_; }
  void finish();

 private:
  std::shared_ptr<storage::Connection> conn_;
  std::vector<std::pair<std::string, std::string>> deferred_;  // index name, its CREATE statement
  bool open_ = false;
};

// FNV-1a, 64 bits, as 16 hex digits: the content hash stored per file, cheap
// enough to compute for every file of a large tree.
std::string content_hash(const std::string& text);

}  // namespace marsk_quorvi::cli
