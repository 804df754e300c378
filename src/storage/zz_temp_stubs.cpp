// Temporary stand-ins until the schema and space units land; weak so the real
// definitions win.
#include "marsk_quorvi/storage/core_schema.hpp"
#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/migrations.hpp"

namespace marsk_quorvi::storage {

__attribute__((weak)) void Database::create_schema() {
  transaction([&](Cursor& c) { core_schema::create_tables(c); });
}
__attribute__((weak)) std::int64_t Database::index_generation() {
  auto r = fetchone("PRAGMA user_version");
  return r ? (*r)[0].as_int() : 0;
}
__attribute__((weak)) void Database::_bump_index_generation(Cursor* cursor) {
  const std::string sql = "PRAGMA user_version = " + std::to_string(index_generation() + 1);
  if (cursor) cursor->execute(sql); else execute(sql);
}

}  // namespace marsk_quorvi::storage
