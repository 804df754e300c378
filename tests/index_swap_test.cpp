// Emptying the index for a full rebuild and swapping a staging file in.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"
#include "support/index_rows.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
namespace mt = marsk_quorvi::testing;

namespace {

using Snapshot = std::map<std::string, std::vector<std::string>>;

class IndexSwap : public mt::TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    db.emplace(path("live/index.db"));
    db->connect();
    db->create_schema();
  }
  void TearDown() override {
    db.reset();
    TempDirTest::TearDown();
  }

  // A complete staging file built by the same schema, then changed by `edit`.
  std::filesystem::path make_staging(const std::string& name, const mt::Seed& seed,
                                     const std::function<void(mq::Database&)>& edit = {}) {
    return mt::make_staging_file(path(name), seed, edit);
  }

  Snapshot index_of(const std::filesystem::path& p) {
    mq::Database other(p);
    other.connect();
    auto snap = mt::index_content(mt::snapshot(other));
    other.close();
    snap.erase("schema_info");
    snap.erase("generation");
    return snap;
  }

  std::optional<mq::Database> db;
};

// Drops code_chunks and the triggers that name it: a file from before the
// chunk text existed.
void drop_code_chunks(mq::Database& d) {
  for (const auto& r : d.fetchall("SELECT name FROM sqlite_master WHERE type = 'trigger' AND sql LIKE '%code_chunks%'")) {
    d.execute("DROP TRIGGER " + r[0].as_text());
  }
  d.execute("DROP TABLE code_chunks");
}

// Renames the last column of `table`, so the staging table lacks a column
// the live table has. Returns the missing column's name.
std::string hide_last_column(mq::Database& d, const std::string& table) {
  const auto cols = d.fetchall("SELECT name FROM pragma_table_info(?)", {table});
  const std::string last = cols.back()[0].as_text();
  d.execute("ALTER TABLE " + table + " RENAME COLUMN " + last + " TO " + last + "_gone");
  return last;
}

std::vector<std::int64_t> rowids(mq::Database& d) {
  std::vector<std::int64_t> out;
  for (const auto& r : d.fetchall("SELECT rowid FROM code_chunks ORDER BY rowid")) out.push_back(r[0].as_int());
  return out;
}

TEST_F(IndexSwap, SwapReplacesTheIndexTablesAndNothingElse) {
  mt::seed_index(*db, {.files = 30, .symbols = 90, .edges = 40, .chunk_bytes = 32, .tag = "old"});
  db->execute("PRAGMA user_version = 5");
  db->execute("INSERT INTO schema_info (key, value) VALUES ('last_index', 'yesterday')");
  db->execute(
      "INSERT INTO pending_references (source_path, source_fqn, target_name, kind) VALUES ('a.py', 'a.f', 'g', 'calls')");
  db->execute("CREATE TABLE memories (id INTEGER PRIMARY KEY, body TEXT)");
  db->execute("INSERT INTO memories (body) VALUES ('keep me')");
  const auto staging = make_staging("staging.db", {.files = 20, .symbols = 50, .edges = 30, .chunk_bytes = 32, .tag = "new"},
                                    [](mq::Database& s) {
                                      s.execute("PRAGMA user_version = 41");
                                      s.execute("INSERT INTO schema_info (key, value) VALUES ('last_index', 'today')");
                                    });
  const auto expected_index = index_of(staging);
  const auto untouched = [&] {
    return std::vector<std::vector<mq::Row>>{db->fetchall("SELECT * FROM schema_info ORDER BY key"),
                                             db->fetchall("SELECT * FROM pending_references"),
                                             db->fetchall("SELECT * FROM memories")};
  };
  const auto before = untouched();

  mt::LogCapture log;
  const auto counts = db->swap_index_from(staging);

  const mq::RowCounts expected{{"components", 1},       {"files", 20},       {"symbols", 50},     {"edges", 30},
                               {"external_imports", 2}, {"index_errors", 2}, {"code_chunks", 20}};
  EXPECT_EQ(counts, expected);
  auto live = mt::index_content(mt::snapshot(*db));
  EXPECT_EQ(live["generation"], std::vector<std::string>{"6"});
  live.erase("schema_info");
  live.erase("generation");
  EXPECT_EQ(live, expected_index);
  const auto after = untouched();
  ASSERT_EQ(after.size(), before.size());
  for (std::size_t i = 0; i < after.size(); ++i) {
    ASSERT_EQ(after[i].size(), before[i].size());
    for (std::size_t j = 0; j < after[i].size(); ++j) EXPECT_EQ(after[i][j].values(), before[i][j].values());
  }
  // The re-created full-text table indexes the copied text.
  EXPECT_EQ((*db->fetchone("SELECT COUNT(*) FROM code_chunks WHERE code_chunks MATCH 'new'"))[0].as_int(), 20);
  EXPECT_EQ((*db->fetchone("SELECT COUNT(*) FROM code_chunks WHERE code_chunks MATCH 'old'"))[0].as_int(), 0);
  EXPECT_EQ(mt::attached(*db), std::vector<std::string>{"main"});
  EXPECT_EQ(log.matching("swap_index_from:"),
            (std::vector<mt::LogRecord>{
                {spdlog::level::info,
                 "swap_index_from: replaced live index from " + staging.string() +
                     " (rows inserted: {'components': 1, 'files': 20, 'symbols': 50, 'edges': 30, "
                     "'external_imports': 2, 'index_errors': 2, 'code_chunks': 20})"}}));
  // The staging file is read, never changed.
  EXPECT_EQ(index_of(staging), expected_index);
}

struct ChunkCase {
  const char* name;
  bool live_has;
  bool staging_has;
};

TEST_F(IndexSwap, CodeChunksFollowWhatEachFileHas) {
  const ChunkCase cases[] = {
      {"live without, staging with", false, true},
      {"live with, staging without", true, false},
      {"both with", true, true},
      {"neither", false, false},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    db.emplace(path("live-" + std::to_string(n) + ".db"));
    db->connect();
    db->create_schema();
    mt::seed_index(*db, {.files = 6, .symbols = 12, .edges = 4, .chunk_bytes = 16, .tag = "old"});
    if (!c.live_has) drop_code_chunks(*db);
    const auto staging =
        make_staging("staging-" + std::to_string(n++) + ".db", {.files = 9, .symbols = 9, .edges = 3, .chunk_bytes = 16},
                     [&](mq::Database& s) {
                       // Sparse rowids: the copy must keep them, not renumber.
                       s.execute("UPDATE code_chunks SET rowid = rowid + 7");
                       if (!c.staging_has) drop_code_chunks(s);
                     });

    const auto counts = db->swap_index_from(staging);

    const bool copied = c.live_has && c.staging_has;
    EXPECT_EQ(counts.contains("code_chunks"), copied);
    EXPECT_EQ(std::prev(counts.end())->first, copied ? "code_chunks" : "index_errors");
    EXPECT_EQ(mt::has_table(*db, "code_chunks"), c.live_has);
    if (copied) {
      EXPECT_EQ(counts.at("code_chunks"), 9);
      std::vector<std::int64_t> expected;
      for (std::int64_t id = 1; id <= 9; ++id) expected.push_back((id << 20) + 7);
      EXPECT_EQ(rowids(*db), expected);
    } else if (c.live_has) {
      EXPECT_EQ(mt::count_rows(*db, "code_chunks"), 0);
    }
    EXPECT_EQ(mt::count_rows(*db, "files"), 9);
    EXPECT_EQ(db->index_generation(), 1);
    // The file trigger works on the re-created table: a deleted file takes
    // its chunks with it, and deleting is possible at all.
    db->execute("DELETE FROM files WHERE id = 4");
    if (c.live_has) EXPECT_EQ(mt::count_rows(*db, "code_chunks"), copied ? 8 : 0);
  }
}

TEST_F(IndexSwap, EmptyStagingEmptiesTheIndexAndExtraStagingColumnsAreIgnored) {
  mt::seed_index(*db, {.files = 10, .symbols = 20, .edges = 10, .chunk_bytes = 16});
  const auto live_columns = db->fetchall("SELECT name FROM pragma_table_info('symbols')").size();
  const auto staging = make_staging("empty.db", {}, [](mq::Database& s) {
    s.execute("DELETE FROM components");
    s.execute("ALTER TABLE symbols ADD COLUMN staging_note TEXT");
  });

  const auto counts = db->swap_index_from(staging);

  const mq::RowCounts expected{{"components", 0},       {"files", 0},        {"symbols", 0},     {"edges", 0},
                               {"external_imports", 0}, {"index_errors", 0}, {"code_chunks", 0}};
  EXPECT_EQ(counts, expected);
  for (const auto& table : mt::kIndexTables) EXPECT_EQ(mt::count_rows(*db, table), 0) << table;
  EXPECT_EQ(mt::count_rows(*db, "code_chunks"), 0);
  EXPECT_EQ(db->fetchall("SELECT name FROM pragma_table_info('symbols')").size(), live_columns);

  // Extra columns with data in them are not copied either.
  const auto wide = make_staging("wide.db", {.files = 3, .symbols = 6}, [](mq::Database& s) {
    s.execute("ALTER TABLE symbols ADD COLUMN staging_note TEXT");
    s.execute("UPDATE symbols SET staging_note = 'note'");
  });
  EXPECT_EQ(db->swap_index_from(wide).at("symbols"), 6);
  EXPECT_EQ(mt::count_rows(*db, "symbols"), 6);
  EXPECT_EQ(db->index_generation(), 2);
}

struct Defect {
  const char* name;
  std::function<std::filesystem::path()> staging;
  std::string message;  // empty: the missing column's name decides it
};

using FailedSwap = IndexSwap;

TEST_F(FailedSwap, LeavesTheLiveIndexExactlyAsItWas) {
  std::string missing;
  const Defect defects[] = {
      {"symbols lacks a live column",
       [&] {
         return make_staging("no-col.db", {.files = 5, .symbols = 5},
                             [&](mq::Database& s) { missing = hide_last_column(s, "symbols"); });
       },
       ""},
      {"index_errors lacks a live column, after five tables were copied",
       [&] {
         return make_staging("no-err-col.db", {.files = 20, .symbols = 5},
                             [&](mq::Database& s) { missing = hide_last_column(s, "index_errors"); });
       },
       ""},
      {"code_chunks lacks a column, after every table was copied",
       [&] {
         return make_staging("no-chunk-col.db", {.files = 5, .symbols = 5}, [](mq::Database& s) {
           drop_code_chunks(s);
           s.execute("CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line, end_line)");
         });
       },
       "no such column: exact"},
      {"the staging file is not a database",
       [&] {
         const auto p = path("garbage.db");
         std::ofstream(p) << std::string(8192, 'x');
         return p;
       },
       "file is not a database"},
  };
  mt::seed_index(*db, {.files = 12, .symbols = 40, .edges = 20, .chunk_bytes = 24, .tag = "old"});
  db->execute("PRAGMA user_version = 3");
  const auto good = make_staging("good.db", {.files = 2, .symbols = 2});

  for (const auto& d : defects) {
    SCOPED_TRACE(d.name);
    missing.clear();
    const auto staging = d.staging();
    const auto before = mt::snapshot(*db);
    mt::LogCapture log;

    try {
      db->swap_index_from(staging);
      ADD_FAILURE() << "the swap succeeded";
    } catch (const mq::Error& e) {
      EXPECT_EQ(e.what(), d.message.empty() ? "no such column: " + missing : d.message);
    }

    EXPECT_EQ(mt::snapshot(*db), before);
    EXPECT_EQ(mt::attached(*db), std::vector<std::string>{"main"});
    EXPECT_TRUE(log.matching("swap_index_from:").empty());
    // The lock is free again: another thread writes at once.
    std::async(std::launch::async, [&] { db->record_error("probe.py", "io_error"); }).get();
    db->clear_file_errors("probe.py");
  }
  // And the handle still swaps.
  EXPECT_EQ(db->swap_index_from(good).at("files"), 2);
  EXPECT_EQ(db->index_generation(), 4);
}

TEST_F(FailedSwap, AFailingLiveWriteRollsBackTheDeletionsAndTheDroppedChunks) {
  mt::seed_index(*db, {.files = 8, .symbols = 16, .edges = 8, .chunk_bytes = 24, .tag = "old"});
  const auto staging = make_staging("staging.db", {.files = 20, .symbols = 20, .chunk_bytes = 8});
  // Fails on the last copy, when code_chunks has been re-created and every
  // other table already holds the staging rows.
  db->execute(
      "CREATE TRIGGER refuse_errors BEFORE INSERT ON index_errors "
      "BEGIN SELECT RAISE(ABORT, 'error rows are frozen'); END");
  const auto before = mt::snapshot(*db);

  try {
    db->swap_index_from(staging);
    FAIL() << "the swap succeeded";
  } catch (const mq::Error& e) {
    EXPECT_STREQ(e.what(), "error rows are frozen");
  }
  EXPECT_EQ(mt::snapshot(*db), before);
  EXPECT_EQ(mt::attached(*db), std::vector<std::string>{"main"});
  EXPECT_EQ((*db->fetchone("SELECT COUNT(*) FROM code_chunks WHERE code_chunks MATCH 'old'"))[0].as_int(), 8);
}

TEST_F(IndexSwap, RefusedSwapsTouchNothing) {
  mt::seed_index(*db, {.files = 4, .symbols = 4});
  const auto before = mt::snapshot(*db);

  const auto missing = path("nowhere/staging.db");
  try {
    db->swap_index_from(missing);
    FAIL() << "a missing staging file was accepted";
  } catch (const marsk_quorvi::FileNotFoundError& e) {
    EXPECT_EQ(e.what(), "Staging database not found: " + missing.string());
    EXPECT_EQ(e.error_number(), ENOENT);
  }

  // A path that exists but cannot be attached: nothing was attached, so
  // nothing is detached, and the lock is released.
  std::filesystem::create_directories(path("a-directory"));
  EXPECT_THROW(db->swap_index_from(path("a-directory")), mq::OperationalError);

  EXPECT_EQ(mt::snapshot(*db), before);
  EXPECT_EQ(mt::attached(*db), std::vector<std::string>{"main"});
  std::async(std::launch::async, [&] { db->record_error("probe.py", "io_error"); }).get();

  db->close();
  const auto staging = make_staging("staging.db", {.files = 1, .symbols = 1});
  try {
    db->swap_index_from(staging);
    FAIL() << "swap on a closed database";
  } catch (const marsk_quorvi::RuntimeError& e) {
    EXPECT_STREQ(e.what(), "Database is closed.");
  }
  mq::Database fresh(path("unconnected.db"));
  try {
    fresh.swap_index_from(staging);
    FAIL() << "swap before connect";
  } catch (const marsk_quorvi::RuntimeError& e) {
    EXPECT_STREQ(e.what(), "Database not connected. Call connect() first.");
  }
}

TEST_F(IndexSwap, ClearAllEmptiesTheIndexTablesAndLogsWhatItRemoved) {
  // An empty index still logs, with every count 0, in deletion order.
  {
    mt::LogCapture log;
    db->clear_all();
    EXPECT_EQ(log.records(), (std::vector<mt::LogRecord>{
                                 {spdlog::level::info,
                                  "clear_all: cleared all index data (rows removed: {'edges': 0, 'external_imports': 0, "
                                  "'symbols': 0, 'files': 0, 'components': 0, 'index_errors': 0})"}}));
  }

  mt::seed_index(*db, {.files = 30, .symbols = 90, .edges = 40, .chunk_bytes = 32});
  db->execute("PRAGMA user_version = 7");
  db->execute("INSERT INTO schema_info (key, value) VALUES ('last_index', 'yesterday')");
  const auto info = mt::snapshot(*db)["schema_info"];
  mt::LogCapture log;
  db->clear_all();

  EXPECT_EQ(log.matching("clear_all:"),
            (std::vector<mt::LogRecord>{
                {spdlog::level::info,
                 "clear_all: cleared all index data (rows removed: {'edges': 40, 'external_imports': 3, "
                 "'symbols': 90, 'files': 30, 'components': 1, 'index_errors': 3})"}}));
  for (const auto& table : mt::kIndexTables) EXPECT_EQ(mt::count_rows(*db, table), 0) << table;
  ASSERT_TRUE(mt::has_table(*db, "code_chunks"));
  EXPECT_EQ(mt::count_rows(*db, "code_chunks"), 0);
  // Neither the generation nor the other tables change, and nothing compacts.
  EXPECT_EQ(db->index_generation(), 7);
  EXPECT_EQ(mt::snapshot(*db)["schema_info"], info);
  EXPECT_TRUE(log.matching("Compact").empty());

  // A live file without code_chunks stays without it.
  mt::seed_index(*db, {.files = 3, .symbols = 3});
  drop_code_chunks(*db);
  db->clear_all();
  EXPECT_FALSE(mt::has_table(*db, "code_chunks"));
  EXPECT_EQ(mt::count_rows(*db, "files"), 0);
}

TEST_F(IndexSwap, ClearAllRollsBackAsAWholeAndJoinsTheCallersTransaction) {
  mt::seed_index(*db, {.files = 10, .symbols = 10, .edges = 5, .chunk_bytes = 16});
  const auto before = mt::index_content(mt::snapshot(*db));

  // Fails at the fifth deletion, after code_chunks was dropped and edges,
  // imports, symbols and files were deleted.
  db->execute("CREATE TRIGGER pin BEFORE DELETE ON components BEGIN SELECT RAISE(ABORT, 'components are pinned'); END");
  {
    mt::LogCapture log;
    try {
      db->clear_all();
      FAIL() << "clear_all succeeded";
    } catch (const mq::Error& e) {
      EXPECT_STREQ(e.what(), "components are pinned");
    }
    EXPECT_TRUE(log.records().empty());
  }
  EXPECT_EQ(mt::index_content(mt::snapshot(*db)), before);
  db->execute("DROP TRIGGER pin");

  // Nested in a caller's transaction, the deletions go with it.
  EXPECT_THROW(db->transaction([&](mq::Cursor&) {
    db->clear_all();
    EXPECT_EQ(mt::count_rows(*db, "files"), 0);
    throw std::runtime_error("the pass was cancelled");
  }),
               std::runtime_error);
  EXPECT_EQ(mt::index_content(mt::snapshot(*db)), before);
}

// Calls `probe` once on the writer connection's thread, from inside the
// swap's open transaction after its first write, while the swap waits.
class MidTransactionProbe {
 public:
  MidTransactionProbe(mq::Database& d, std::function<void()> probe)
      : handle_(d.connection()->handle()), probe_(std::move(probe)), baseline_(sqlite3_total_changes64(handle_)) {
    sqlite3_progress_handler(handle_, 200, &MidTransactionProbe::tick, this);
  }
  ~MidTransactionProbe() { sqlite3_progress_handler(handle_, 0, nullptr, nullptr); }
  bool fired() const { return fired_; }

 private:
  static int tick(void* self_ptr) {
    auto* self = static_cast<MidTransactionProbe*>(self_ptr);
    if (!self->fired_ && !sqlite3_get_autocommit(self->handle_) && sqlite3_total_changes64(self->handle_) > self->baseline_) {
      self->fired_ = true;
      self->probe_();
    }
    return 0;
  }
  sqlite3* handle_;
  std::function<void()> probe_;
  std::int64_t baseline_;
  bool fired_ = false;
};

TEST_F(IndexSwap, ReadersAndOtherProcessesSeeTheOldIndexOrTheNewNeverAMix) {
  mt::seed_index(*db, {.files = 2000, .symbols = 6000, .edges = 3000, .chunk_bytes = 64, .tag = "old"});
  const auto staging =
      make_staging("large.db", {.files = 10000, .symbols = 50000, .edges = 25000, .chunk_bytes = 200, .tag = "new"});
  const std::string figures =
      "SELECT (SELECT user_version FROM pragma_user_version), (SELECT COUNT(*) FROM files), "
      "(SELECT COUNT(*) FROM symbols)";
  const std::string old_figures = "0|2000|6000";
  const std::string new_figures = "1|10000|50000";
  auto read = [&] {
    auto r = *db->fetchone(figures);
    return r[0].to_text() + "|" + r[1].to_text() + "|" + r[2].to_text();
  };

  std::atomic<bool> stop{false};
  std::vector<std::future<std::vector<std::string>>> readers;
  for (int i = 0; i < 3; ++i) {
    readers.push_back(std::async(std::launch::async, [&] {
      std::vector<std::string> seen;
      while (!stop.load()) {
        const auto now = read();
        if (seen.empty() || seen.back() != now) seen.push_back(now);
      }
      if (const auto last = read(); seen.empty() || seen.back() != last) seen.push_back(last);
      return seen;
    }));
  }

  // Another process, connected before the swap, reads over and over until it
  // sees the new figures; its first line is what it saw before the swap.
  mt::PeerProcess watcher({"watch", db->db_path.string(), figures, new_figures});
  EXPECT_EQ(watcher.read_line(), old_figures);

  std::string thread_mid;
  {
    // Halfway through the swap's transaction a reader thread answers at once,
    // from the old index.
    MidTransactionProbe probe(*db, [&] { thread_mid = std::async(std::launch::async, read).get(); });
    db->swap_index_from(staging);
    EXPECT_TRUE(probe.fired());
  }
  EXPECT_EQ(read(), new_figures);
  stop = true;

  EXPECT_EQ(thread_mid, old_figures);
  // The other process went from the old generation and rows straight to the
  // new ones together.
  EXPECT_EQ(watcher.read_rest(), std::vector<std::string>{new_figures});
  EXPECT_EQ(watcher.wait(), 0);
  for (auto& r : readers) {
    const auto seen = r.get();
    // Either only the new figures (the reader started late), or the old ones
    // followed by the new: never a third combination, never back.
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), new_figures);
    if (seen.size() == 2) EXPECT_EQ(seen.front(), old_figures);
    EXPECT_LE(seen.size(), 2u) << ::testing::PrintToString(seen);
  }
  const auto generation = mt::PeerProcess::run({"generation", db->db_path.string()});
  EXPECT_EQ(generation.status, 0);
  EXPECT_EQ(generation.output, "1\n");
  EXPECT_EQ(mt::PeerProcess::run({"query", db->db_path.string(), figures}).output, new_figures + "\n");
}

TEST_F(IndexSwap, FreedPagesAreGivenBackAfterTheSwapExceptOnTheEventLoop) {
  auto freelist = [&] { return (*db->connection()->execute("PRAGMA freelist_count").fetchone())[0].as_int(); };
  auto pages = [&] { return (*db->connection()->execute("PRAGMA page_count").fetchone())[0].as_int(); };
  const auto small = make_staging("small.db", {.files = 10, .symbols = 10, .chunk_bytes = 16});

  for (const bool on_loop : {false, true}) {
    SCOPED_TRACE(on_loop ? "on the event loop" : "on a pool thread");
    db->execute("PRAGMA user_version = 0");
    db->clear_all();
    mt::seed_index(*db, {.files = 3000, .symbols = 3000, .chunk_bytes = 3000, .tag = "big"});
    const auto pages_before = pages();
    mt::LogCapture log;
    if (on_loop) {
      mq::EventLoopThread loop;
      db->swap_index_from(small);
    } else {
      db->swap_index_from(small);
    }
    if (on_loop) {
      EXPECT_GE(freelist(), mq::COMPACT_MIN_FREE_PAGES);
      EXPECT_EQ(log.matching("skipped").size(), 1u);
      EXPECT_EQ(log.matching("Compaction of " + db->db_path.string() +
                             " skipped: called on the event loop: a pool thread compacts")
                    .size(),
                1u);
    } else {
      EXPECT_LT(freelist(), mq::COMPACT_MIN_FREE_PAGES);
      EXPECT_LT(pages(), pages_before / 2);
      EXPECT_EQ(log.matching("Compacted " + db->db_path.string() + ": ").size(), 1u);
    }
    // The log line of the swap comes before the compaction's.
    ASSERT_FALSE(log.records().empty());
    EXPECT_EQ(log.records().front().text.rfind("swap_index_from:", 0), 0u);
  }
}

}  // namespace
