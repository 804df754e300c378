// Symbols as users see them.
#include "marsk_quorvi/models/symbol.hpp"

namespace marsk_quorvi::models {

std::string listed_sql() { return "kind != 'module'"; }

}  // namespace marsk_quorvi::models
