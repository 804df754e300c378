// Opening the index file is a read: a process that starts up while another
// one is inside a transaction must not make that transaction fail.
#include <gtest/gtest.h>

#include "support/index_rows.hpp"
#include "support/test_support.hpp"

namespace marsk_quorvi::testing {
namespace {

// Another process that merely opens the file (connect, and nothing else) must
// not commit anything: a commit would end the snapshot of every transaction
// open elsewhere that has read and not yet written, and SQLite fails such a
// transaction's first write at once with "database is locked", without
// waiting out the busy time-out. A swap reads before its first write, so a
// process starting up would fail a forced re-index running in another one.
class OpenElsewhereTest : public TempDirTest {};

TEST_F(OpenElsewhereTest, CommitsNothingAndLeavesATransactionThatHasReadFreeToWrite) {
  const auto live = path("index.db");
  storage::Database db(live);
  db.connect();
  db.create_schema();
  db.migrate_schema();
  auto data_version = [&] { return db.connection()->execute("PRAGMA data_version").fetchone().value()[0].as_int(); };

  const auto before = data_version();
  ASSERT_EQ(run_peer({"generation", live.string()}).status, 0);
  EXPECT_EQ(data_version(), before) << "opening the file in another process committed a change";

  try {
    db.transaction([&](storage::Cursor& cursor) {
      EXPECT_EQ(cursor.execute("SELECT count(*) FROM files").fetchone().value()[0].as_int(), 0);
      ASSERT_EQ(run_peer({"generation", live.string()}).status, 0);
      cursor.execute("INSERT INTO components (id, name) VALUES (1, 'core')");
    });
  } catch (const storage::OperationalError& e) {
    ADD_FAILURE() << "the write after another process opened the file failed: " << e.what();
  }
  EXPECT_EQ(count_rows(db, "components"), 1);
}

}  // namespace
}  // namespace marsk_quorvi::testing
