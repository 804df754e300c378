// The staging index: a complete index file, built from one extraction in a
// single transaction, for the live index to be replaced from.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

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
};

// Builds a fresh staging index at `staging` (any old file there is removed
// first) with the tables of the live schema: `components` from the
// top-level folders that hold indexed files, `files`, one `module` anchor
// per file plus a `symbols` row per tag (nested under its enclosing symbol
// when ctags names one), `code_chunks` with the text of each file in
// CHUNK_LINES-line pieces, and an `index_errors` row per error. The file is
// disposable until swapped in, so it is written without a journal and
// without syncs, in one transaction with each statement prepared once.
// `repo` gives the files' modification times. Raises storage::Error for
// SQLite failures; the half-built file is then removed.
StagingCounts build_staging(const std::filesystem::path& staging, const std::filesystem::path& repo,
                            const Extraction& extraction,
                            const std::function<void(std::size_t, std::size_t)>& on_progress = {});

// FNV-1a, 64 bits, as 16 hex digits: the content hash stored per file, cheap
// enough to compute for every file of a large tree.
std::string content_hash(const std::string& text);

}  // namespace marsk_quorvi::cli
