// Symbols as users see them.
#pragma once

#include <string>

namespace marsk_quorvi::models {

// The SQL condition, usable right after "WHERE " in a statement on the
// `symbols` table, that selects the symbols shown to users: every symbol but
// the per-file top-level anchors the indexer keeps.
std::string listed_sql();

}  // namespace marsk_quorvi::models
