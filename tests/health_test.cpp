// Health figures of an index: statistics, the integrity check and the
// per-file error rows.
#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <string>
#include <vector>

#include "marsk_quorvi/models/symbol.hpp"
#include "marsk_quorvi/storage/database.hpp"
#include "support/index_rows.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
namespace mt = marsk_quorvi::testing;

namespace {

class Health : public mt::TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    db.emplace(path("index.db"));
    db->connect();
    db->create_schema();
  }
  void TearDown() override {
    db.reset();
    TempDirTest::TearDown();
  }

  // (file_path, error_type, message, line) of every error row, in insertion order.
  std::vector<std::string> error_rows() {
    std::vector<std::string> out;
    for (const auto& r : db->fetchall("SELECT file_path, error_type, message, line FROM index_errors ORDER BY rowid")) {
      out.push_back(r[0].to_text() + "|" + r[1].to_text() + "|" + r[2].to_text() + "|" + r[3].to_text());
    }
    return out;
  }

  std::optional<mq::Database> db;
};

TEST_F(Health, EmptyIndexCountsZeroInFixedOrder) {
  const mq::RowCounts expected{{"files", 0}, {"symbols", 0}, {"edges", 0}, {"components", 0}, {"errors", 0}};
  EXPECT_EQ(db->get_stats(), expected);
  EXPECT_EQ(db->get_error_count(), 0);
}

TEST_F(Health, StatsCountListedSymbolsAndErrorRowsErrorCountCountsFiles) {
  mt::add_component(*db, 1, "core");
  mt::add_file(*db, 1, "a.py");
  mt::add_file(*db, 2, "b.py");
  mt::add_anchor(*db, 1, 1, "a");
  mt::add_anchor(*db, 2, 2, "b");
  mt::add_symbol(*db, 3, 1, "f");
  mt::add_symbol(*db, 4, 1, "C", "class");
  mt::add_symbol(*db, 5, 2, "g");
  mt::add_edge(*db, 3, 5);
  db->record_error("a.py", "parse_error", "unexpected token", 3);
  db->record_error("a.py", mq::FQN_COLLISION_ERROR);
  db->record_error("b.py", mq::PARTIAL_PARSE_ERROR, "cut short");

  const mq::RowCounts expected{{"files", 2}, {"symbols", 3}, {"edges", 1}, {"components", 1}, {"errors", 3}};
  EXPECT_EQ(db->get_stats(), expected);
  EXPECT_EQ(db->get_error_count(), 2);
  // Omitted message and line are stored as null, never as empty text or 0.
  EXPECT_EQ(error_rows(), (std::vector<std::string>{"a.py|parse_error|unexpected token|3", "a.py|fqn_collision|NULL|NULL",
                                                    "b.py|partial_parse|cut short|NULL"}));
}

TEST_F(Health, ListedConditionSelectsEverySymbolButTheAnchors) {
  mt::add_file(*db, 1, "pkg/a.py");
  mt::add_file(*db, 2, "pkg/b.py");
  mt::add_anchor(*db, 1, 1, "pkg.a");
  mt::add_anchor(*db, 2, 2, "pkg.b");
  const std::vector<std::pair<std::string, std::string>> listed = {
      {"run", "function"}, {"Widget", "class"}, {"draw", "method"}, {"LIMIT", "variable"}};
  for (std::size_t i = 0; i < listed.size(); ++i) {
    // Alternate between the two files: two listed symbols each.
    mt::add_symbol(*db, static_cast<std::int64_t>(10 + i), static_cast<std::int64_t>(1 + i % 2), listed[i].first,
                   listed[i].second);
  }

  // A module declared inside a file hangs under its anchor and is listed.
  db->execute(
      "INSERT INTO symbols (id, file_id, name, fqn, kind, parent_id) VALUES (20, 2, 'inner', 'pkg.b.inner', 'module', 2)");

  std::vector<std::string> names;
  for (const auto& r : db->fetchall("SELECT name FROM symbols WHERE " + marsk_quorvi::models::listed_sql() + " ORDER BY id")) {
    names.push_back(r[0].as_text());
  }
  EXPECT_EQ(names, (std::vector<std::string>{"run", "Widget", "draw", "LIMIT", "inner"}));
  EXPECT_EQ(db->get_stats().at("symbols"), 5);
  // The condition is one expression: it keeps its meaning after AND and OR.
  EXPECT_EQ((*db->fetchone("SELECT COUNT(*) FROM symbols WHERE file_id = 1 AND " + marsk_quorvi::models::listed_sql()))[0]
                .as_int(),
            2);
  EXPECT_EQ((*db->fetchone("SELECT COUNT(*) FROM symbols WHERE id = 1 OR " + marsk_quorvi::models::listed_sql()))[0]
                .as_int(),
            6);
}

struct ClearCase {
  const char* name;
  std::optional<std::string> error_type;
  std::vector<std::string> remaining;
};

TEST_F(Health, ClearFileErrorsRemovesOnlyTheNamedRows) {
  const ClearCase cases[] = {
      {"every row of the file", std::nullopt, {"b.py|parse_error|NULL|NULL"}},
      {"one kind of the file",
       "parse_error",
       {"a.py|io_error|NULL|NULL", "a.py||NULL|NULL", "b.py|parse_error|NULL|NULL"}},
      {"empty kind is a kind, not 'all'",
       "",
       {"a.py|parse_error|NULL|NULL", "a.py|io_error|NULL|NULL", "a.py|parse_error|NULL|NULL",
        "b.py|parse_error|NULL|NULL"}},
      {"a kind the file does not have", "fqn_collision",
       {"a.py|parse_error|NULL|NULL", "a.py|io_error|NULL|NULL", "a.py|parse_error|NULL|NULL", "a.py||NULL|NULL",
        "b.py|parse_error|NULL|NULL"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    db->execute("DELETE FROM index_errors");
    db->record_error("a.py", "parse_error");
    db->record_error("a.py", "io_error");
    db->record_error("a.py", "parse_error");
    db->record_error("a.py", "");
    db->record_error("b.py", "parse_error");
    db->clear_file_errors("a.py", c.error_type);
    EXPECT_EQ(error_rows(), c.remaining);
  }
}

TEST_F(Health, IntegrityCheckPassesAHealthyFileAndFailsADamagedOne) {
  mt::seed_index(*db, {.files = 50, .symbols = 200, .edges = 100, .chunk_bytes = 64});
  EXPECT_TRUE(db->check_integrity());
  db->close();
  // An index whose recorded definition no longer matches what is stored in
  // it: every row is then missing from it, which the check reports.
  const auto damaged = path("damaged.db");
  {
    auto raw = mq::Connection::open(damaged.string());
    raw->executescript(
        "CREATE TABLE t (a INTEGER, b INTEGER);"
        "CREATE INDEX t_a ON t (a);"
        "INSERT INTO t VALUES (1, 100), (2, 200), (3, 300);"
        "PRAGMA writable_schema = ON;"
        "UPDATE sqlite_master SET sql = 'CREATE INDEX t_a ON t (b)' WHERE name = 't_a';"
        "PRAGMA writable_schema = OFF;");
    raw->close();
  }
  mq::Database broken(damaged);
  broken.connect();
  EXPECT_FALSE(broken.check_integrity());
  // The damage is real, not an artefact of how the result is read.
  auto report = broken.fetchone("PRAGMA integrity_check");
  ASSERT_TRUE(report);
  EXPECT_NE((*report)[0].to_text(), "ok");
}

TEST_F(Health, FailuresReachTheCaller) {
  // A missing table makes the whole figure fail; no partial map comes back.
  db->execute("DROP TABLE edges");
  try {
    db->get_stats();
    FAIL() << "get_stats returned despite a missing table";
  } catch (const mq::OperationalError& e) {
    EXPECT_STREQ(e.what(), "no such table: edges");
  }

  db->close();
  struct Op {
    const char* name;
    std::function<void()> call;
  };
  const Op ops[] = {
      {"get_stats", [&] { db->get_stats(); }},
      {"check_integrity", [&] { (void)db->check_integrity(); }},
      {"record_error", [&] { db->record_error("a.py", "io_error"); }},
      {"clear_file_errors", [&] { db->clear_file_errors("a.py"); }},
      {"get_error_count", [&] { db->get_error_count(); }},
  };
  for (const auto& op : ops) {
    SCOPED_TRACE(op.name);
    try {
      op.call();
      ADD_FAILURE() << "no error on a closed database";
    } catch (const marsk_quorvi::RuntimeError& e) {
      EXPECT_STREQ(e.what(), "Database is closed.");
    }
  }
}

TEST_F(Health, ErrorRowsJoinTheWritersTransactionAndOthersSeeOnlyCommittedRows) {
  db->record_error("kept.py", "parse_error");
  EXPECT_THROW(db->transaction([&](mq::Cursor&) {
    db->record_error("a.py", "parse_error");
    db->record_error("b.py", "parse_error");
    db->clear_file_errors("kept.py");
    // The owner reads through the writer connection and sees its own rows.
    EXPECT_EQ(db->get_error_count(), 2);
    EXPECT_EQ(db->get_stats().at("errors"), 2);
    // Another thread reads what is committed, without waiting for the lock.
    auto other = std::async(std::launch::async, [&] { return db->get_error_count(); });
    EXPECT_EQ(other.get(), 1);
    throw std::runtime_error("abandon the pass");
  }),
               std::runtime_error);
  // Rolled back with the transaction: the committed row is still there.
  EXPECT_EQ(error_rows(), std::vector<std::string>{"kept.py|parse_error|NULL|NULL"});
}

}  // namespace
