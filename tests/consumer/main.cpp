// Creates an index in the directory given and finds its tables through a query.
#include <cstdio>
#include <filesystem>

#include "marsk_quorvi/storage/database.hpp"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  marsk_quorvi::storage::Database db(std::filesystem::path(argv[1]) / "index.db");
  db.connect();
  db.create_schema();
  auto row = db.fetchone("SELECT COUNT(*) FROM sqlite_master WHERE name IN ('files', 'index_errors')");
  const auto tables = row ? (*row)[0].as_int() : -1;
  db.close();
  std::printf("tables: %lld\n", static_cast<long long>(tables));
  return tables == 2 ? 0 : 1;
}
