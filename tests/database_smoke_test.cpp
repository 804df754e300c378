#include <gtest/gtest.h>

#include "marsk_quorvi/storage/database.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;

namespace {

class DatabaseSmoke : public marsk_quorvi::testing::TempDirTest {};

TEST_F(DatabaseSmoke, OpenWriteReadClose) {
  mq::Database db(path("repo/memory/codebase-index/index.db"));
  db.connect();
  db.execute("CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT)");
  auto c = db.execute("INSERT INTO t (name) VALUES (?), (?)", {"a", "b"});
  EXPECT_EQ(c.rowcount(), 2);
  db.transaction([&](mq::Cursor& cur) { cur.execute("INSERT INTO t (name) VALUES (?)", {"c"}); });
  auto row = db.fetchone("SELECT count(*) AS n FROM t");
  ASSERT_TRUE(row);
  EXPECT_EQ((*row)["n"].as_int(), 3);
  EXPECT_EQ(db.fetchall("SELECT name FROM t ORDER BY id").size(), 3u);
  auto page = db.fetchone("PRAGMA page_size");
  EXPECT_EQ((*page)[0].as_int(), 8192);
  EXPECT_EQ((*db.fetchone("PRAGMA auto_vacuum"))[0].as_int(), 2);
  EXPECT_EQ((*db.fetchone("SELECT path_ext('src/A.CPP')"))[0].as_text(), "cpp");
  db.close();
  EXPECT_TRUE(db.closed());
}

}  // namespace
