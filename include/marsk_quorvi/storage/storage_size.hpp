// The page size of index files, and the one-time rewrite of files made with
// smaller pages.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::storage::storage_size {

// The page size new index files get. Twice SQLite's default: the chunk text
// of a source file and FTS5's segment blobs (up to ~4 KB each) fit on one
// page instead of spilling into overflow chains, B-trees are a level
// shallower, and full scans and VACUUM read half as many pages. Larger pages
// would make every small point update (a `files` row) write more.
inline constexpr int PAGE_SIZE = 8192;

// Rewrites the file behind the writer `connection` with pages of PAGE_SIZE and
// returns the journal to WAL. Called under the connection lock with no read
// connection of this process open. When `why_not` is given, or another
// process has the file open, the file is left as it was and a warning is
// logged instead. The connection stays usable in every case.
void rewrite_pages(Connection& connection, const std::filesystem::path& db_path,
                   const std::optional<std::string>& why_not);

// The rewrite itself: leaves WAL, sets the page size, VACUUMs, returns to WAL.
void rewrite_file(Connection& connection);

}  // namespace marsk_quorvi::storage::storage_size
