// Reading the walked files and extracting their symbols, in parallel
// batches: the "walk + extract" half of an index pass.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
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
  bool include = false;  // an #include (or a makefile's include) rather than an import
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
  std::string text;
  std::int64_t size = 0;
  std::int64_t line_count = 0;
  std::optional<double> mtime;  // of the file as read
  std::vector<Tag> tags;  // definitions only, sorted by line, then name
  std::vector<Import> imports;
};

// A file (or folder) that could not be indexed, as an index_errors row.
struct FileError {
  std::string path;
  std::string error_type;
  std::string message;
  std::optional<std::int64_t> line;
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
  std::size_t batch_files = 256;    // files per ctags run
  std::size_t batch_bytes = 8u << 20;
  // Progress: files done so far, files in all.
  std::function<void(std::size_t, std::size_t)> on_progress;
};

// Reads every walked file under `repo` (without following a symbolic link,
// see read_source) and runs ctags (`ctags` may be none: then no symbols are
// extracted) over the readable files of parsed languages, batch by batch on
// `jobs` threads. ctags reads each file through a link in a private
// temporary folder, so a file whose name is not UTF-8 keeps its symbols. A
// batch on which ctags fails is run again file by file, so that one bad file
// costs only its own symbols and gets a PARSE_ERROR row. The walk's problems
// come first among the errors. Each batch holds its files open while its
// ctags runs, so batches are cut to what the limit of open files allows
// (whose soft value is raised to the hard one for that). Raises only for
// what it cannot go on without (a ctags that cannot be started, no
// temporary folder).
Extraction extract(const std::filesystem::path& repo, const WalkResult& walked, const Ctags* ctags,
                   const ExtractOptions& options);

}  // namespace marsk_quorvi::cli
