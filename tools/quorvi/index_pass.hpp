// One full index pass over a repository: walk and extract, build the staging
// index beside the live one, swap it in, remove it.
#pragma once

#include <cstdint>
#include <filesystem>

#include "marsk_quorvi/storage/database.hpp"
#include "quorvi/ctags.hpp"
#include "quorvi/extract.hpp"
#include "quorvi/progress.hpp"
#include "quorvi/staging.hpp"

namespace marsk_quorvi::cli {

// What this tool makes of ctags' tags: raised whenever the same ctags
// would give the index other rows (kinds, fields, languages told apart,
// includes resolved), so that no file re-uses rows an older build extracted.
inline constexpr std::int64_t EXTRACTION_REVISION = 2;

// The extractor stamp of this build: for every parsed language, the ctags
// version number times 100 plus EXTRACTION_REVISION (empty without ctags).
storage::ExtractorVersions extractor_versions(const Ctags* ctags);

// Opens `db` the way the service does: connect, create_schema,
// migrate_schema.
void open_like_the_service(storage::Database& db);

struct IndexPass {
  std::size_t files_walked = 0;
  std::int64_t pruned = 0;
  std::size_t files_indexed = 0;
  std::size_t files_reused = 0;  // of files_indexed: rows taken from the live index
  std::size_t file_errors = 0;
  std::int64_t tags = 0;  // symbols of the new index, re-used ones included
  // Every file re-used and nothing else changed: no staging file was
  // written and nothing is to be swapped; `rows` holds the live counts.
  bool unchanged = false;
  StagingCounts staging;
  storage::RowCounts rows;  // what the swap inserted, per table
  std::int64_t generation = 0;
  // The live file's pages before the swap and after it, with the compaction
  // that ends every swap.
  storage::PageCounts before, after;
  double walk_extract_seconds = 0;
  double staging_seconds = 0;
  double swap_seconds = 0;
};

// Walks `repo`, extracts and builds the staging index at `staging`, leaving
// out the index file `db_path` and the files beside it that share its name.
// Extraction and the staging build overlap: ctags runs on `options.jobs`
// threads while this thread writes the batches done so far, and only a few
// batches are held at once, so memory does not grow with the tree. A file
// that has not changed since the index at `db_path` was built (same path,
// size, modification time, content hash and language, same extractor
// stamp) takes its rows from that index instead of being parsed; should
// that index prove damaged while its rows are read, the pass starts over
// without it. Raises, before anything is swapped, when the repository's
// root cannot be listed: a walk that sees nothing must not replace a good
// index.
void build_pass(IndexPass& pass, const std::filesystem::path& repo, const std::filesystem::path& db_path,
                const std::filesystem::path& staging, const Ctags* ctags, const ExtractOptions& options,
                Progress& progress);

// Replaces the index in `db` (whose extractor stamp the caller has
// refreshed) with `staging`; a failed swap leaves the live index as it was.
void swap_pass(IndexPass& pass, storage::Database& db, const std::filesystem::path& staging, Progress& progress);

}  // namespace marsk_quorvi::cli
