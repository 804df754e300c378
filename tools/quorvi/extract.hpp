// Reading the walked files and extracting their symbols, in parallel
// batches: the "walk + extract" half of an index pass.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "quorvi/ctags.hpp"
#include "quorvi/walker.hpp"

namespace marsk_quorvi::cli {

// An include or import a file makes, from a reference tag of ctags: one
// external_imports row.
struct Import {
  std::string module;  // the included or imported name as written
  std::optional<std::string> name;   // what is taken from it ("from module import name")
  std::optional<std::string> alias;  // the name it is bound to ("as alias")
  std::int64_t line = 0;
  bool operator==(const Import&) const = default;
};

// Splits the reference tags off `tags`: each include or import becomes an
// Import, in line order; other references (an #undef, a here-document's end
// marker) are dropped, since they define nothing.
std::vector<Import> take_imports(std::vector<Tag>& tags);

// A file whose text made it into the index.
struct FileRecord {
  std::string path;  // repository-relative
  std::string language;
  std::string text;  // empty for a re-used file
  std::string hash;  // content_hash of the text
  std::int64_t size = 0;
  std::int64_t line_count = 0;
  std::optional<double> mtime;  // of the file as read
  std::vector<Tag> tags;  // definitions only, sorted by line, then name
  std::vector<Import> imports;
  // The live index's id of this very file when its rows are re-used instead
  // of being extracted again (see ReuseMap); its text and tags are then left
  // empty.
  std::optional<std::int64_t> reuse_id;
};

// A file (or folder) that could not be indexed, as an index_errors row.
struct FileError {
  std::string path;
  std::string error_type;
  std::string message;
  std::optional<std::int64_t> line;
  bool operator==(const FileError&) const = default;
};

// A `files` row of the live index whose rows a file that has not changed
// may re-use.
struct LiveFile {
  std::int64_t id = 0;
  std::int64_t size = 0;
  std::optional<double> mtime;
  std::string hash;
  std::string language;
};
// Repository-relative path -> its live row.
using ReuseMap = std::unordered_map<std::string, LiveFile>;

// What one batch of walked files gave, in walk order.
struct ExtractedBatch {
  std::vector<FileRecord> files;
  std::vector<FileError> errors;
  std::size_t walked = 0;  // walked files the batch covered
  std::int64_t ctags_runs = 0;
};

struct Extraction {
  std::vector<FileRecord> files;  // in walk order
  std::vector<FileError> errors;  // in walk order
  std::int64_t tags = 0;
  std::int64_t ctags_runs = 0;
};

struct ExtractOptions {
  std::int64_t max_file_bytes = 0;  // 0: DEFAULT_MAX_FILE_BYTES
  unsigned jobs = 0;                // 0: one per core
  std::size_t batch_files = 128;    // files per ctags run, at most
  std::size_t batch_bytes = 2u << 20;
  // Progress: files done so far, files in all.
  std::function<void(std::size_t, std::size_t)> on_progress;
  // Live rows that unchanged files re-use: a file whose path, size,
  // modification time, content hash and language match its entry is read
  // (for the hash) but not parsed.
  const ReuseMap* reuse = nullptr;
  // Batches that may wait done for the writer besides the one each thread
  // has in hand: with those, what bounds the memory of a pass, whatever the
  // size of the tree. 0: none; a thread that is done ahead of the writer
  // waits for it.
  std::size_t ahead = 0;
};

// Reads every walked file under `repo` (without following a symbolic link,
// see read_source) and runs ctags (`ctags` may be none: then no symbols are
// extracted) over the readable files of parsed languages, batch by batch on
// `jobs` threads, and hands each batch to `sink` on the calling thread, in
// walk order, as soon as it and every batch before it are done; at most
// `jobs` + `ahead` batches are taken and not yet handed over. ctags reads each file through a link in a
// private temporary folder, so a file whose name is not UTF-8 keeps its
// symbols. A batch on which ctags fails is run again file by file, so that
// one bad file costs only its own symbols and gets a PARSE_ERROR row. Each
// batch holds its files open while its ctags runs, so batches are cut to
// what the limit of open files allows (whose soft value is raised to the
// hard one for that). Raises only for what it cannot go on without (a ctags
// that cannot be started, no temporary folder) and for what `sink` raises;
// the threads are joined first.
void extract_batches(const std::filesystem::path& repo, const WalkResult& walked, const Ctags* ctags,
                     const ExtractOptions& options, const std::function<void(ExtractedBatch&&)>& sink);

// The same, gathered into one Extraction: the walk's problems first among
// the errors. Holds every text at once, so it is for small trees and tests.
Extraction extract(const std::filesystem::path& repo, const WalkResult& walked, const Ctags* ctags,
                   const ExtractOptions& options);

}  // namespace marsk_quorvi::cli
