// The tables of a code index.
#pragma once

#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::storage::core_schema {

// Creates, inside the caller's transaction, every table, index and trigger of
// the current schema that the file lacks; existing ones are left alone. Never
// touches tables that belong to other parts of the service.
void create_tables(Cursor& cursor);

}  // namespace marsk_quorvi::storage::core_schema
