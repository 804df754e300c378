// One full index pass over a repository: walk and extract, build the staging
// index beside the live one, swap it in, remove it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"
#include "quorvi/ctags.hpp"
#include "quorvi/extract.hpp"
#include "quorvi/progress.hpp"
#include "quorvi/staging.hpp"

namespace marsk_quorvi::cli {

// The extractor stamp of this build: the ctags version for every parsed
// language (empty without ctags).
storage::ExtractorVersions extractor_versions(const Ctags* ctags);

// Opens `db` the way the service does: connect, create_schema,
// migrate_schema.
void open_like_the_service(storage::Database& db);

struct IndexPass {
  std::size_t files_walked = 0;
  std::int64_t pruned = 0;
  std::size_t files_indexed = 0;
  std::size_t file_errors = 0;
  std::int64_t tags = 0;
  StagingCounts staging;
  storage::RowCounts rows;   // what the swap inserted, per table
  std::int64_t generation = 0;
  // The lines the swap's own compaction logged ("Compacted ...", "Compaction
  // of ... skipped: ..."); empty when it found too little to release.
  std::vector<std::string> compaction;
  double walk_extract_seconds = 0;
  double staging_seconds = 0;
  double swap_seconds = 0;
};

// Runs a pass over `repo` into the open `db` (whose extractor stamp the
// caller has refreshed). The staging file is removed afterwards, also when
// the pass fails; a failed pass leaves the live index as it was.
IndexPass run_index_pass(storage::Database& db, const std::filesystem::path& repo, const Ctags* ctags,
                         const ExtractOptions& options, Progress& progress);

}  // namespace marsk_quorvi::cli
