// The index file's life: opening files of older builds, the extractor stamp,
// clearing and swapping in a staging file, and the health figures.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include "marsk_quorvi/models/symbol.hpp"
#include "storage/migrations.hpp"
#include "storage/platform.hpp"
#include "support/index_rows.hpp"
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

std::int64_t scalar(mq::Database& db, const std::string& sql) { return (*db.fetchone(sql))[0].as_int(); }
std::string text(mq::Database& db, const std::string& sql) { return (*db.fetchone(sql))[0].to_text(); }

// What `call` raised as "Kind: message", with the error number after an
// operating-system error's kind; empty when it raised nothing.
std::string error_of(const std::function<void()>& call) {
  try {
    call();
  } catch (const marsk_quorvi::QuorviError& e) {
    const auto* os = dynamic_cast<const marsk_quorvi::OSError*>(&e);
    return e.kind() + (os ? " " + std::to_string(os->error_number()) : "") + ": " + e.what();
  }
  return "";
}

// ------------------------------------------------------------------ schema and migration

// The tables a 1.x build shaped differently: files without the stale mark,
// error rows without a line, chunks keyed by a file_id column (and one whose
// file is gone, which the old trigger missed), symbols indexed by qualified
// name. create_schema adds the rest.
constexpr const char* OLD_SCHEMA = R"sql(
CREATE TABLE schema_info (key TEXT PRIMARY KEY, value TEXT);
CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, language TEXT, content_hash TEXT);
CREATE TABLE index_errors (id INTEGER PRIMARY KEY, file_path TEXT NOT NULL, error_type TEXT NOT NULL, message TEXT);
CREATE TABLE symbols (id INTEGER PRIMARY KEY, file_id INTEGER NOT NULL REFERENCES files(id) ON DELETE CASCADE,
  name TEXT NOT NULL, fqn TEXT NOT NULL, kind TEXT NOT NULL, start_line INTEGER, end_line INTEGER,
  parent_id INTEGER REFERENCES symbols(id) ON DELETE CASCADE, signature TEXT, docstring TEXT);
CREATE INDEX idx_symbols_fqn ON symbols(fqn);
CREATE VIRTUAL TABLE code_chunks USING fts5(file_id UNINDEXED, text, start_line UNINDEXED, end_line UNINDEXED);
CREATE TRIGGER files_delete_code_chunks AFTER DELETE ON files BEGIN DELETE FROM code_chunks WHERE file_id = old.id; END;
BEGIN;
INSERT INTO files (id, path, language) SELECT value, 'src/file' || value, 'c' FROM numbers;
INSERT INTO code_chunks (file_id, text, start_line, end_line)
  SELECT id, 'function_' || id || '_' || k || ' ' || hex(zeroblob(600)), k * 12 + 1, k * 12 + 12
  FROM files, (SELECT 0 AS k UNION ALL SELECT 1 UNION ALL SELECT 2) ORDER BY id, k;
INSERT INTO code_chunks (file_id, text, start_line, end_line) VALUES (9999, 'orphan', 1, 1);
INSERT INTO index_errors (file_path, error_type, message) SELECT path, 'parse_error', 'bad' FROM files WHERE id % 5 = 0;
COMMIT;
)sql";

void make_old_index(const fs::path& p, const char* version, int files = 10, int page_size = 4096) {
  auto c = mq::Connection::open(p.string());
  c->execute("PRAGMA page_size=" + std::to_string(page_size));
  c->execute(
      "CREATE TEMP TABLE numbers AS WITH RECURSIVE n(value) AS (SELECT 1 UNION ALL SELECT value + 1 FROM n "
      "WHERE value < ?) SELECT value FROM n",
      {files});
  c->executescript(OLD_SCHEMA);
  if (version) c->execute("INSERT INTO schema_info VALUES ('version', ?)", {version});
}

// The recorded version, the files, error rows and chunks, and the page size.
constexpr const char* COUNTS =
    "SELECT (SELECT value FROM schema_info WHERE key = 'version') || '|' || (SELECT count(*) FROM files) || '|' || "
    "(SELECT count(*) FROM index_errors) || '|' || (SELECT count(*) FROM code_chunks) || '|' || page_size "
    "FROM pragma_page_size";

using SchemaMigration = mt::IndexTest;

TEST_F(SchemaMigration, OlderBuildFileIsMigratedAndRewrittenWhileQueriesKeepAnswering) {
  make_old_index(path("index.db"), nullptr, 300);
  mt::TestDb db(path("index.db"));
  db.connect();
  db.create_schema();
  std::atomic<bool> done{false};
  std::atomic<int> answers{0};
  auto reader = std::async(std::launch::async, [&] {
    for (; !done; ++answers) EXPECT_NO_THROW(EXPECT_EQ(scalar(db, "SELECT count(*) FROM files"), 300));
  });
  while (answers == 0) std::this_thread::yield();
  LogCapture log;
  EXPECT_NO_THROW(db.migrate_schema());
  for (const int before = answers; answers < before + 5;) std::this_thread::yield();
  done = true;
  reader.get();

  EXPECT_EQ(log.records(), (Records{{kInfo, "Schema version 3.2.0 (recorded 1.0.0)"}}));
  EXPECT_EQ(text(db, COUNTS), "3.2.0|300|60|900|8192");
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM sqlite_master WHERE name = 'idx_symbols_fqn'"), 0);
  EXPECT_EQ(scalar(db, "PRAGMA auto_vacuum"), mq::detail::kAutoVacuumIncremental);
  EXPECT_EQ(text(db, "PRAGMA journal_mode"), "wal");
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM files WHERE stale = 0"), 300);
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM index_errors WHERE line IS NULL"), 60);
  // Chunks move into their file's rowid range ((7 << 20) + 2) in their old order, marked as not verbatim.
  const auto hit =
      "SELECT rowid || ' ' || start_line || ' ' || exact FROM code_chunks WHERE code_chunks MATCH 'function_7_2'";
  EXPECT_EQ(text(db, hit), "7340034 25 0");
  // A deleted file takes its chunks along.
  db.execute("DELETE FROM files WHERE id = 7");
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM code_chunks"), 897);
  // Every step leaves a file that already has its shape exactly as it is.
  const auto migrated = mt::snapshot(db);
  mq::migrations::migrate([&](const std::function<void(mq::Cursor&)>& body) { db.transaction(body); }, "1.0.0");
  EXPECT_EQ(mt::snapshot(db), migrated);
}

TEST_F(SchemaMigration, ChunksOfAnUnknownShapeAreMadeAgainEmptyAndEveryFileIsMarkedStale) {
  // The second shape has as many columns as the 3.0 one, under other names.
  const std::string shapes[] = {"fts5(path, text); INSERT INTO code_chunks VALUES ('src/file1', 'x')",
                                "fts5(file_id, body, start, end); INSERT INTO code_chunks VALUES (1, 'x', 1, 2)"};
  for (const auto& shape : shapes) {
    SCOPED_TRACE(shape);
    const auto p = path(std::to_string(&shape - shapes) + ".db");
    make_old_index(p, "1.0.0");
    mq::Connection::open(p.string())
        ->executescript("DROP TABLE code_chunks; CREATE VIRTUAL TABLE code_chunks USING " + shape);
    auto db = open(p);
    EXPECT_EQ(text(*db, COUNTS), "3.2.0|10|2|0|8192");
    EXPECT_EQ(scalar(*db, "SELECT count(*) FROM files WHERE stale = 1"), 10);
    db->execute("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (3 << 20, 'x', 1, 1, 1)");
    db->execute("DELETE FROM files WHERE id = 3");
    EXPECT_EQ(scalar(*db, "SELECT count(*) FROM code_chunks"), 0);
  }
}

// What an open of an older file does with its version, pages, read pool and log lines.
TEST_F(SchemaMigration, RecordedVersionPageSizeAndOtherProcessesDecideTheSteps) {
  using Situation = std::function<std::shared_ptr<void>(const fs::path&)>;
  const Situation held_open = [](const fs::path& p) {
    auto peer = std::make_shared<mt::PeerProcess>(Strings{"hold", p.string(), "60"});
    EXPECT_EQ(peer->read_line(), "ready");
    return peer;
  };
  const Situation disk_full = [](const fs::path&) {
    const auto no_space = [](const fs::path&) { return mq::platform::VolumeUsage{1 << 30, 1 << 30, 0}; };
    const auto one_volume = [](const fs::path&) { return mq::platform::FileStatus{0, 1}; };
    return std::make_shared<mq::platform::ScopedOverride>(no_space, one_volume);
  };
  // unix-none has no shared memory, so SQLite refuses WAL on it after the rewrite.
  const Situation no_wal = [](const fs::path&) {
    sqlite3_vfs* saved = sqlite3_vfs_find(nullptr);
    sqlite3_vfs_register(sqlite3_vfs_find("unix-none"), 1);
    return std::shared_ptr<void>(saved, [](void* vfs) { sqlite3_vfs_register(static_cast<sqlite3_vfs*>(vfs), 1); });
  };
  const Situation errors_view = [](const fs::path& p) {
    mq::Connection::open(p.string())->executescript("DROP TABLE index_errors; CREATE VIEW index_errors AS SELECT 1");
    return nullptr;
  };
  const auto info = [](const std::string& recorded) -> LogRecord {
    return {kInfo, "Schema version 3.2.0 (recorded " + recorded + ")"};
  };
  const auto kept = [&](const char* file, const std::string& why) -> LogRecord {
    return {kWarn, "Pages of " + path(file).string() + " stay at 4096 bytes: " + why +
                       "; the rewrite is tried again at the next open"};
  };
  const auto held = kept("held.db", "another process has the file open");
  const auto full = kept("full.db", "not enough disk space: 0 MiB free in " + dir_.string() + ", 64 MiB needed");
  const LogRecord journal{kWarn, "Journal of " + path("no-wal.db").string() +
                                     " stays in delete mode after the page rewrite; queries share the writer "
                                     "connection until the next open"};
  // A view cannot take the 3.0.0 step's column: the file stays at the step before.
  const LogRecord view{kWarn,
                       "Schema migration from 2.0.0 to 3.0.0 failed\nOperationalError: Cannot add a column to a view"};
  const std::string view_error =
      "SchemaMigrationError: Schema migration to 3.0.0 failed: Cannot add a column to a view";
  const struct {
    const char* file;
    const char* recorded;  // null: no schema_info table at all
    int page_size;
    Situation situation;
    Records records;
    std::string after;  // COUNTS, then whether the read pool is the one before, a new one or none
    std::string error;
  } cases[] = {
      {"no-table.db", nullptr, 4096, {}, {info("1.0.0")}, "3.2.0|10|2|30|8192 new"},
      {"short.db", "3.2", 4096, {}, {info("3.2")}, "3.2|10|2|31|8192 new"},
      {"newer.db", "10.0.0", 4096, {}, {}, "10.0.0|10|2|31|4096 kept"},
      {"8192.db", "3.2.0", 8192, {}, {info("3.2.0")}, "3.2.0|10|2|31|8192 kept"},
      {"16384.db", "3.2.0", 16384, {}, {info("3.2.0")}, "3.2.0|10|2|31|16384 kept"},
      {"held.db", "1.0.0", 4096, held_open, {info("1.0.0"), held}, "3.2.0|10|2|30|4096 new"},
      {"full.db", "3.1.0", 4096, disk_full, {info("3.1.0"), full}, "3.2.0|10|2|31|4096 new"},
      {"no-wal.db", "3.1.0", 4096, no_wal, {info("3.1.0"), journal}, "3.2.0|10|2|31|8192 none"},
      {"view.db", "1.0.0", 4096, errors_view, {view}, "2.0.0|10|1|31|4096 kept", view_error},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const auto p = path(c.file);
    make_old_index(p, c.recorded, 10, c.page_size);
    if (!c.recorded) mq::Connection::open(p.string())->execute("DROP TABLE schema_info");
    const auto situation = c.situation ? c.situation(p) : nullptr;
    mt::TestDb db(p);
    db.connect();
    const auto pool = db.impl()._readers.load();
    LogCapture log;
    EXPECT_EQ(error_of([&] { db.migrate_schema(); }), c.error);
    EXPECT_EQ(log.records(), c.records);
    const auto now = db.impl()._readers.load();
    EXPECT_EQ(text(db, COUNTS) + (!now ? " none" : now == pool ? " kept" : " new"), c.after);
    if (pool) EXPECT_EQ(pool->closed(), now != pool);
  }
}

TEST_F(SchemaMigration, FailedTableCreationLeavesTheFileEmpty) {
  // An index name of `symbols`, taken: its bundle fails after components and files were made.
  mq::Connection::open(path("index.db").string())->execute("CREATE TABLE idx_symbols_file (x)");
  mq::Database db(path("index.db"));
  db.connect();
  EXPECT_EQ(error_of([&] { db.create_schema(); }), "OperationalError: there is already a table named idx_symbols_file");
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM sqlite_master"), 1);
}

// ------------------------------------------------------------------ extractor stamp

// A live index, and the staging files, stale marks and stamp around it.
class IndexFile : public mt::IndexTest {
 protected:
  void SetUp() override {
    IndexTest::SetUp();
    db = open(path("live/index.db"));
  }
  fs::path staging(const std::string& name, const mt::Seed& seed, const std::function<void(mq::Database&)>& edit = {}) {
    return mt::make_staging_file(path(name), seed, edit);
  }
  std::int64_t scalar(const std::string& sql) { return ::scalar(*db, sql); }
  void add_files() {
    db->execute(
        "INSERT INTO files (path, language) VALUES ('a.c', 'c'), ('b.go', 'go'), ('c.go', 'go'), ('d.py', 'py')");
  }
  std::string stale() {
    return text(*db, "SELECT ifnull(group_concat(path), '') FROM (SELECT path FROM files WHERE stale ORDER BY path)");
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

TEST_F(IndexFile, ChangedLanguagesAreMarkedStaleWithTheNewStamp) {
  add_files();
  LogCapture log;
  EXPECT_EQ(db->refresh_extractor_stamp({{"go", 3}, {"c", 2}}), 3);
  EXPECT_EQ(stamp(), R"({"c": 2, "go": 3})");
  EXPECT_EQ(stale(), "a.c,b.go,c.go");
  EXPECT_EQ(log.records(), (Records{{kInfo, "Extractor changed for c, go: 3 files marked for re-indexing"}}));
  // go moved on and py is new; c is as before.
  db->execute("UPDATE files SET stale = 0");
  log.clear();
  EXPECT_EQ(db->refresh_extractor_stamp({{"c", 2}, {"go", 4}, {"py", 1}}), 3);
  EXPECT_EQ(stale(), "b.go,c.go,d.py");
  EXPECT_EQ(stamp(), R"({"c": 2, "go": 4, "py": 1})");
  EXPECT_EQ(log.records(), (Records{{kInfo, "Extractor changed for go, py: 3 files marked for re-indexing"}}));
  // A refused stamp takes the marks of its transaction along, and logs nothing.
  db->execute("UPDATE files SET stale = 0");
  db->execute("CREATE TRIGGER refuse BEFORE INSERT ON schema_info BEGIN SELECT RAISE(ABORT, 'refused'); END");
  log.clear();
  EXPECT_EQ(error_of([&] { db->refresh_extractor_stamp({{"c", 3}}); }), "Error: refused");
  EXPECT_EQ(stale(), "");
  EXPECT_EQ(stamp(), R"({"c": 2, "go": 4, "py": 1})");
  EXPECT_TRUE(log.records().empty());
}

// A stamp read back equal to the versions is not written again (its spelling survives);
// one of an unknown format is warned about and counts as absent.
TEST_F(IndexFile, StoredStampsThatMarkNothing) {
  const mq::ExtractorVersions unicode{{"\xc3\xa9", 2}, {"\xf0\x9f\x90\x8d", 4}};
  const struct {
    std::optional<mq::Value> stored;  // none: no row
    mq::ExtractorVersions versions;
    std::optional<std::string> stored_after;
    std::string unknown;  // how the warning quotes an unknown stamp; empty: no warning
  } cases[] = {
      {std::nullopt, {}, std::nullopt, ""},
      {R"({"go":3,"c":2})", {{"c", 2}, {"go", 3}}, R"({"go":3,"c":2})", ""},
      {R"({"c": -1, "go": 3})", {{"c", -1}, {"go", 3}}, R"({"c": -1, "go": 3})", ""},
      {R"({"c": 2, "go": 3})", {{"c", 2}}, R"({"c": 2})", ""},
      {std::nullopt, unicode, R"({"\u00e9": 2, "\ud83d\udc0d": 4})", ""},
      {R"({"\u00e9": 2,"\ud83d\udc0d": 4})", unicode, R"({"\u00e9": 2,"\ud83d\udc0d": 4})", ""},
      {"[1, 2]", {}, "[1, 2]", "'[1, 2]'"},
      {R"({"c": "2"})", {}, R"({"c": "2"})", R"('{"c": "2"}')"},
      {R"({"c": 3.0})", {}, R"({"c": 3.0})", R"('{"c": 3.0}')"},
      {R"({"c": 9223372036854775808})", {}, R"({"c": 9223372036854775808})", R"('{"c": 9223372036854775808}')"},
      {"{\"c\": 1", {}, "{\"c\": 1", R"('{"c": 1')"},
      {"", {}, "", "''"},
      {R"({"c": true})", {{"zig", 1}}, R"({"zig": 1})", R"('{"c": true}')"},
      {7, {}, "7", "'7'"},  // not text at all: converted to text, then of no known shape
  };
  add_files();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stored ? c.stored->to_text() : "<no row>");
    set_stamp(c.stored);
    LogCapture log;
    EXPECT_EQ(db->refresh_extractor_stamp(c.versions), 0);
    EXPECT_EQ(stamp(), c.stored_after);
    EXPECT_EQ(stale(), "");
    const auto warning = "Extractor stamp " + c.unknown + " has an unknown format; treating it as absent";
    EXPECT_EQ(log.records(), c.unknown.empty() ? Records{} : (Records{{kWarn, warning}}));
  }
}

// ------------------------------------------------------------------ clearing, swapping and health

// The index rows of a state, or (not `inside`) all the rest but the
// generation and the full-text table's own tables.
mt::State part(const mt::State& state, bool inside) {
  mt::State out;
  for (const auto& [key, rows] : state) {
    const bool index = key == "code_chunks" || std::ranges::count(mt::kIndexTables, key) > 0;
    if (key != "generation" && (inside ? index : !index && !key.starts_with("code_chunks"))) out[key] = rows;
  }
  return out;
}

const auto bytes = mt::file_bytes;

// A file from before the chunk text existed: no code_chunks and no trigger naming it.
void drop_code_chunks(mq::Database& d) {
  d.execute("DROP TRIGGER files_delete_code_chunks");
  d.execute("DROP TABLE code_chunks");
}

TEST_F(IndexFile, SwapReplacesTheIndexTablesInOneCommitOrLeavesThemExactlyAsTheyWere) {
  mt::seed_index(*db, {.files = 3000, .symbols = 90, .edges = 40, .chunk_bytes = 3000, .tag = "old"});
  for (int g = 0; g < 5; ++g) db->impl()._bump_index_generation();  // without a cursor each commits at once
  db->execute("INSERT INTO schema_info (key, value) VALUES ('last_index', 'yesterday')");
  db->execute(
      "INSERT INTO pending_references (source_path, source_fqn, target_name, kind) VALUES ('a', 'a.f', 'g', 'c')");
  const auto file = staging("staging.db", {.files = 20, .symbols = 50, .edges = 30, .chunk_bytes = 32, .tag = "new"},
                            [](mq::Database& s) {
                              s.execute("PRAGMA user_version = 41");
                              s.execute("INSERT INTO schema_info (key, value) VALUES ('last_index', 'today')");
                            });
  const auto staged = bytes(file);
  const auto before = mt::snapshot(*db);
  const auto pages = scalar("PRAGMA page_count");
  LogCapture log;
  // Failures late in the transaction: code_chunks found without a column after every other table was copied,
  // and a live write refused after code_chunks was re-created and filled.
  const auto bad = staging("bad.db", {.files = 5}, [](mq::Database& s) {
    drop_code_chunks(s);
    s.execute("CREATE VIRTUAL TABLE code_chunks USING fts5(text, start_line, end_line)");
  });
  EXPECT_EQ(error_of([&] { db->swap_index_from(bad); }), "OperationalError: no such column: exact");
  db->execute("CREATE TRIGGER refuse BEFORE INSERT ON index_errors BEGIN SELECT RAISE(ABORT, 'frozen'); END");
  EXPECT_EQ(error_of([&] { db->swap_index_from(file); }), "Error: frozen");
  EXPECT_EQ(error_of([&] { db->swap_index_from(path("none.db")); }),
            "FileNotFoundError 2: Staging database not found: " + path("none.db").string());
  // The lock is free again: another thread writes at once.
  std::async(std::launch::async, [&] { db->execute("DROP TRIGGER refuse"); }).get();
  EXPECT_EQ(mt::snapshot(*db), before);
  EXPECT_EQ(mt::attached(*db), Strings{"main"});
  EXPECT_TRUE(log.records().empty());
  // After every commit another thread reads the generation and the rows in one statement.
  const auto figures =
      "SELECT user_version || '|' || (SELECT COUNT(*) FROM files) || '|' || (SELECT COUNT(*) FROM "
      "symbols) FROM pragma_user_version";
  Strings seen;
  std::function<void()> look = [&] {
    const auto now = std::async(std::launch::async, [&] { return text(*db, figures); }).get();
    if (seen.empty() || seen.back() != now) seen.push_back(now);
  };
  const auto committed = [](void* f, sqlite3*, const char*, int) {
    (*static_cast<std::function<void()>*>(f))();
    return SQLITE_OK;
  };
  sqlite3_wal_hook(db->connection()->handle(), committed, &look);

  const auto counts = db->swap_index_from(file);

  sqlite3_wal_autocheckpoint(db->connection()->handle(), 1000);
  const std::string inserted =
      "{'components': 1, 'files': 20, 'symbols': 50, 'edges': 30, 'external_imports': 2, "
      "'index_errors': 2, 'code_chunks': 20}";
  EXPECT_EQ(counts.to_string(), inserted);
  EXPECT_EQ(seen, Strings{"6|20|50"});
  const auto after = mt::snapshot(*db);
  EXPECT_EQ(part(after, true), part(mt::snapshot(file), true));
  EXPECT_EQ(part(after, false), part(before, false));
  EXPECT_EQ(after.at("generation"), Strings{"6"});
  EXPECT_EQ(bytes(file), staged);
  EXPECT_EQ(mt::attached(*db), Strings{"main"});
  const auto records = log.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0], (LogRecord{kInfo, "swap_index_from: replaced live index from " + file.string() +
                                              " (rows inserted: " + inserted + ")"}));
  EXPECT_TRUE(records[1].text.starts_with("Compacted " + db->db_path.string() + ": ")) << records[1].text;
  EXPECT_LT(scalar("PRAGMA page_count"), pages / 2);
}

TEST_F(IndexFile, CodeChunksFollowWhatEachFileHasAndExtraStagingColumnsAreLeftOut) {
  for (const bool live_has : {false, true}) {
    for (const bool staging_has : {false, true}) {
      SCOPED_TRACE(testing::Message() << "live has chunks: " << live_has << ", staging has: " << staging_has);
      db = open(path(std::to_string(live_has) + std::to_string(staging_has) + ".db"));
      mt::seed_index(*db, {.files = 6, .symbols = 12, .edges = 4, .chunk_bytes = 16, .tag = "old"});
      if (!live_has) drop_code_chunks(*db);
      // A table outside the index that refers to it: its cascade still runs.
      db->execute("CREATE TABLE notes (file_id INTEGER REFERENCES files(id) ON DELETE CASCADE)");
      if (live_has) db->execute("INSERT INTO notes VALUES (1)");
      const auto file = staging(std::to_string(live_has) + std::to_string(staging_has) + "-staging.db",
                                {.files = 9, .symbols = 9, .chunk_bytes = 16}, [&](mq::Database& s) {
                                  s.execute("UPDATE code_chunks SET rowid = rowid + 7");  // kept, never renumbered
                                  s.execute("ALTER TABLE symbols ADD COLUMN note TEXT");
                                  s.execute("UPDATE symbols SET note = 'staging only'");
                                  if (!staging_has) drop_code_chunks(s);
                                });

      const auto counts = db->swap_index_from(file);

      const bool copied = live_has && staging_has;
      EXPECT_EQ(counts.contains("code_chunks"), copied);
      EXPECT_EQ(std::prev(counts.end())->first, copied ? "code_chunks" : "index_errors");
      EXPECT_EQ(counts.at("symbols"), 9);
      EXPECT_EQ(mt::has_table(*db, "code_chunks"), live_has);
      if (live_has) EXPECT_EQ(scalar("SELECT count(*) FROM code_chunks"), copied ? 9 : 0);
      if (copied) EXPECT_EQ(scalar("SELECT sum(rowid) FROM code_chunks"), (45 << 20) + 9 * 7);  // files 1 to 9
      // Merging, off for the copy, is back at FTS5's defaults.
      if (copied) {
        EXPECT_EQ(text(*db, "SELECT group_concat(k || '=' || v, ' ') FROM code_chunks_config WHERE k LIKE '%merge'"),
                  "automerge=4 crisismerge=16");
      }
      EXPECT_EQ(db->index_generation(), 1);
      EXPECT_EQ(scalar("SELECT count(*) FROM notes"), 0);
      // The file trigger works on the re-created table, deleting is possible at all, and foreign keys
      // are enforced again.
      db->execute("DELETE FROM files WHERE id = 4");
      if (live_has) EXPECT_EQ(mt::count_rows(*db, "code_chunks"), copied ? 8 : 0);
      EXPECT_EQ(scalar("SELECT count(*) FROM symbols WHERE file_id = 4"), 0);
    }
  }
}

TEST_F(IndexFile, ClearAllEmptiesTheIndexTablesAsAWhole) {
  mt::seed_index(*db, {.files = 30, .symbols = 90, .edges = 40, .chunk_bytes = 32});
  db->execute("PRAGMA user_version = 7");
  db->execute("CREATE TRIGGER pin BEFORE DELETE ON components BEGIN SELECT RAISE(ABORT, 'components are pinned'); END");
  const auto before = mt::snapshot(*db);
  LogCapture log;
  // Fails at the fifth deletion, after code_chunks was re-created and four tables emptied.
  EXPECT_EQ(error_of([&] { db->clear_all(); }), "Error: components are pinned");
  EXPECT_EQ(mt::snapshot(*db), before);
  db->execute("DROP TRIGGER pin");
  const auto outside = part(mt::snapshot(*db), false);
  db->clear_all();
  EXPECT_EQ(log.records(), (Records{{kInfo,
                                     "clear_all: cleared all index data (rows removed: {'edges': 40, "
                                     "'external_imports': 3, 'symbols': 90, 'files': 30, 'components': 1, "
                                     "'index_errors': 3})"}}));
  EXPECT_EQ(part(mt::snapshot(*db), true), part(mt::snapshot(*open(path("empty.db"))), true));
  EXPECT_EQ(part(mt::snapshot(*db), false), outside);
  EXPECT_EQ(db->index_generation(), 7);
}

TEST_F(IndexFile, HealthFiguresCountListedSymbolsErrorRowsAndFilesWithErrors) {
  EXPECT_EQ(db->get_stats().to_string(), "{'files': 0, 'symbols': 0, 'edges': 0, 'components': 0, 'errors': 0}");
  mt::seed_index(*db, {.files = 10, .symbols = 20, .edges = 5});
  // Per-file anchors are not listed; a module declared inside a file is.
  db->execute(
      "INSERT INTO symbols (id, file_id, name, fqn, kind, parent_id) SELECT 100 + id, id, 'm', 'm', 'module', "
      "NULL FROM files UNION ALL SELECT 200, 2, 'in', 'm.in', 'module', 102");
  db->record_error("a.py", "parse_error", "unexpected token", 3);
  db->record_error("a.py", mq::FQN_COLLISION_ERROR);
  db->record_error("b.py", mq::PARTIAL_PARSE_ERROR, "cut short");
  EXPECT_EQ(db->get_stats().to_string(), "{'files': 10, 'symbols': 21, 'edges': 5, 'components': 1, 'errors': 4}");
  EXPECT_EQ(db->get_error_count(), 3);
  // Omitted message and line are stored as null, never as empty text or 0.
  EXPECT_EQ(mt::snapshot(*db).at("index_errors"),
            (Strings{"1|src-a/f10.py|parse_error|bad|1", "2|a.py|parse_error|unexpected token|3",
                     "3|a.py|fqn_collision|NULL|NULL", "4|b.py|partial_parse|cut short|NULL"}));
  // The condition stays one expression after AND.
  EXPECT_EQ(scalar("SELECT COUNT(*) FROM symbols WHERE file_id = 3 AND " + marsk_quorvi::models::listed_sql()), 2);
  EXPECT_TRUE(db->check_integrity());
  // Only the named rows of the file go; an empty kind is a kind, not "all".
  for (const auto& [kind, left] : std::vector<std::pair<std::optional<std::string>, std::string>>{
           {"", "1,2,3,4"}, {"parse_error", "1,3,4"}, {std::nullopt, "1,4"}}) {
    db->clear_file_errors("a.py", kind);
    EXPECT_EQ(text(*db, "SELECT group_concat(id) FROM (SELECT id FROM index_errors ORDER BY id)"), left);
  }
  db->execute("DROP TABLE edges");
  EXPECT_EQ(error_of([&] { db->get_stats(); }), "OperationalError: no such table: edges");
  // An index whose recorded definition no longer matches what is stored in it.
  db->connection()->executescript(
      "CREATE TABLE t (a, b); CREATE INDEX t_a ON t (a); INSERT INTO t VALUES (1, 100), (2, 200); PRAGMA "
      "writable_schema = ON; UPDATE sqlite_master SET sql = 'CREATE INDEX t_a ON t (b)' WHERE name = 't_a';");
  db->close();
  db = open(path("live/index.db"));
  EXPECT_FALSE(db->check_integrity());
}

// ------------------------------------------------------------------ read-only opening

TEST_F(IndexFile, ReadOnlyOpeningRefusesWhatIsNoIndexAndChangesNoByte) {
  // The file's name, how to make it, the error of a read-only connect ("%": the quoted path).
  using Case = std::tuple<const char*, std::function<void(const fs::path&)>, std::string>;
  const std::vector<Case> cases = {
      {"missing/index.db", [](const fs::path&) {}, "FileNotFoundError 2: [Errno 2] No such file or directory: %"},
      {"empty.db", [](const fs::path& p) { std::ofstream(p).flush(); }, "NotAnIndexError: not an index: % is empty"},
      {"foreign.db",
       [](const fs::path& p) {
         mq::Connection::open(p.string())->executescript("PRAGMA page_size=1024; CREATE TABLE files (id); "
                                                         "INSERT INTO files VALUES (1);");
       },
       "NotAnIndexError: not an index: % has no table symbols"},
      {"text.db", [](const fs::path& p) { std::ofstream(p) << std::string(5000, 'x'); },
       "OperationalError: file is not a database"},
      {"fifo.db", [](const fs::path& p) { ASSERT_EQ(::mkfifo(p.c_str(), 0600), 0); },
       "OSError 0: not a regular file: %"},
      {"folder.db", [](const fs::path& p) { fs::create_directory(p); }, "OSError 0: not a regular file: %"},
  };
  for (const auto& [name, make, error] : cases) {
    SCOPED_TRACE(name);
    const fs::path p = path(name);
    make(p);
    const std::string before = bytes(p);
    mq::Database ro(p, mq::OpenMode::ReadOnly);
    std::string expected = error;
    if (auto at = expected.find('%'); at != std::string::npos) expected.replace(at, 1, "'" + p.string() + "'");
    EXPECT_EQ(error_of([&] { ro.connect(); }), expected);
    EXPECT_EQ(bytes(p), before);
    EXPECT_FALSE(fs::exists(p.string() + "-wal"));
    EXPECT_FALSE(fs::exists(path("missing")));
  }
}

TEST_F(IndexFile, ReadOnlyHandleAnswersWhileAnotherProcessWritesAndRefusesEveryWrite) {
  add_files();
  db->record_error("a.c", "parse_error");
  db->record_error("a.c", "partial_parse");
  db->close();
  const fs::path live = path("live/index.db");
  const std::string before = bytes(live);
  mt::PeerProcess writer({"lock", live.string(), "60"});
  ASSERT_EQ(writer.read_line(), "ready");
  mt::TestDb ro(live, mq::OpenMode::ReadOnly);
  ro.impl()._busy_timeout_ms = 0;  // any wait for the writer fails at once
  ro.connect();
  EXPECT_EQ(ro.get_stats().to_string(), "{'files': 4, 'symbols': 0, 'edges': 0, 'components': 0, 'errors': 2}");
  EXPECT_EQ(ro.get_error_count(), 1);
  EXPECT_TRUE(ro.check_integrity());
  EXPECT_EQ(ro.index_generation(), 0);
  EXPECT_GT(ro.page_counts().page_count, 0);
  const auto staging_file = staging("staging.db", {});
  const std::vector<std::function<void()>> writes = {
      [&] { ro.create_schema(); },
      [&] { ro.migrate_schema(); },
      [&] { ro.transaction([](mq::Cursor&) {}); },
      [&] { (void)ro.executemany("DELETE FROM files WHERE id = ?", {{1}}); },
      [&] { ro.clear_all(); },
      [&] { ro.swap_index_from(staging_file); },
      [&] { ro.record_error("a.c", "x"); },
      [&] { ro.clear_file_errors("a.c"); },
      [&] { ro.compact(); },
      [&] { ro.refresh_extractor_stamp({{"c", 9}}); },
  };
  for (const auto& write : writes) EXPECT_EQ(error_of(write), "RuntimeError: the index is open read-only");
  try {
    ro.execute("DELETE FROM files");
    ADD_FAILURE() << "a write ran on a read-only handle";
  } catch (const mq::OperationalError& e) {
    EXPECT_TRUE(e.permission_denied()) << e.what();
  }
  ro.close();
  writer.kill();
  EXPECT_EQ(bytes(live), before);
}

}  // namespace
