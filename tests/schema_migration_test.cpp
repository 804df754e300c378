// Opening index files made by older builds: table creation, the migration
// registry, and the one-time rewrite of files with small pages, including a
// second process that holds the file open and a disk that is too full.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <string>
#include <thread>

#include "marsk_quorvi/storage/database.hpp"
#include "storage/migrations.hpp"
#include "storage/platform.hpp"
#include "marsk_quorvi/storage/storage_size.hpp"
#include "support/test_support.hpp"

namespace fs = std::filesystem;
namespace mq = marsk_quorvi::storage;
namespace migrations = mq::migrations;
using marsk_quorvi::testing::LogCapture;
using marsk_quorvi::testing::LogRecord;

using marsk_quorvi::testing::PeerProcess;

namespace {

using TestDb = marsk_quorvi::testing::TestDb;

// What an index written by a 1.x build looks like: 4096-byte pages, files
// without the stale mark, index_errors without a line, chunks keyed by a
// file_id column, no external_imports or pending_references yet.
constexpr const char* OLD_SCHEMA = R"sql(
CREATE TABLE schema_info (key TEXT PRIMARY KEY, value TEXT);
CREATE TABLE components (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, root_path TEXT, description TEXT);
CREATE TABLE files (id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE, language TEXT, content_hash TEXT,
                    size INTEGER, mtime REAL, component_id INTEGER REFERENCES components(id) ON DELETE SET NULL);
CREATE TABLE symbols (id INTEGER PRIMARY KEY, file_id INTEGER NOT NULL REFERENCES files(id) ON DELETE CASCADE,
                      name TEXT NOT NULL, fqn TEXT NOT NULL, kind TEXT NOT NULL, start_line INTEGER,
                      end_line INTEGER, parent_id INTEGER REFERENCES symbols(id) ON DELETE CASCADE,
                      signature TEXT, docstring TEXT);
CREATE TABLE edges (id INTEGER PRIMARY KEY, source_id INTEGER NOT NULL REFERENCES symbols(id) ON DELETE CASCADE,
                    target_id INTEGER NOT NULL REFERENCES symbols(id) ON DELETE CASCADE, kind TEXT NOT NULL,
                    resolution TEXT NOT NULL DEFAULT 'exact', line INTEGER);
CREATE TABLE index_errors (id INTEGER PRIMARY KEY, file_path TEXT NOT NULL, error_type TEXT NOT NULL, message TEXT);
CREATE VIRTUAL TABLE code_chunks USING fts5(file_id UNINDEXED, text, start_line UNINDEXED, end_line UNINDEXED);
CREATE TRIGGER files_delete_code_chunks AFTER DELETE ON files BEGIN
  DELETE FROM code_chunks WHERE file_id = old.id;
END;
)sql";

constexpr int FILES = 300;

struct Counts {
  std::int64_t files, symbols, edges, errors, chunks;
  bool operator==(const Counts&) const = default;
};

void make_old_index(const fs::path& p, const std::optional<std::string>& version,
                    const char* index_errors_ddl = nullptr) {
  auto c = mq::Connection::open(p.string());
  c->execute("PRAGMA page_size=4096");
  c->executescript(OLD_SCHEMA);
  if (index_errors_ddl) {
    c->execute("DROP TABLE index_errors");
    c->execute(index_errors_ddl);
  }
  if (version) c->execute("INSERT INTO schema_info VALUES ('version', ?)", {*version});
  c->execute("BEGIN");
  c->execute("INSERT INTO components (id, name) VALUES (1, 'core')");
  const char* languages[] = {"c", "python", "go"};
  for (int f = 1; f <= FILES; ++f) {
    c->execute("INSERT INTO files (id, path, language, component_id) VALUES (?, ?, ?, 1)",
               {f, "src/file" + std::to_string(f), languages[f % 3]});
    const int anchor = f * 10;
    c->execute("INSERT INTO symbols (id, file_id, name, fqn, kind) VALUES (?, ?, ?, ?, 'module')",
               {anchor, f, "file" + std::to_string(f), "file" + std::to_string(f)});
    for (int s = 1; s <= 3; ++s) {
      c->execute("INSERT INTO symbols (id, file_id, name, fqn, kind, parent_id) VALUES (?, ?, ?, ?, 'function', ?)",
                 {anchor + s, f, "fn" + std::to_string(s), "file" + std::to_string(f) + ".fn" + std::to_string(s),
                  anchor});
    }
    c->execute("INSERT INTO edges (source_id, target_id, kind) VALUES (?, ?, 'calls'), (?, ?, 'calls')",
               {anchor + 1, anchor + 2, anchor + 2, anchor + 3});
    for (int k = 0; k < 3; ++k) {
      std::string text;
      for (int line = 0; line < 12; ++line) {
        text += "int function_" + std::to_string(f) + "_" + std::to_string(k) + "_" + std::to_string(line) +
                "(void) { return " + std::to_string(line) + "; }\n";
      }
      c->execute("INSERT INTO code_chunks (file_id, text, start_line, end_line) VALUES (?, ?, ?, ?)",
                 {f, text, k * 12 + 1, k * 12 + 12});
    }
    if (f % 30 == 0 && !index_errors_ddl) {
      c->execute("INSERT INTO index_errors (file_path, error_type, message) VALUES (?, 'parse_error', 'bad')",
                 {"src/file" + std::to_string(f)});
    }
  }
  // A chunk whose file is gone: the old trigger missed it, the migration
  // drops it.
  c->execute("INSERT INTO code_chunks (file_id, text, start_line, end_line) VALUES (9999, 'orphan', 1, 1)");
  c->execute("COMMIT");
  c->close();
}

const Counts OLD_COUNTS{FILES, FILES * 4, FILES * 2, FILES / 30, FILES * 3};

std::int64_t scalar(mq::Database& db, const std::string& sql) { return (*db.fetchone(sql))[0].as_int(); }

Counts counts(mq::Database& db) {
  return {scalar(db, "SELECT count(*) FROM files"), scalar(db, "SELECT count(*) FROM symbols"),
          scalar(db, "SELECT count(*) FROM edges"), scalar(db, "SELECT count(*) FROM index_errors"),
          scalar(db, "SELECT count(*) FROM code_chunks")};
}

std::string recorded_version(mq::Database& db) {
  auto row = db.fetchone("SELECT value FROM schema_info WHERE key = 'version'");
  return row ? (*row)[0].to_text() : "<none>";
}

void open(mq::Database& db) {
  db.connect();
  db.create_schema();
  db.migrate_schema();
}

std::vector<LogRecord> at_least(const LogCapture& log, spdlog::level::level_enum level) {
  std::vector<LogRecord> out;
  for (const auto& r : log.records()) {
    if (r.level >= level) out.push_back(r);
  }
  return out;
}

std::string kept_warning(const fs::path& p, const std::string& why) {
  return "Pages of " + p.string() + " stay at 4096 bytes: " + why + "; the rewrite is tried again at the next open";
}

class SchemaMigration : public marsk_quorvi::testing::TempDirTest {};

TEST_F(SchemaMigration, OlderBuildFileIsMigratedRewrittenAndKeepsEveryRow) {
  const auto p = path("index.db");
  make_old_index(p, std::nullopt);
  LogCapture log;
  TestDb db(p);
  open(db);

  EXPECT_EQ(recorded_version(db), "3.1.0");
  EXPECT_EQ(log.matching("Schema version").size(), 1u);
  EXPECT_EQ(log.matching("Schema version")[0], (LogRecord{spdlog::level::info, "Schema version 3.1.0 (recorded 1.0.0)"}));
  EXPECT_TRUE(at_least(log, spdlog::level::warn).empty());

  EXPECT_EQ(scalar(db, "PRAGMA page_size"), mq::storage_size::PAGE_SIZE);
  EXPECT_EQ(scalar(db, "PRAGMA auto_vacuum"), mq::detail::kAutoVacuumIncremental);
  EXPECT_EQ((*db.fetchone("PRAGMA journal_mode"))[0].as_text(), "wal");
  EXPECT_EQ((*db.fetchone("PRAGMA integrity_check"))[0].as_text(), "ok");
  EXPECT_EQ(counts(db), OLD_COUNTS);

  // The added columns, and the chunks carried over into rowid ranges in their
  // old order.
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM files WHERE stale = 0"), FILES);
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM index_errors WHERE line IS NULL"), FILES / 30);
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM code_chunks WHERE (rowid >> 20) NOT IN (SELECT id FROM files)"), 0);
  auto hit = db.fetchone("SELECT rowid, start_line, exact FROM code_chunks WHERE code_chunks MATCH 'function_7_2_0'");
  ASSERT_TRUE(hit);
  EXPECT_EQ((*hit)[0].as_int(), (7LL << 20) + 2);
  EXPECT_EQ((*hit)[1].as_int(), 25);
  EXPECT_EQ((*hit)[2].as_int(), 0);

  // The read pool is back and serves queries.
  auto readers = db.impl()._readers.load();
  ASSERT_TRUE(readers);
  EXPECT_FALSE(readers->closed());
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM external_imports"), 0);
  EXPECT_GE(readers->open_connections(), 1);

  // The new trigger: a deleted file takes its chunks along.
  db.execute("DELETE FROM files WHERE id = 7");
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM code_chunks"), FILES * 3 - 3);
  db.close();

  // The next open finds nothing to do.
  LogCapture again;
  TestDb reopened(p);
  open(reopened);
  EXPECT_EQ(again.records(), (std::vector<LogRecord>{{spdlog::level::info, "Schema version 3.1.0 (recorded 3.1.0)"}}));
}

TEST_F(SchemaMigration, FileHeldOpenByAnotherProcessIsLeftAloneUntilTheNextOpen) {
  const auto p = path("index.db");
  make_old_index(p, "1.0.0");
  {
    PeerProcess peer({"hold", p.string(), "60"});
    ASSERT_EQ(peer.read_line(), "ready");
    LogCapture log;
    TestDb db(p);
    open(db);
    EXPECT_EQ(recorded_version(db), "3.1.0");
    EXPECT_EQ(at_least(log, spdlog::level::warn),
              (std::vector<LogRecord>{{spdlog::level::warn, kept_warning(p, "another process has the file open")}}));
    EXPECT_EQ(scalar(db, "PRAGMA page_size"), 4096);
    EXPECT_EQ(counts(db), OLD_COUNTS);
    EXPECT_TRUE(db.impl()._readers.load());
    // The other process still reads the file.
    const auto seen = marsk_quorvi::testing::PeerProcess::run({"query", p.string(), "SELECT count(*) FROM symbols"});
    EXPECT_EQ(seen.output, std::to_string(FILES * 4) + "\n");
    db.close();
  }
  LogCapture log;
  TestDb db(p);
  open(db);
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), mq::storage_size::PAGE_SIZE);
  EXPECT_TRUE(at_least(log, spdlog::level::warn).empty());
  EXPECT_EQ(counts(db), OLD_COUNTS);
}

TEST_F(SchemaMigration, DiskTooFullSkipsTheRewriteButStillCyclesTheReadPool) {
  const auto p = path("index.db");
  make_old_index(p, "3.1.0");
  TestDb db(p);
  db.connect();
  db.create_schema();
  const auto used = scalar(db, "PRAGMA page_count") * 4096 - scalar(db, "PRAGMA freelist_count") * 4096;
  const auto before = db.impl()._readers.load();
  ASSERT_TRUE(before);

  mq::platform::ScopedOverride full([](const fs::path&) { return mq::platform::VolumeUsage{1 << 30, 1 << 30, 1 << 20}; },
                                    {});
  const auto why = mq::detail::_disk_shortfall(p.parent_path(), used);
  ASSERT_TRUE(why);
  LogCapture log;
  db.migrate_schema();
  EXPECT_EQ(at_least(log, spdlog::level::warn), (std::vector<LogRecord>{{spdlog::level::warn, kept_warning(p, *why)}}));
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), 4096);
  EXPECT_TRUE(before->closed());
  const auto after = db.impl()._readers.load();
  ASSERT_TRUE(after);
  EXPECT_NE(after, before);
}

// unix-none has no shared memory, so SQLite refuses WAL on it: the journal
// cannot return to WAL after the rewrite.
class DefaultVfs {
 public:
  explicit DefaultVfs(const char* name) : saved_(sqlite3_vfs_find(nullptr)) {
    sqlite3_vfs_register(sqlite3_vfs_find(name), 1);
  }
  ~DefaultVfs() { sqlite3_vfs_register(saved_, 1); }

 private:
  sqlite3_vfs* saved_;
};

TEST_F(SchemaMigration, JournalLeftInRollbackModeIsWarnedAndQueriesShareTheWriter) {
  const auto p = path("index.db");
  make_old_index(p, "3.1.0");
  // Counted on a plain connection: a Database would switch the file to WAL,
  // which unix-none cannot open.
  Counts before{};
  {
    auto c = mq::Connection::open(p.string());
    auto n = [&](const char* table) {
      return (*c->execute(std::string("SELECT count(*) FROM ") + table).fetchone())[0].as_int();
    };
    before = {n("files"), n("symbols"), n("edges"), n("index_errors"), n("code_chunks")};
  }
  DefaultVfs no_shm("unix-none");
  LogCapture log;
  TestDb db(p);
  open(db);
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), mq::storage_size::PAGE_SIZE);
  EXPECT_EQ(at_least(log, spdlog::level::warn),
            (std::vector<LogRecord>{{spdlog::level::warn,
                                     "Journal of " + p.string() +
                                         " stays in delete mode after the page rewrite; queries share the writer "
                                         "connection until the next open"}}));
  EXPECT_FALSE(db.impl()._readers.load());
  EXPECT_EQ(counts(db), before);
  db.close();
}

TEST_F(SchemaMigration, FailingStepLeavesTheFileAtTheLastCommittedVersion) {
  // index_errors as a view: the 3.0.0 step cannot add its column.
  const auto p = path("index.db");
  make_old_index(p, "1.0.0", "CREATE VIEW index_errors AS SELECT 'a' AS file_path, 'b' AS error_type, 'c' AS message");
  LogCapture log;
  TestDb db(p);
  db.connect();
  db.create_schema();
  try {
    db.migrate_schema();
    FAIL() << "no SchemaMigrationError";
  } catch (const migrations::SchemaMigrationError& e) {
    EXPECT_STREQ(e.what(), "Schema migration to 3.0.0 failed: Cannot add a column to a view");
  }
  EXPECT_EQ(log.records(), (std::vector<LogRecord>{{spdlog::level::warn,
                                                    "Schema migration from 2.0.0 to 3.0.0 failed\n"
                                                    "OperationalError: Cannot add a column to a view"}}))
      << "one record";
  EXPECT_EQ(recorded_version(db), "2.0.0");
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM files WHERE stale = 0"), FILES);
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), 4096);
}

TEST_F(SchemaMigration, RegistryRunsOnlyTheStepsAfterTheRecordedVersion) {
  // A current file: every step that runs must leave it exactly as it is.
  struct Case {
    std::string recorded;
    int steps;
    std::string reached;
  };
  const Case cases[] = {
      {"1.0.0", 3, "3.1.0"}, {"2.0.0", 2, "3.1.0"},   {"2.9.9", 2, "3.1.0"},   {"3.0.10", 1, "3.1.0"},
      {"3.1", 0, "3.1.0"},   {"3.1.0", 0, "3.1.0"},   {"3.10.0", 0, "3.10.0"}, {"10.0.0", 0, "10.0.0"},
  };
  TestDb db(path("index.db"));
  db.connect();
  db.create_schema();
  auto dump = [&] {
    std::string out;
    for (const auto& r : db.fetchall("SELECT type, name, sql FROM sqlite_master ORDER BY name")) {
      out += r[0].to_text() + " " + r[1].to_text() + " " + r[2].to_text() + "\n";
    }
    return out;
  };
  const std::string shape = dump();
  for (const auto& c : cases) {
    int scopes = 0;
    const auto reached = migrations::migrate(
        [&](const std::function<void(mq::Cursor&)>& body) {
          ++scopes;
          db.transaction(body);
        },
        c.recorded);
    EXPECT_EQ(scopes, c.steps) << c.recorded;
    EXPECT_EQ(reached, c.reached) << c.recorded;
    EXPECT_EQ(dump(), shape) << c.recorded;
  }
}

TEST_F(SchemaMigration, RecordedVersionDecidesTheInfoLineAndTheRewrite) {
  struct Case {
    const char* name;
    std::optional<std::string> recorded;  // none: no row
    bool drop_schema_info;
    std::optional<std::string> info;  // none: no info line, no rewrite
  };
  const Case cases[] = {
      {"no row", std::nullopt, false, "Schema version 3.1.0 (recorded 1.0.0)"},
      {"no table", std::nullopt, true, "Schema version 3.1.0 (recorded 1.0.0)"},
      {"short form", "3.1", false, "Schema version 3.1.0 (recorded 3.1)"},
      {"newer build", "10.0.0", false, std::nullopt},
  };
  for (const auto& c : cases) {
    const auto p = path(std::string(c.name) + ".db");
    make_old_index(p, c.recorded);
    TestDb db(p);
    db.connect();
    db.create_schema();
    if (c.drop_schema_info) db.execute("DROP TABLE schema_info");
    LogCapture log;
    db.migrate_schema();
    const auto infos = log.matching("Schema version");
    if (c.info) {
      ASSERT_EQ(infos.size(), 1u) << c.name;
      EXPECT_EQ(infos[0].text, *c.info) << c.name;
      EXPECT_EQ(scalar(db, "PRAGMA page_size"), mq::storage_size::PAGE_SIZE) << c.name;
    } else {
      EXPECT_TRUE(infos.empty()) << c.name;
      EXPECT_EQ(scalar(db, "PRAGMA page_size"), 4096) << c.name;
    }
  }
}

TEST_F(SchemaMigration, FilesWithPagesAtLeastThePageSizeKeepTheirPool) {
  for (const int page_size : {8192, 16384}) {
    const auto p = path("pages" + std::to_string(page_size) + ".db");
    {
      auto c = mq::Connection::open(p.string());
      c->execute("PRAGMA page_size=" + std::to_string(page_size));
      c->execute("CREATE TABLE t (x)");
    }
    TestDb db(p);
    db.connect();
    db.create_schema();
    const auto pool = db.impl()._readers.load();
    LogCapture log;
    db.migrate_schema();
    EXPECT_EQ(log.records(), (std::vector<LogRecord>{{spdlog::level::info, "Schema version 3.1.0 (recorded 3.1.0)"}}));
    EXPECT_EQ(db.impl()._readers.load(), pool);
    EXPECT_FALSE(pool->closed());
    EXPECT_EQ(scalar(db, "PRAGMA page_size"), page_size);
  }
}

TEST_F(SchemaMigration, QueriesDuringThePageRewriteKeepAnswering) {
  const auto p = path("index.db");
  make_old_index(p, "3.1.0");
  TestDb db(p);
  db.connect();
  db.create_schema();
  std::atomic<bool> done{false};
  std::atomic<int> answers{0};
  std::atomic<int> wrong{0};
  std::thread reader([&] {
    while (!done.load()) {
      try {
        if (scalar(db, "SELECT count(*) FROM symbols") != FILES * 4) ++wrong;
        ++answers;
      } catch (...) {
        ++wrong;
      }
    }
  });
  while (answers.load() == 0) std::this_thread::yield();
  db.migrate_schema();
  const int before = answers.load();
  while (answers.load() < before + 5) std::this_thread::yield();
  done = true;
  reader.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(scalar(db, "PRAGMA page_size"), mq::storage_size::PAGE_SIZE);
}

TEST_F(SchemaMigration, FailedTableCreationLeavesTheFileEmpty) {
  // An object that squats the name of an index of `symbols` makes the
  // symbols bundle fail after components and files were made.
  const auto p = path("index.db");
  {
    auto c = mq::Connection::open(p.string());
    c->execute("CREATE TABLE idx_symbols_file (x)");
  }
  TestDb db(p);
  db.connect();
  EXPECT_THROW(db.create_schema(), mq::OperationalError);
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM sqlite_master"), 1);
}

}  // namespace
