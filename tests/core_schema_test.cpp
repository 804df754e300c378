// The tables of a code index: what a new file gets, what an existing file
// keeps, and the links between rows (foreign keys, the chunk trigger).
#include <gtest/gtest.h>

#include "marsk_quorvi/storage/core_schema.hpp"
#include "storage/migrations.hpp"
#include "support/access_checks.hpp"

namespace mq = marsk_quorvi::storage;
using marsk_quorvi::testing::rows_or_error;

namespace {

class CoreSchema : public ::testing::Test {
 protected:
  void SetUp() override {
    run("PRAGMA foreign_keys=ON");
    run("CREATE TABLE memories (id INTEGER PRIMARY KEY, body TEXT)");  // another part of the service
    create_tables();
  }
  void create_tables() {
    auto c = conn->cursor();
    c.execute("BEGIN");
    mq::core_schema::create_tables(c);
    c.execute("COMMIT");
  }
  std::string run(const std::string& sql) { return rows_or_error([&] { return conn->execute(sql).fetchall(); }); }
  std::shared_ptr<mq::Connection> conn = mq::Connection::open(":memory:");
};

TEST_F(CoreSchema, NewFileGetsEveryIndexTableAtTheCurrentVersionAndASecondRunChangesNothing) {
  EXPECT_EQ(run("SELECT type, name FROM sqlite_master WHERE type <> 'index' AND name NOT LIKE 'code_chunks_%' "
                "ORDER BY 1, 2"),
            "table|code_chunks;table|components;table|edges;table|external_imports;table|files;table|index_errors;"
            "table|memories;table|pending_references;table|schema_info;table|symbols;"
            "trigger|files_delete_code_chunks;");
  EXPECT_EQ(run("SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name LIKE 'idx_%'"), "14;");
  EXPECT_EQ(run("SELECT * FROM schema_info"), std::string("version|") + mq::migrations::SCHEMA_VERSION + ";");
  run("UPDATE schema_info SET value = '2.0.0' WHERE key = 'version'");
  const auto schema = run("SELECT * FROM sqlite_master");
  create_tables();
  EXPECT_EQ(run("SELECT * FROM sqlite_master"), schema);
  EXPECT_EQ(run("SELECT * FROM schema_info"), "version|2.0.0;");
}

TEST_F(CoreSchema, RowsNeedTheirParentsAndGoWithThem) {
  run("INSERT INTO components (id, name) VALUES (7, 'core')");
  run("INSERT INTO files (id, path, language, component_id) VALUES (1, 'a.c', 'c', 7), (2, 'b.c', 'c', 7)");
  run("INSERT INTO symbols (id, file_id, name, fqn, kind, parent_id) VALUES "
      "(1, 1, 'a', 'a', 'module', NULL), (2, 1, 'f', 'a.f', 'function', 1), (3, 1, 'g', 'a.g', 'function', 1)");
  run("INSERT INTO edges (source_id, target_id, kind) VALUES (2, 3, 'calls')");
  run("INSERT INTO external_imports (file_id, module) VALUES (1, 'stdio')");
  // The first and last chunk of file 1, and the first of file 2, its neighbour in rowid order.
  run("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES "
      "(1048576, 'int alpha;', 1, 1, 1), (2097151, 'int omega;', 9, 9, 0), (2097152, 'int beta;', 1, 1, 1)");
  // Children before parents are refused: the order of a bulk copy matters.
  for (const char* orphan : {"files (id, path, component_id) VALUES (3, 'c.c', 8)",
                             "symbols (id, file_id, name, fqn, kind) VALUES (4, 9, 'f', 'f', 'function')",
                             "symbols (id, file_id, name, fqn, kind, parent_id) VALUES (4, 1, 'f', 'f', 'function', 9)",
                             "edges (source_id, target_id, kind) VALUES (2, 99, 'calls')",
                             "edges (source_id, target_id, kind) VALUES (99, 2, 'calls')",
                             "external_imports (file_id, module) VALUES (9, 'os')"}) {
    EXPECT_EQ(run(std::string("INSERT INTO ") + orphan), "Error: FOREIGN KEY constraint failed") << orphan;
  }
  run("DELETE FROM components");
  EXPECT_EQ(run("SELECT id, component_id FROM files"), "1|NULL;2|NULL;");
  run("DELETE FROM files WHERE id = 1");
  EXPECT_EQ(run("SELECT (SELECT count(*) FROM symbols), (SELECT count(*) FROM edges), "
                "(SELECT count(*) FROM external_imports)"),
            "0|0|0;");
  EXPECT_EQ(run("SELECT rowid FROM code_chunks"), "2097152;");
  EXPECT_EQ(run("SELECT count(*) FROM code_chunks WHERE code_chunks MATCH 'alpha OR omega'"), "0;");
}

}  // namespace
