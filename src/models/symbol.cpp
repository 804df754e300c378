// Symbols as users see them.
#include "marsk_quorvi/models/symbol.hpp"

namespace marsk_quorvi::models {

// The indexer keeps one anchor per file: a symbol of kind 'module' without a
// parent, under which the file's other symbols hang. A module declared inside
// a file has a parent and is listed like any other symbol. Parenthesised so
// that it stays one condition after AND or OR.
std::string listed_sql() { return "(kind <> 'module' OR parent_id IS NOT NULL)"; }

}  // namespace marsk_quorvi::models
