// The tables of a code index: what a new file gets, what an existing file
// keeps, and the links between rows (foreign keys, the chunk trigger).
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "marsk_quorvi/storage/core_schema.hpp"
#include "storage/migrations.hpp"
#include "marsk_quorvi/storage/sqlite.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
namespace migrations = mq::migrations;

namespace {

class CoreSchema : public marsk_quorvi::testing::TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    conn = mq::Connection::open(path("index.db").string());
    conn->execute("PRAGMA foreign_keys=ON");
  }

  void create_tables() {
    auto c = conn->cursor();
    c.execute("BEGIN");
    mq::core_schema::create_tables(c);
    c.execute("COMMIT");
  }

  std::set<std::string> objects() {
    std::set<std::string> out;
    for (const auto& r : conn->execute("SELECT type || ' ' || name FROM sqlite_master").fetchall()) {
      out.insert(r[0].as_text());
    }
    return out;
  }

  std::int64_t scalar(const std::string& sql) { return (*conn->execute(sql).fetchone())[0].as_int(); }

  std::shared_ptr<mq::Connection> conn;
};

TEST_F(CoreSchema, NewFileGetsEveryIndexTableAtTheCurrentVersionAndNothingElse) {
  conn->execute("CREATE TABLE memories (id INTEGER PRIMARY KEY, body TEXT)");
  conn->execute("INSERT INTO memories (body) VALUES ('keep me')");
  create_tables();

  const auto after = objects();
  for (const char* table : {"schema_info", "components", "files", "symbols", "edges", "external_imports",
                            "pending_references", "index_errors", "code_chunks"}) {
    EXPECT_TRUE(after.count(std::string("table ") + table)) << table;
  }
  EXPECT_TRUE(after.count("trigger files_delete_code_chunks"));
  for (const auto& name : after) {
    EXPECT_EQ(name.find("wiki_"), std::string::npos) << name;
    EXPECT_EQ(name.find("tool_health"), std::string::npos) << name;
  }
  EXPECT_EQ((*conn->execute("SELECT value FROM schema_info WHERE key = 'version'").fetchone())[0].as_text(),
            migrations::SCHEMA_VERSION);
  EXPECT_EQ(scalar("SELECT count(*) FROM memories"), 1);

  // A second run changes nothing, also when the version row says otherwise.
  conn->execute("UPDATE schema_info SET value = '2.0.0' WHERE key = 'version'");
  create_tables();
  EXPECT_EQ(objects(), after);
  EXPECT_EQ((*conn->execute("SELECT value FROM schema_info WHERE key = 'version'").fetchone())[0].as_text(), "2.0.0");
}

TEST_F(CoreSchema, DeletingAFileDeletesExactlyItsChunkRange) {
  create_tables();
  conn->execute("INSERT INTO files (id, path, language) VALUES (1, 'a.c', 'c'), (2, 'b.c', 'c')");
  // First and last chunk numbers of file 1, first of file 2 (its neighbour
  // in rowid order).
  const std::int64_t f1 = 1LL << 20, f2 = 2LL << 20;
  conn->executemany("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, ?, ?, ?)",
                    {{f1, "int alpha;", 1, 1, 1}, {f1 + 1048575, "int omega;", 9, 9, 0}, {f2, "int beta;", 1, 1, 1}});
  EXPECT_EQ(scalar("SELECT rowid >> 20 FROM code_chunks WHERE code_chunks MATCH 'omega'"), 1);

  conn->execute("DELETE FROM files WHERE id = 1");
  std::vector<std::int64_t> left;
  for (const auto& r : conn->execute("SELECT rowid FROM code_chunks ORDER BY rowid").fetchall()) {
    left.push_back(r[0].as_int());
  }
  EXPECT_EQ(left, std::vector<std::int64_t>{f2});
  EXPECT_EQ(scalar("SELECT count(*) FROM code_chunks WHERE code_chunks MATCH 'alpha OR omega'"), 0);
}

TEST_F(CoreSchema, RowsNeedTheirParentsAndGoWithThem) {
  create_tables();
  // Children before parents is refused: the order of a bulk copy matters.
  const char* orphans[] = {
      "INSERT INTO files (id, path, component_id) VALUES (1, 'a.c', 7)",
      "INSERT INTO symbols (id, file_id, name, fqn, kind) VALUES (1, 9, 'f', 'f', 'function')",
      "INSERT INTO external_imports (file_id, module) VALUES (9, 'os')",
  };
  for (const char* sql : orphans) {
    EXPECT_THROW(conn->execute(sql), mq::Error) << sql;
  }

  conn->execute("INSERT INTO components (id, name) VALUES (7, 'core')");
  conn->execute("INSERT INTO files (id, path, language, component_id) VALUES (1, 'a.c', 'c', 7)");
  conn->execute(
      "INSERT INTO symbols (id, file_id, name, fqn, kind, parent_id) VALUES "
      "(1, 1, 'a', 'a', 'module', NULL), (2, 1, 'f', 'a.f', 'function', 1), (3, 1, 'g', 'a.g', 'function', 1)");
  conn->execute("INSERT INTO edges (source_id, target_id, kind) VALUES (2, 3, 'calls')");
  conn->execute("INSERT INTO external_imports (file_id, module) VALUES (1, 'stdio')");
  EXPECT_THROW(conn->execute("INSERT INTO edges (source_id, target_id, kind) VALUES (2, 99, 'calls')"), mq::Error);

  conn->execute("DELETE FROM components");
  EXPECT_TRUE((*conn->execute("SELECT component_id FROM files").fetchone())[0].is_null());
  conn->execute("DELETE FROM files");
  for (const char* table : {"symbols", "edges", "external_imports"}) {
    EXPECT_EQ(scalar(std::string("SELECT count(*) FROM ") + table), 0) << table;
  }
}

}  // namespace
