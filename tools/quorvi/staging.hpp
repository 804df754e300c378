// The staging index: the rows of a new index, written in a single
// transaction for the live index to be replaced from, either from one
// extraction held in memory (build_staging) or batch by batch as extraction
// goes (StagingWriter).
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

#include "marsk_quorvi/storage/figures.hpp"
#include "marsk_quorvi/storage/sqlite.hpp"

#include "quorvi/extract.hpp"

namespace marsk_quorvi::cli {

// Lines per code_chunks row: a search hit names a range this long at most.
inline constexpr std::int64_t CHUNK_LINES = 60;


// Removes `path` and the journal files SQLite may have left beside it.
// Harmless when none exists.
void remove_database_files(const std::filesystem::path& path);

// How a staging file is written. All but `journaled` write without a
// journal and without syncs, since a staging file that a crash interrupts
// is deleted and built again; all keep a page cache of a fixed size and
// temporary data on disk, so that memory does not grow with the tree.
//   swap_only:  what an index pass writes, for the swap that follows and
//               nothing else: code_chunks is a plain table of FTS5's columns
//               (the swap tokenizes the text into the live index anyway) and
//               the secondary indexes are left out (the swap reads every row
//               in order).
//   index_file: a complete index file, FTS5 table and indexes included.
//   journaled:  an index file with a rollback journal and full syncs, as for
//               a file that must survive a crash: the benchmark's peer.
enum class StagingMode { swap_only, index_file, journaled };

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
// compiler reads `#include "x.h"`), then any other file whose path ends
// with the name (as an include path would find `<lib/x.h>`); among several,
// one whose path before the name is a folder holding the including file,
// then the one that shares the most leading folders with the including file,
// then the shorter path, then the first in path order. A file is never its
// own include (a wrapper that includes its own name means the other file of
// that name). A name that climbs above the
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
  std::int64_t anchor(const std::string& path) const { return by_path_.at(path); }

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
                            const std::function<void(std::size_t, std::size_t)>& on_progress = {},
                            StagingMode mode = StagingMode::index_file);

// What StagingRows::copy_file took over from the live index.
struct CopiedFile {
  std::int64_t anchor = 0;   // the new id of the file's anchor
  std::int64_t symbols = 0;  // rows, the anchor's included
  std::int64_t chunks = 0;
  std::int64_t errors = 0;
  std::vector<Import> imports;  // the file's external_imports rows, not written yet
};

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
  // Writes the rows of the live index's file `live_id` (at `path`) as the
  // rows of file `file_id`, its symbols numbered from `first_symbol_id`.
  // Raises std::logic_error where no live index is at hand.
  virtual CopiedFile copy_file(std::int64_t live_id, const std::string& path, std::int64_t file_id,
                               std::int64_t first_symbol_id);
  // Writes what the rows above may still hold back; before any read of the
  // file and before it is committed.
  virtual void flush() {}
  // Whether read_imports can hand back the import rows written, which then
  // need not be kept in memory until the edges are made.
  virtual bool reads_back() const { return false; }
  // Every import row written, in order, with its file's path and language.
  virtual void read_imports(const std::function<void(const std::string&, const std::string&, const Import&)>&) {}
};

// Hands every row of `extraction` to `rows`, in insertion order.
StagingCounts generate_staging_rows(const std::filesystem::path& repo, const Extraction& extraction, StagingRows& rows,
                                    const std::function<void(std::size_t, std::size_t)>& on_progress = {});


// The file of a staging build: made new with the pragmas of `mode`, the
// schema's tables created and their secondary indexes dropped inside one
// open transaction; `finish` remakes the indexes from their stored
// definitions and commits. Destroying an unfinished one rolls back. With
// `live` (an index file), that file is attached read-only as `live` before
// the transaction begins, with a temporary table for renumbering symbols;
// `attached()` tells whether that worked (SQLite built with URI names, a
// readable file).
class StagingFile {
 public:
  explicit StagingFile(const std::filesystem::path& path, StagingMode mode = StagingMode::index_file,
                       const std::optional<std::filesystem::path>& live = std::nullopt);
  bool attached() const noexcept { return attached_; }
  ~StagingFile();
  StagingFile(const StagingFile&) = delete;
  StagingFile& operator=(const StagingFile&) = delete;
  storage::Connection& connection() { return *conn_; }
  void finish();

 private:
  std::shared_ptr<storage::Connection> conn_;
  std::vector<std::pair<std::string, std::string>> deferred_;  // index name, its CREATE statement
  bool open_ = false;
  bool attached_ = false;
};

// A staging build fed as extraction goes, one batch at a time, on one
// thread. With a live index of the same extractor stamp, it offers that
// index's files for re-use (see ExtractOptions::reuse) and copies the rows
// of every re-used file from it (see StagingRows::copy_file).
//
// When every file of the walk re-uses its live row, the live index has no
// other file, and its error rows are the ones this walk found, the staging
// file would hold the live index's very rows: nothing is written then, and
// `unchanged()` says so. The rows of re-used files are held back (they are
// small without their text) until a file or an error row that differs
// decides otherwise.
class StagingWriter {
 public:
  // `live` may name a file that does not exist: then nothing is re-used.
  StagingWriter(const std::filesystem::path& staging, const std::filesystem::path& repo,
                const std::optional<std::filesystem::path>& live, const storage::ExtractorVersions& stamp,
                StagingMode mode = StagingMode::swap_only);
  ~StagingWriter();
  StagingWriter(const StagingWriter&) = delete;
  StagingWriter& operator=(const StagingWriter&) = delete;

  const ReuseMap& reusable() const noexcept;
  void error(const FileError& e);
  void add(ExtractedBatch&& batch);  // its files, then its errors
  // Writes the edges, remakes the indexes and commits; raises
  // storage::Error, after which the file is to be removed.
  StagingCounts finish();
  bool unchanged() const noexcept;
  // The live index's rows per table, as a swap would report them, when
  // unchanged.
  const storage::RowCounts& live_rows() const noexcept;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace marsk_quorvi::cli
