// The migration registry: brings an index file made by an older build to this
// build's schema version, one registered step at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "marsk_quorvi/errors.hpp"
#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::storage::migrations {

// The version of a file that records none (the first release).
extern const std::string OLDEST_VERSION;
// This build's schema version.
extern const std::string SCHEMA_VERSION;

// Opens one scoped transaction on the database and runs the body in it: the
// database's own `transaction`, bound to it.
using Transaction = std::function<void(const std::function<void(Cursor&)>&)>;

// Runs the registered steps that come after `version`, oldest first, each in
// its own scope opened through `transaction`, and returns the version reached.
// A failing step is logged once and raised as SchemaMigrationError.
std::string migrate(const Transaction& transaction, const std::string& version);

// Marks stale, inside the caller's transaction, every file of the given
// languages (never empty) so the next index pass re-parses them. Returns how
// many files were marked.
std::int64_t mark_files_stale(Cursor& cursor, const std::vector<std::string>& languages);

// Runs a multi-statement DDL script on the cursor's connection, inside the
// caller's transaction.
void run_ddl(Cursor& cursor, std::string_view ddl);

// Creates the empty full-text table code_chunks (rowid, text, start_line,
// end_line, exact) and its file trigger; both statements are conditional, so
// on a file that has them it changes nothing.
//
// A chunk's rowid encodes its file (core_schema::chunk_rowid). The link
// thus travels with the five columns a bulk copy carries, and a file's chunks
// are one rowid range, which the trigger files_delete_code_chunks deletes
// when the `files` row goes. Only `text` is tokenised; `exact` is 1 when the
// chunk is the file's verbatim text. Dropping code_chunks leaves that trigger
// on `files`, where it fails every delete until code_chunks exists again.
extern const std::string CODE_CHUNKS_DDL;

}  // namespace marsk_quorvi::storage::migrations
