// Emptying the index, swapping a staging file in, and the health figures:
// statistics, the integrity check and the per-file error rows.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "marsk_quorvi/models/symbol.hpp"
#include "support/index_rows.hpp"
#include "support/test_support.hpp"

namespace fs = std::filesystem;
namespace mq = marsk_quorvi::storage;
namespace mt = marsk_quorvi::testing;
using Strings = std::vector<std::string>;

namespace {

class IndexSwap : public mt::IndexTest {
 protected:
  void SetUp() override {
    IndexTest::SetUp();
    db = open(path("live/index.db"));
  }
  fs::path staging(const std::string& name, const mt::Seed& seed, const std::function<void(mq::Database&)>& edit = {}) {
    return mt::make_staging_file(path(name), seed, edit);
  }
  std::int64_t scalar(const std::string& sql) { return (*db->fetchone(sql))[0].as_int(); }
  std::unique_ptr<mt::TestDb> db;
};

// Everything but the index rows, the generation and the full-text table.
mt::State outside_index(mt::State s) {
  for (const auto& key : mt::kIndexTables) s.erase(key);
  s.erase("generation");
  std::erase_if(s, [](const auto& entry) { return entry.first.starts_with("code_chunks"); });
  return s;
}

mt::State index_rows(const mt::State& s) {
  auto out = mt::index_content(s);
  out.erase("schema_info");
  out.erase("generation");
  return out;
}

std::string bytes(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// A file from before the chunk text existed: no code_chunks and no trigger naming it.
void drop_code_chunks(mq::Database& d) {
  d.execute("DROP TRIGGER files_delete_code_chunks");
  d.execute("DROP TABLE code_chunks");
}

// What the writer connection's hooks saw: `look` runs inside the swap's
// transaction once it has written, and after every commit.
struct Hooks {
  sqlite3* handle;
  std::function<void()> look;
  std::int64_t changes = sqlite3_total_changes64(handle);
  bool looked_inside = false;

  static int progress(void* self_ptr) {
    auto* self = static_cast<Hooks*>(self_ptr);
    if (!self->looked_inside && !sqlite3_get_autocommit(self->handle) &&
        sqlite3_total_changes64(self->handle) > self->changes) {
      self->looked_inside = true;
      self->look();
    }
    return 0;
  }
  static int committed(void* self_ptr, sqlite3*, const char*, int) {
    static_cast<Hooks*>(self_ptr)->look();
    return SQLITE_OK;
  }
};

TEST_F(IndexSwap, SwapReplacesTheIndexTablesAtOnceAndGivesTheFreedPagesBack) {
  mt::seed_index(*db, {.files = 3000, .symbols = 90, .edges = 40, .chunk_bytes = 3000, .tag = "old"});
  db->execute("PRAGMA user_version = 5");
  db->execute("INSERT INTO schema_info (key, value) VALUES ('last_index', 'yesterday')");
  db->execute("INSERT INTO pending_references (source_path, source_fqn, target_name, kind) VALUES ('a', 'a.f', 'g', 'c')");
  db->execute("CREATE TABLE memories (body TEXT)");
  db->execute("INSERT INTO memories (body) VALUES ('keep me')");
  const auto file = staging("staging.db", {.files = 20, .symbols = 50, .edges = 30, .chunk_bytes = 32, .tag = "new"},
                            [](mq::Database& s) {
                              s.execute("PRAGMA user_version = 41");
                              s.execute("INSERT INTO schema_info (key, value) VALUES ('last_index', 'today')");
                            });
  const auto staged = bytes(file);
  const auto before = mt::snapshot(*db);
  const auto pages_before = scalar("PRAGMA page_count");
  // Another thread reads the generation and the rows in one statement,
  // halfway through the swap's transaction and after each commit.
  Strings seen;
  const auto read = [&] {
    return (*db->fetchone("SELECT (SELECT user_version FROM pragma_user_version) || '|' || "
                          "(SELECT COUNT(*) FROM files) || '|' || (SELECT COUNT(*) FROM symbols)"))[0]
        .as_text();
  };
  Hooks hooks{db->connection()->handle(), [&] {
                const auto now = std::async(std::launch::async, read).get();
                if (seen.empty() || seen.back() != now) seen.push_back(now);
              }};
  sqlite3_progress_handler(hooks.handle, 100, &Hooks::progress, &hooks);
  sqlite3_wal_hook(hooks.handle, &Hooks::committed, &hooks);
  mt::LogCapture log;

  const auto counts = db->swap_index_from(file);

  sqlite3_progress_handler(hooks.handle, 0, nullptr, nullptr);
  sqlite3_wal_autocheckpoint(hooks.handle, 1000);
  EXPECT_EQ(counts, (mq::RowCounts{{"components", 1}, {"files", 20}, {"symbols", 50}, {"edges", 30},
                                   {"external_imports", 2}, {"index_errors", 2}, {"code_chunks", 20}}));
  EXPECT_EQ(seen, (Strings{"5|3000|90", "6|20|50"}));
  const auto after = mt::snapshot(*db);
  EXPECT_EQ(index_rows(after), index_rows(mt::snapshot(file)));
  EXPECT_EQ(after.at("generation"), Strings{"6"});
  EXPECT_EQ(outside_index(after), outside_index(before));
  EXPECT_EQ(bytes(file), staged);
  // The re-created full-text table indexes the copied text.
  EXPECT_EQ(scalar("SELECT COUNT(*) FROM code_chunks WHERE code_chunks MATCH 'new'"), 20);
  EXPECT_EQ(scalar("SELECT COUNT(*) FROM code_chunks WHERE code_chunks MATCH 'old'"), 0);
  EXPECT_EQ(mt::attached(*db), Strings{"main"});
  const auto records = log.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0], (mt::LogRecord{spdlog::level::info,
                                       "swap_index_from: replaced live index from " + file.string() +
                                           " (rows inserted: {'components': 1, 'files': 20, 'symbols': 50, "
                                           "'edges': 30, 'external_imports': 2, 'index_errors': 2, "
                                           "'code_chunks': 20})"}));
  EXPECT_TRUE(records[1].text.starts_with("Compacted " + db->db_path.string() + ": ")) << records[1].text;
  EXPECT_LT(scalar("PRAGMA page_count"), pages_before / 2);
  EXPECT_EQ(mt::PeerProcess::run({"generation", db->db_path.string()}).output, "6\n");
}

TEST_F(IndexSwap, CodeChunksFollowWhatEachFileHasAndExtraStagingColumnsAreLeftOut) {
  const struct {
    const char* name;
    bool live_has, staging_has;
  } cases[] = {{"live without, staging with", false, true},
               {"live with, staging without", true, false},
               {"both with", true, true},
               {"neither", false, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    db = open(std::string(c.name) + ".db");
    mt::seed_index(*db, {.files = 6, .symbols = 12, .edges = 4, .chunk_bytes = 16, .tag = "old"});
    if (!c.live_has) drop_code_chunks(*db);
    const auto file = staging(std::string(c.name) + "-staging.db", {.files = 9, .symbols = 9, .chunk_bytes = 16},
                              [&](mq::Database& s) {
                                s.execute("UPDATE code_chunks SET rowid = rowid + 7");  // kept, never renumbered
                                s.execute("ALTER TABLE symbols ADD COLUMN note TEXT");
                                s.execute("UPDATE symbols SET note = 'staging only'");
                                if (!c.staging_has) drop_code_chunks(s);
                              });

    const auto counts = db->swap_index_from(file);

    const bool copied = c.live_has && c.staging_has;
    EXPECT_EQ(counts.size(), copied ? 7u : 6u);
    EXPECT_EQ(std::prev(counts.end())->first, copied ? "code_chunks" : "index_errors");
    EXPECT_EQ(counts.at("symbols"), 9);
    EXPECT_EQ(mt::has_table(*db, "code_chunks"), c.live_has);
    if (c.live_has) EXPECT_EQ(scalar("SELECT count(*) FROM code_chunks"), copied ? 9 : 0);
    if (copied) EXPECT_EQ(scalar("SELECT sum(rowid) FROM code_chunks"), (45 << 20) + 9 * 7);  // files 1 to 9
    EXPECT_EQ(db->index_generation(), 1);
    // The file trigger works on the re-created table, and deleting is possible at all.
    db->execute("DELETE FROM files WHERE id = 4");
    if (c.live_has) EXPECT_EQ(mt::count_rows(*db, "code_chunks"), copied ? 8 : 0);
  }
}

// Missing columns, non-databases and directories are the reliability suite's
// (bad staging files); here the failures that come late in the transaction.
TEST_F(IndexSwap, FailedSwapLeavesTheLiveIndexExactlyAsItWas) {
  const struct {
    const char* name;
    std::function<fs::path()> staging;
    std::string message;
    const char* live_trigger = nullptr;
  } cases[] = {
      {"missing", [&] { return path("nowhere/staging.db"); },
       "Staging database not found: " + path("nowhere/staging.db").string()},
      {"code_chunks lacks a column, after every table was copied",
       [&] {
         return staging("c.db", {.files = 5}, [](mq::Database& s) {
           drop_code_chunks(s);
           s.execute("CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line, end_line)");
         });
       },
       "no such column: exact"},
      {"a live write fails after code_chunks was re-created and filled",
       [&] { return staging("w.db", {.files = 20, .chunk_bytes = 8}); }, "error rows are frozen",
       "CREATE TRIGGER refuse BEFORE INSERT ON index_errors BEGIN SELECT RAISE(ABORT, 'error rows are frozen'); END"},
  };
  mt::seed_index(*db, {.files = 12, .symbols = 40, .edges = 20, .chunk_bytes = 24, .tag = "old"});
  db->execute("PRAGMA user_version = 3");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto file = c.staging();
    if (c.live_trigger) db->execute(c.live_trigger);
    const auto before = mt::snapshot(*db);
    const auto staged = bytes(file);
    mt::LogCapture log;
    try {
      db->swap_index_from(file);
      ADD_FAILURE() << "the swap succeeded";
    } catch (const marsk_quorvi::FileNotFoundError& e) {
      EXPECT_EQ(e.what(), c.message);
      EXPECT_EQ(e.error_number(), ENOENT);
    } catch (const mq::Error& e) {
      EXPECT_EQ(e.what(), c.message);
    }
    EXPECT_EQ(mt::snapshot(*db), before);
    EXPECT_EQ(bytes(file), staged);
    EXPECT_EQ(mt::attached(*db), Strings{"main"});
    EXPECT_TRUE(log.records().empty());
    // The lock is free again: another thread writes at once.
    std::async(std::launch::async, [&] { db->execute("DROP TRIGGER IF EXISTS refuse"); }).get();
  }
  EXPECT_EQ(db->swap_index_from(staging("good.db", {.files = 2})).at("files"), 2);
  EXPECT_EQ(db->index_generation(), 4);
}

TEST_F(IndexSwap, ClearAllEmptiesTheIndexTablesAsAWholeAndJoinsTheCallersTransaction) {
  mt::seed_index(*db, {.files = 30, .symbols = 90, .edges = 40, .chunk_bytes = 32});
  db->execute("PRAGMA user_version = 7");
  db->execute("CREATE TRIGGER pin BEFORE DELETE ON components BEGIN SELECT RAISE(ABORT, 'components are pinned'); END");
  auto before = mt::snapshot(*db);
  mt::LogCapture log;
  // Fails at the fifth deletion, after code_chunks was re-created and four tables emptied.
  try {
    db->clear_all();
    ADD_FAILURE() << "clear_all succeeded";
  } catch (const mq::Error& e) {
    EXPECT_STREQ(e.what(), "components are pinned");
  }
  EXPECT_EQ(mt::snapshot(*db), before);
  db->execute("DROP TRIGGER pin");
  before = mt::snapshot(*db);
  // Inside a caller's transaction the deletions go with it.
  EXPECT_THROW(db->transaction([&](mq::Cursor&) {
    db->clear_all();
    EXPECT_EQ(mt::count_rows(*db, "files"), 0);
    throw std::runtime_error("the pass was cancelled");
  }),
               std::runtime_error);
  EXPECT_EQ(mt::snapshot(*db), before);
  log.clear();

  db->clear_all();
  EXPECT_EQ(log.records(), (std::vector<mt::LogRecord>{
                               {spdlog::level::info,
                                "clear_all: cleared all index data (rows removed: {'edges': 40, "
                                "'external_imports': 3, 'symbols': 90, 'files': 30, 'components': 1, "
                                "'index_errors': 3})"}}));
  for (const auto& table : mt::kIndexTables) EXPECT_EQ(mt::count_rows(*db, table), 0) << table;
  EXPECT_EQ(mt::count_rows(*db, "code_chunks"), 0);
  EXPECT_EQ(outside_index(mt::snapshot(*db)), outside_index(before));
  EXPECT_EQ(db->index_generation(), 7);
  // A live file without code_chunks stays without.
  mt::seed_index(*db, {.files = 3});
  drop_code_chunks(*db);
  db->clear_all();
  EXPECT_FALSE(mt::has_table(*db, "code_chunks"));
  EXPECT_EQ(mt::count_rows(*db, "files"), 0);
}

TEST_F(IndexSwap, StatsCountListedSymbolsAndErrorRowsTheErrorCountCountsFiles) {
  EXPECT_EQ(db->get_stats(), (mq::RowCounts{{"files", 0}, {"symbols", 0}, {"edges", 0}, {"components", 0}, {"errors", 0}}));
  mt::seed_index(*db, {.files = 10, .symbols = 20, .edges = 5});
  // Per-file anchors are not listed; a module declared inside a file is.
  db->execute("INSERT INTO symbols (id, file_id, name, fqn, kind) SELECT 100 + id, id, 'm', 'm', 'module' FROM files");
  db->execute("INSERT INTO symbols (id, file_id, name, fqn, kind, parent_id) VALUES (200, 2, 'in', 'm.in', 'module', 102)");
  db->record_error("a.py", "parse_error", "unexpected token", 3);
  db->record_error("a.py", mq::FQN_COLLISION_ERROR);
  db->record_error("b.py", mq::PARTIAL_PARSE_ERROR, "cut short");
  EXPECT_THROW(db->transaction([&](mq::Cursor&) {
    db->clear_file_errors("a.py");
    db->record_error("c.py", "io_error");
    db->record_error("d.py", "io_error");
    // The owner sees its own rows; another thread sees what is committed, without waiting.
    EXPECT_EQ(db->get_error_count(), 4);
    EXPECT_EQ(std::async(std::launch::async, [&] { return db->get_error_count(); }).get(), 3);
    throw std::runtime_error("the pass was cancelled");
  }),
               std::runtime_error);
  EXPECT_EQ(db->get_stats(), (mq::RowCounts{{"files", 10}, {"symbols", 21}, {"edges", 5}, {"components", 1}, {"errors", 4}}));
  EXPECT_EQ(db->get_error_count(), 3);
  // Omitted message and line are stored as null, never as empty text or 0.
  Strings rows;
  for (const auto& r : db->fetchall("SELECT file_path, error_type, message, line FROM index_errors ORDER BY rowid")) {
    rows.push_back(r[0].to_text() + "|" + r[1].to_text() + "|" + r[2].to_text() + "|" + r[3].to_text());
  }
  EXPECT_EQ(rows, (Strings{"src-a/f10.py|parse_error|bad|1", "a.py|parse_error|unexpected token|3",
                           "a.py|fqn_collision|NULL|NULL", "b.py|partial_parse|cut short|NULL"}));
  // The condition stays one expression after AND.
  EXPECT_EQ(scalar("SELECT COUNT(*) FROM symbols WHERE file_id = 3 AND " + marsk_quorvi::models::listed_sql()), 2);
  db->execute("DROP TABLE edges");
  try {
    db->get_stats();
    ADD_FAILURE() << "figures without the edges table";
  } catch (const mq::OperationalError& e) {
    EXPECT_STREQ(e.what(), "no such table: edges");
  }
}

TEST_F(IndexSwap, ClearFileErrorsRemovesOnlyTheNamedRows) {
  const struct {
    const char* name;
    std::optional<std::string> error_type;
    Strings remaining;
  } cases[] = {
      {"every row of the file", std::nullopt, {"b.py|parse_error"}},
      {"one kind of the file", "parse_error", {"a.py|io_error", "a.py|", "b.py|parse_error"}},
      {"empty kind is a kind, not 'all'", "", {"a.py|parse_error", "a.py|io_error", "a.py|parse_error", "b.py|parse_error"}},
      {"a kind the file does not have", "fqn_collision",
       {"a.py|parse_error", "a.py|io_error", "a.py|parse_error", "a.py|", "b.py|parse_error"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    db->execute("DELETE FROM index_errors");
    for (const char* kind : {"parse_error", "io_error", "parse_error", ""}) db->record_error("a.py", kind);
    db->record_error("b.py", "parse_error");
    db->clear_file_errors("a.py", c.error_type);
    Strings remaining;
    for (const auto& r : db->fetchall("SELECT file_path || '|' || error_type FROM index_errors ORDER BY rowid")) {
      remaining.push_back(r[0].as_text());
    }
    EXPECT_EQ(remaining, c.remaining);
  }
}

TEST_F(IndexSwap, IntegrityCheckPassesAHealthyFileAndFailsADamagedOne) {
  mt::seed_index(*db, {.files = 50, .symbols = 200, .edges = 100, .chunk_bytes = 64});
  EXPECT_TRUE(db->check_integrity());
  // An index whose recorded definition no longer matches what is stored in it.
  mq::Connection::open(path("damaged.db").string())
      ->executescript(
          "CREATE TABLE t (a INTEGER, b INTEGER); CREATE INDEX t_a ON t (a); INSERT INTO t VALUES (1, 100), (2, 200);"
          "PRAGMA writable_schema = ON; UPDATE sqlite_master SET sql = 'CREATE INDEX t_a ON t (b)' WHERE name = 't_a';");
  mq::Database damaged(path("damaged.db"));
  damaged.connect();
  EXPECT_FALSE(damaged.check_integrity());
}

}  // namespace
