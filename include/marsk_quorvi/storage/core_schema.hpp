// The tables of a code index.
#pragma once

#include <cstdint>

#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::storage::core_schema {

// A code_chunks row's rowid encodes its file: (file_id << CHUNK_ROWID_BITS)
// + chunk number, so a file holds up to MAX_CHUNKS_PER_FILE chunks and its
// chunks are one rowid range.
inline constexpr int CHUNK_ROWID_BITS = 20;
inline constexpr std::int64_t MAX_CHUNKS_PER_FILE = std::int64_t{1} << CHUNK_ROWID_BITS;
constexpr std::int64_t chunk_rowid(std::int64_t file_id, std::int64_t chunk) {
  return (file_id << CHUNK_ROWID_BITS) + chunk;
}
constexpr std::int64_t chunk_file_id(std::int64_t rowid) { return rowid >> CHUNK_ROWID_BITS; }

// Creates, inside the caller's transaction, every table, index and trigger of
// the current schema that the file lacks; existing ones are left alone. Never
// touches tables that belong to other parts of the service.
void create_tables(Cursor& cursor);

}  // namespace marsk_quorvi::storage::core_schema
