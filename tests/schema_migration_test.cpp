// Opening index files made by older builds (table creation, the migration
// registry, the one-time rewrite of files with small pages), the index
// generation and the extractor stamp.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <functional>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "marsk_quorvi/storage/storage_size.hpp"
#include "storage/migrations.hpp"
#include "storage/platform.hpp"
#include "support/test_support.hpp"

namespace fs = std::filesystem;
namespace mq = marsk_quorvi::storage;
namespace mt = marsk_quorvi::testing;
using mt::LogCapture;
using mt::LogRecord;
using Records = std::vector<LogRecord>;
using Strings = std::vector<std::string>;

namespace {

constexpr auto kInfo = spdlog::level::info;
constexpr auto kWarn = spdlog::level::warn;

// The tables a 1.x build shaped differently: files without the stale mark,
// error rows without a line, chunks keyed by a file_id column (and one whose
// file is gone, which the old trigger missed). create_schema adds the rest.
constexpr const char* OLD_SCHEMA = R"sql(
CREATE TABLE schema_info (key TEXT PRIMARY KEY, value TEXT);
CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, language TEXT, content_hash TEXT,
                    size INTEGER, mtime REAL, component_id INTEGER);
CREATE TABLE index_errors (id INTEGER PRIMARY KEY, file_path TEXT NOT NULL, error_type TEXT NOT NULL, message TEXT);
CREATE VIRTUAL TABLE code_chunks USING fts5(file_id UNINDEXED, text, start_line UNINDEXED, end_line UNINDEXED);
CREATE TRIGGER files_delete_code_chunks AFTER DELETE ON files BEGIN DELETE FROM code_chunks WHERE file_id = old.id; END;
BEGIN;
INSERT INTO files (id, path, language) SELECT value, 'src/file' || value, 'c' FROM numbers;
INSERT INTO code_chunks (file_id, text, start_line, end_line)
  SELECT id, 'function_' || id || '_' || k || ' ' || hex(zeroblob(600)), k * 12 + 1, k * 12 + 12
  FROM files, (SELECT 0 AS k UNION ALL SELECT 1 UNION ALL SELECT 2) ORDER BY id, k;
INSERT INTO code_chunks (file_id, text, start_line, end_line) VALUES (9999, 'orphan', 1, 1);
INSERT INTO index_errors (file_path, error_type, message) SELECT path, 'parse_error', 'bad' FROM files WHERE id % 30 = 0;
COMMIT;
)sql";

constexpr int FILES = 300;
const std::string OLD_COUNTS = "300|10|900";  // files, error rows, chunks

void make_old_index(const fs::path& p, const std::optional<std::string>& version, int files = FILES,
                    int page_size = 4096) {
  auto c = mq::Connection::open(p.string());
  c->execute("PRAGMA page_size=" + std::to_string(page_size));
  c->execute("CREATE TEMP VIEW numbers AS WITH RECURSIVE n(value) AS (SELECT 1 UNION ALL SELECT value + 1 FROM n "
             "WHERE value < " + std::to_string(files) + ") SELECT value FROM n");
  c->executescript(OLD_SCHEMA);
  if (version) c->execute("INSERT INTO schema_info VALUES ('version', ?)", {*version});
}

std::int64_t scalar(mq::Database& db, const std::string& sql) { return (*db.fetchone(sql))[0].as_int(); }

std::string counts(mq::Database& db) {
  return (*db.fetchone("SELECT (SELECT count(*) FROM files) || '|' || (SELECT count(*) FROM index_errors) || '|' || "
                       "(SELECT count(*) FROM code_chunks)"))[0]
      .as_text();
}

std::string recorded_version(mq::Database& db) {
  return (*db.fetchone("SELECT value FROM schema_info WHERE key = 'version'"))[0].to_text();
}

Records warnings(const LogCapture& log) {
  Records out;
  for (const auto& r : log.records()) {
    if (r.level >= kWarn) out.push_back(r);
  }
  return out;
}

LogRecord kept_warning(const fs::path& p, const std::string& why) {
  return {kWarn, "Pages of " + p.string() + " stay at 4096 bytes: " + why + "; the rewrite is tried again at the next open"};
}

using SchemaMigration = mt::IndexTest;

TEST_F(SchemaMigration, OlderBuildFileIsMigratedAndRewrittenWhileQueriesKeepAnswering) {
  make_old_index(path("index.db"), std::nullopt);
  mt::TestDb db(path("index.db"));
  db.connect();
  db.create_schema();
  std::atomic<bool> done{false};
  std::atomic<int> answers{0}, wrong{0};
  std::thread reader([&] {
    for (; !done.load(); ++answers) {
      try {
        if (scalar(db, "SELECT count(*) FROM files") != FILES) ++wrong;
      } catch (...) {
        ++wrong;
      }
    }
  });
  while (answers.load() == 0) std::this_thread::yield();
  LogCapture log;
  db.migrate_schema();
  for (const int before = answers.load(); answers.load() < before + 5;) std::this_thread::yield();
  done = true;
  reader.join();
  EXPECT_EQ(wrong.load(), 0);

  EXPECT_EQ(recorded_version(db), "3.1.0");
  EXPECT_EQ(log.records(), (Records{{kInfo, "Schema version 3.1.0 (recorded 1.0.0)"}}));
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), mq::storage_size::PAGE_SIZE);
  EXPECT_EQ(scalar(db, "PRAGMA auto_vacuum"), mq::detail::kAutoVacuumIncremental);
  EXPECT_EQ((*db.fetchone("PRAGMA journal_mode"))[0].as_text(), "wal");
  EXPECT_TRUE(db.check_integrity());
  EXPECT_EQ(counts(db), OLD_COUNTS);
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM files WHERE stale = 0"), FILES);
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM index_errors WHERE line IS NULL"), FILES / 30);
  // Chunks move into their file's rowid range in their old order, marked as not verbatim.
  auto hit = db.fetchone("SELECT rowid, start_line, exact FROM code_chunks WHERE code_chunks MATCH 'function_7_2'");
  ASSERT_TRUE(hit);
  EXPECT_EQ((*hit)[0].as_int(), (7LL << 20) + 2);
  EXPECT_EQ((*hit)[1].as_int(), 25);
  EXPECT_EQ((*hit)[2].as_int(), 0);
  // The read pool is back, and a deleted file takes its chunks along.
  EXPECT_GE(db.impl()._readers.load()->open_connections(), 1);
  db.execute("DELETE FROM files WHERE id = 7");
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM code_chunks"), FILES * 3 - 3);
}

TEST_F(SchemaMigration, ChunksOfAnUnknownShapeAreMadeAgainEmptyAndEveryFileIsMarkedStale) {
  // The second shape has as many columns as the 3.0 one, under other names.
  const std::string shapes[] = {"fts5(path, text); INSERT INTO code_chunks VALUES ('src/file1', 'x')",
                                "fts5(file_id, body, start, end); INSERT INTO code_chunks VALUES (1, 'x', 1, 2)"};
  for (const auto& shape : shapes) {
    SCOPED_TRACE(shape);
    const auto p = path(std::to_string(&shape - shapes) + ".db");
    make_old_index(p, "1.0.0", 20);
    mq::Connection::open(p.string())->executescript("DROP TABLE code_chunks; CREATE VIRTUAL TABLE code_chunks USING " + shape);
    auto db = open(p);
    EXPECT_EQ(recorded_version(*db), "3.1.0");
    EXPECT_EQ(scalar(*db, "SELECT count(*) FROM files WHERE stale = 1"), 20);
    EXPECT_EQ(scalar(*db, "SELECT count(*) FROM code_chunks"), 0);
    db->execute("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (3 << 20, 'x', 1, 1, 1)");
    db->execute("DELETE FROM files WHERE id = 3");
    EXPECT_EQ(scalar(*db, "SELECT count(*) FROM code_chunks"), 0);
  }
}

TEST_F(SchemaMigration, FileHeldOpenByAnotherProcessIsLeftAloneUntilTheNextOpen) {
  const auto p = path("index.db");
  make_old_index(p, "1.0.0");
  {
    mt::PeerProcess peer({"hold", p.string(), "60"});
    ASSERT_EQ(peer.read_line(), "ready");
    LogCapture log;
    auto db = open(p);
    EXPECT_EQ(recorded_version(*db), "3.1.0");
    EXPECT_EQ(warnings(log), Records{kept_warning(p, "another process has the file open")});
    EXPECT_EQ(scalar(*db, "PRAGMA page_size"), 4096);
    EXPECT_EQ(counts(*db), OLD_COUNTS);
    EXPECT_TRUE(db->impl()._readers.load());
    EXPECT_EQ(mt::PeerProcess::run({"query", p.string(), "SELECT count(*) FROM code_chunks"}).output, "900\n");
  }
  LogCapture log;
  auto db = open(p);
  EXPECT_EQ(scalar(*db, "PRAGMA page_size"), mq::storage_size::PAGE_SIZE);
  EXPECT_TRUE(warnings(log).empty());
  EXPECT_EQ(counts(*db), OLD_COUNTS);
}

TEST_F(SchemaMigration, DiskTooFullSkipsTheRewriteButStillCyclesTheReadPool) {
  const auto p = path("index.db");
  make_old_index(p, "3.1.0");
  mt::TestDb db(p);
  db.connect();
  const auto used = (scalar(db, "PRAGMA page_count") - scalar(db, "PRAGMA freelist_count")) * 4096;
  const auto before = db.impl()._readers.load();
  mq::platform::ScopedOverride full(
      [](const fs::path&) { return mq::platform::VolumeUsage{1 << 30, 1 << 30, 1 << 20}; }, {});
  const auto why = mq::detail::_disk_shortfall(p.parent_path(), used);
  ASSERT_TRUE(why);
  LogCapture log;
  db.migrate_schema();
  EXPECT_EQ(warnings(log), Records{kept_warning(p, *why)});
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), 4096);
  EXPECT_TRUE(before->closed());
  const auto after = db.impl()._readers.load();
  EXPECT_TRUE(after && after != before);
}

TEST_F(SchemaMigration, JournalLeftInRollbackModeIsWarnedAndQueriesShareTheWriter) {
  const auto p = path("index.db");
  make_old_index(p, "3.1.0");
  // unix-none has no shared memory, so SQLite refuses WAL on it after the rewrite.
  struct DefaultVfs {
    sqlite3_vfs* saved = sqlite3_vfs_find(nullptr);
    ~DefaultVfs() { sqlite3_vfs_register(saved, 1); }
  } restore;
  sqlite3_vfs_register(sqlite3_vfs_find("unix-none"), 1);
  LogCapture log;
  auto db = open(p);
  EXPECT_EQ(scalar(*db, "PRAGMA page_size"), mq::storage_size::PAGE_SIZE);
  EXPECT_EQ(warnings(log), (Records{{kWarn, "Journal of " + p.string() +
                                                " stays in delete mode after the page rewrite; queries share the "
                                                "writer connection until the next open"}}));
  EXPECT_FALSE(db->impl()._readers.load());
  EXPECT_EQ(counts(*db), "300|10|901");  // at 3.1.0 already: the orphan chunk stays
}

TEST_F(SchemaMigration, FailingStepLeavesTheFileAtTheLastCommittedVersion) {
  const auto p = path("index.db");
  make_old_index(p, "1.0.0");
  // index_errors as a view: the 3.0.0 step cannot add its column.
  mq::Connection::open(p.string())
      ->executescript("DROP TABLE index_errors; CREATE VIEW index_errors AS SELECT 'a' AS file_path");
  mq::Database db(p);
  db.connect();
  LogCapture log;
  try {
    db.migrate_schema();
    FAIL() << "no SchemaMigrationError";
  } catch (const mq::migrations::SchemaMigrationError& e) {
    EXPECT_STREQ(e.what(), "Schema migration to 3.0.0 failed: Cannot add a column to a view");
  }
  EXPECT_EQ(log.records(), (Records{{kWarn, "Schema migration from 2.0.0 to 3.0.0 failed\n"
                                            "OperationalError: Cannot add a column to a view"}}));
  EXPECT_EQ(recorded_version(db), "2.0.0");
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM files WHERE stale = 0"), FILES);
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), 4096);
}

TEST_F(SchemaMigration, RegistryRunsOnlyTheStepsAfterTheRecordedVersionAndLeavesACurrentFileAsItIs) {
  const struct {
    std::string recorded;
    int steps;
    std::string reached;
  } cases[] = {
      {"1.0.0", 3, "3.1.0"}, {"2.0.0", 2, "3.1.0"}, {"2.9.9", 2, "3.1.0"},   {"3.0.10", 1, "3.1.0"},
      {"3.1", 0, "3.1.0"},   {"3.1.0", 0, "3.1.0"}, {"3.10.0", 0, "3.10.0"}, {"10.0.0", 0, "10.0.0"},
  };
  auto db = open();
  const auto shape = mt::snapshot(*db);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.recorded);
    int scopes = 0;
    const auto transaction = [&](const std::function<void(mq::Cursor&)>& body) {
      ++scopes;
      db->transaction(body);
    };
    EXPECT_EQ(mq::migrations::migrate(transaction, c.recorded), c.reached);
    EXPECT_EQ(scopes, c.steps);
    EXPECT_EQ(mt::snapshot(*db), shape);
  }
}

TEST_F(SchemaMigration, RecordedVersionAndPageSizeDecideTheInfoLineAndTheRewrite) {
  const struct {
    const char* name;
    std::optional<std::string> recorded;  // none: no schema_info table at all
    int page_size;
    std::optional<std::string> info;  // none: no log line
    int page_size_after;
  } cases[] = {
      {"no table", std::nullopt, 4096, "Schema version 3.1.0 (recorded 1.0.0)", mq::storage_size::PAGE_SIZE},
      {"short form", "3.1", 4096, "Schema version 3.1.0 (recorded 3.1)", mq::storage_size::PAGE_SIZE},
      {"newer build", "10.0.0", 4096, std::nullopt, 4096},
      {"storage pages", "3.1.0", 8192, "Schema version 3.1.0 (recorded 3.1.0)", 8192},
      {"larger pages", "3.1.0", 16384, "Schema version 3.1.0 (recorded 3.1.0)", 16384},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto p = path(std::string(c.name) + ".db");
    make_old_index(p, c.recorded, 10, c.page_size);
    if (!c.recorded) mq::Connection::open(p.string())->execute("DROP TABLE schema_info");
    mt::TestDb db(p);
    db.connect();
    const auto pool = db.impl()._readers.load();
    LogCapture log;
    db.migrate_schema();
    EXPECT_EQ(log.records(), c.info ? (Records{{kInfo, *c.info}}) : Records{});
    EXPECT_EQ(scalar(db, "PRAGMA page_size"), c.page_size_after);
    const bool rewritten = c.page_size_after != c.page_size;
    EXPECT_EQ(db.impl()._readers.load() == pool, !rewritten);
    EXPECT_EQ(pool->closed(), rewritten);
  }
}

TEST_F(SchemaMigration, FailedTableCreationLeavesTheFileEmpty) {
  // An index name of `symbols`, taken: its bundle fails after components and files were made.
  mq::Connection::open(path("index.db").string())->execute("CREATE TABLE idx_symbols_file (x)");
  mq::Database db(path("index.db"));
  db.connect();
  EXPECT_THROW(db.create_schema(), mq::OperationalError);
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM sqlite_master"), 1);
}

// ------------------------------------------------------------------ generation and extractor stamp

class IndexMetadata : public mt::IndexTest {
 protected:
  void SetUp() override {
    IndexTest::SetUp();
    db = open();
    for (const char* p : {"a.c", "b.go", "c.go", "d.py"}) {
      db->execute("INSERT INTO files (path, language) VALUES (?, ?)", {p, std::string(p).substr(2)});
    }
  }
  std::string peer_generation() { return mt::PeerProcess::run({"generation", db->db_path.string()}).output; }
  Strings stale_paths() {
    Strings out;
    for (const auto& r : db->fetchall("SELECT path FROM files WHERE stale = 1 ORDER BY path")) out.push_back(r[0].as_text());
    return out;
  }
  std::optional<std::string> stamp() {
    auto r = db->fetchone("SELECT value FROM schema_info WHERE key = ?", {mq::EXTRACTOR_VERSIONS_KEY});
    return r ? std::optional((*r)[0].to_text()) : std::nullopt;
  }
  void set_stamp(const std::optional<mq::Value>& value) {
    db->execute("DELETE FROM schema_info WHERE key = ?", {mq::EXTRACTOR_VERSIONS_KEY});
    if (value) db->execute("INSERT INTO schema_info (key, value) VALUES (?, ?)", {mq::EXTRACTOR_VERSIONS_KEY, *value});
  }
  std::unique_ptr<mt::TestDb> db;
};

TEST_F(IndexMetadata, CommittedBumpIsSeenByAnotherProcessAndARolledBackOneIsNot) {
  EXPECT_EQ(db->index_generation(), 0);
  db->transaction([&](mq::Cursor& c) { db->impl()._bump_index_generation(&c); });
  EXPECT_EQ(peer_generation(), "1\n");
  EXPECT_THROW(db->transaction([&](mq::Cursor& c) {
    db->impl()._bump_index_generation(&c);
    // The owner reads its own bump; another thread reads the committed value without waiting.
    EXPECT_EQ(db->index_generation(), 2);
    EXPECT_EQ(std::async(std::launch::async, [&] { return db->index_generation(); }).get(), 1);
    throw std::runtime_error("swap failed");
  }),
               std::runtime_error);
  EXPECT_EQ(db->index_generation(), 1);
  EXPECT_EQ(peer_generation(), "1\n");
  db->impl()._bump_index_generation();  // without a cursor it commits at once
  EXPECT_EQ(peer_generation(), "2\n");
}

TEST_F(IndexMetadata, ChangedLanguagesAreMarkedStaleWithTheNewStamp) {
  LogCapture log;
  EXPECT_EQ(db->refresh_extractor_stamp({{"go", 3}, {"c", 2}}), 3);
  EXPECT_EQ(stamp(), R"({"c": 2, "go": 3})");
  EXPECT_EQ(stale_paths(), (Strings{"a.c", "b.go", "c.go"}));
  EXPECT_EQ(log.records(), (Records{{kInfo, "Extractor changed for c, go: 3 files marked for re-indexing"}}));
  // go moved on and py is new; c is as before.
  db->execute("UPDATE files SET stale = 0");
  log.clear();
  EXPECT_EQ(db->refresh_extractor_stamp({{"c", 2}, {"go", 4}, {"py", 1}}), 3);
  EXPECT_EQ(stale_paths(), (Strings{"b.go", "c.go", "d.py"}));
  EXPECT_EQ(stamp(), R"({"c": 2, "go": 4, "py": 1})");
  EXPECT_EQ(log.records(), (Records{{kInfo, "Extractor changed for go, py: 3 files marked for re-indexing"}}));
}

// Each stored stamp is refreshed with versions that change no file's
// extractor. A stamp read back equal to them is not written again (its
// spelling survives); one of an unknown format is warned about and counts as
// absent.
TEST_F(IndexMetadata, StoredStampsThatMarkNothing) {
  const struct {
    std::optional<mq::Value> stored;  // none: no row
    mq::ExtractorVersions versions;
    std::optional<std::string> stored_after;
    std::string unknown;  // how the warning quotes an unknown stamp; empty: no warning
  } cases[] = {
      {std::nullopt, {}, std::nullopt, ""},
      {mq::Value("{}"), {}, "{}", ""},
      {mq::Value(R"({"go":3,"c":2})"), {{"c", 2}, {"go", 3}}, R"({"go":3,"c":2})", ""},
      {mq::Value(R"({"c": -1, "go": 3})"), {{"c", -1}, {"go", 3}}, R"({"c": -1, "go": 3})", ""},
      {mq::Value(R"({"c": 2})"), {}, "{}", ""},
      {mq::Value(R"({"c": 2, "go": 3})"), {{"c", 2}}, R"({"c": 2})", ""},
      {std::nullopt, {{"rust", 1}}, R"({"rust": 1})", ""},
      {std::nullopt, {{"c\xc3\xa9", 2}, {"q\"b", 3}, {"\xf0\x9f\x90\x8d", 4}}, R"({"c\u00e9": 2, "q\"b": 3, "\ud83d\udc0d": 4})", ""},
      {mq::Value(R"({"\u00e9": 1,"\ud83d\udc0d": 4})"), {{"\xc3\xa9", 1}, {"\xf0\x9f\x90\x8d", 4}}, R"({"\u00e9": 1,"\ud83d\udc0d": 4})", ""},
      {mq::Value("[1, 2]"), {}, "[1, 2]", "'[1, 2]'"},
      {mq::Value("42"), {}, "42", "'42'"},
      {mq::Value(R"({"c": "2"})"), {}, R"({"c": "2"})", R"('{"c": "2"}')"},
      {mq::Value(R"({"c": 3.0})"), {}, R"({"c": 3.0})", R"('{"c": 3.0}')"},
      {mq::Value(R"({"c": {"v": 1}})"), {}, R"({"c": {"v": 1}})", R"('{"c": {"v": 1}}')"},
      {mq::Value(R"({"c": 18446744073709551615})"), {}, R"({"c": 18446744073709551615})",
       R"('{"c": 18446744073709551615}')"},
      {mq::Value("{\"c\": 1"), {}, "{\"c\": 1", R"('{"c": 1')"},
      {mq::Value("it's\nbroken\\"), {}, "it's\nbroken\\", R"("it's\nbroken\\")"},
      {mq::Value(R"({"c": true})"), {{"zig", 1}}, R"({"zig": 1})", R"('{"c": true}')"},
      // Not text at all: converted to text, then of no known shape.
      {mq::Value(), {{"zig", 1}}, R"({"zig": 1})", "'NULL'"},
      {mq::Value(7), {}, "7", "'7'"},
      {mq::Value(""), {}, "", "''"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stored ? c.stored->to_text() : "<no row>");
    set_stamp(c.stored);
    LogCapture log;
    EXPECT_EQ(db->refresh_extractor_stamp(c.versions), 0);
    EXPECT_EQ(stamp(), c.stored_after);
    EXPECT_TRUE(stale_paths().empty());
    Records expected;
    if (!c.unknown.empty()) {
      expected.push_back({kWarn, "Extractor stamp " + c.unknown + " has an unknown format; treating it as absent"});
    }
    EXPECT_EQ(log.records(), expected);
  }
}

TEST_F(IndexMetadata, FailedStampWriteRollsBackTheStaleMarks) {
  set_stamp(mq::Value(R"({"c": 1})"));
  db->execute("CREATE TRIGGER refuse BEFORE INSERT ON schema_info BEGIN SELECT RAISE(ABORT, 'stamp refused'); END");
  LogCapture log;
  try {
    db->refresh_extractor_stamp({{"c", 2}});
    FAIL() << "no error";
  } catch (const mq::Error& e) {
    EXPECT_STREQ(e.what(), "stamp refused");
  }
  EXPECT_TRUE(stale_paths().empty());
  EXPECT_EQ(stamp(), R"({"c": 1})");
  EXPECT_TRUE(log.records().empty());
  // Nothing was left open: the next writer goes ahead.
  db->execute("DROP TRIGGER refuse");
  EXPECT_EQ(db->refresh_extractor_stamp({{"c", 2}}), 1);
}

}  // namespace
