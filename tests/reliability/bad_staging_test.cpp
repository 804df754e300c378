// A staging file comes from a rebuild that may have died or been cut short:
// each bad one is refused with SQLite's error and leaves the live index, the
// staging file and the handle as they were.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <functional>
#include <future>

#include "marsk_quorvi/storage/storage_size.hpp"
#include "reliability/support/report.hpp"
#include "support/index_rows.hpp"
#include "support/test_support.hpp"

namespace marsk_quorvi::testing {
namespace {

namespace fs = std::filesystem;
constexpr std::int64_t kPage = storage::storage_size::PAGE_SIZE;

// The file's bytes; none for no file (or a directory).
std::optional<std::string> bytes(const fs::path& p) {
  if (!fs::is_regular_file(p)) return std::nullopt;
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

State index_only(storage::Database& db) {
  State s = index_content(snapshot(db));
  s.erase("schema_info");
  s.erase("generation");
  return s;
}

// Besides the temporary database that the integrity check opens.
std::vector<std::string> attached_files(storage::Database& db) {
  auto names = attached(db);
  std::erase(names, "temp");
  return names;
}

class BadStaging : public IndexTest {
 protected:
  // A live index with known rows at generation 7.
  std::unique_ptr<TestDb> live(const std::string& name) {
    auto db = open(name);
    seed_index(*db, {.files = 40, .symbols = 120, .edges = 60, .chunk_bytes = 64, .tag = "live"});
    db->execute("PRAGMA user_version = 7");
    return db;
  }
  // What SQLite reads from `staging`, through a scratch copy that the read may change.
  State content_of(const fs::path& staging) {
    const auto scratch = path("scratch-" + std::to_string(++copies_) + ".db");
    fs::copy_file(staging, scratch);
    if (fs::exists(staging.string() + "-wal")) fs::copy_file(staging.string() + "-wal", scratch.string() + "-wal");
    return index_only(*open(scratch));
  }
  // `source` and its log copied to `name`, the file cut to `size` bytes and
  // the log to `log` bytes (-1: no log); a negative size leaves it whole.
  fs::path cut(const fs::path& source, const std::string& name, std::int64_t size, std::int64_t log = -2) {
    fs::copy_file(source, path(name));
    if (size >= 0) fs::resize_file(path(name), size);
    if (log == -1 || !fs::exists(source.string() + "-wal")) return path(name);
    fs::copy_file(source.string() + "-wal", path(name + "-wal"));
    if (log >= 0) fs::resize_file(path(name + "-wal"), log);
    return path(name);
  }
  fs::path written(const std::string& name, const std::string& text) {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
  }
  int copies_ = 0;
};

TEST_F(BadStaging, IsRefusedAndLeavesLiveIndexStagingFileAndHandleAsTheyWere) {
  const auto whole = make_staging_file(path("whole.db"), {300, 1500, 800, 400, "w"});
  const auto size = static_cast<std::int64_t>(fs::file_size(whole));
  ASSERT_GE(size / kPage, 40) << "too small to cut in meaningful places";
  // Its later rows are only in the log the last connection left behind.
  const auto logged = make_staging_file(path("logged.db"), {150, 600, 300, 300, "half"}, [](storage::Database& s) {
    s.connection()->execute("PRAGMA wal_checkpoint(TRUNCATE)").fetchall();
    s.execute("PRAGMA wal_autocheckpoint=0");
    s.connection()->executescript(R"sql(BEGIN;
      WITH RECURSIVE n(i) AS (SELECT 151 UNION ALL SELECT i + 1 FROM n WHERE i < 300)
        INSERT INTO files (id, path, language, content_hash, size, mtime) SELECT i, 'wal/f' || i, 'py', 'h', i, 0 FROM n;
      INSERT INTO symbols (id, file_id, name, fqn, kind, start_line, end_line)
        SELECT 1000 + id, id, 'w' || id, 'm.w' || id, 'function', 1, 2 FROM files WHERE id > 150;
      INSERT INTO code_chunks (rowid, text, start_line, end_line, exact)
        SELECT id << 20, 'wal ' || hex(randomblob(150)), 1, 100, 1 FROM files WHERE id > 150;
      COMMIT;)sql");
    sqlite3_db_config(s.connection()->handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  });
  fs::remove(path("logged.db-shm"));
  const auto log_size = static_cast<std::int64_t>(fs::file_size(path("logged.db-wal")));
  ASSERT_GT(log_size, 0) << "the log was written back";
  const auto good = make_staging_file(path("good.db"), {7, 21, 9, 32, "good"});
  const State good_content = content_of(good);
  const std::string odd = "it's \"stäging\" ünïcødé 索引";
  fs::create_directories(path(odd));
  auto edited = [&](const char* name, const char* ddl) {
    return make_staging_file(path(name), {30, 30}, [&](storage::Database& s) { s.connection()->executescript(ddl); });
  };
  const std::string malformed = "Error database disk image is malformed";

  // The expected error as "Kind message", the staging path added after a
  // closing ": "; none for a swap that goes through.
  const std::vector<std::tuple<std::string, std::function<fs::path()>, std::string>> cases = {
      {"missing", [&] { return path("absent/staging.db"); }, "FileNotFoundError Staging database not found: "},
      {"missing, with quotes and non-ASCII characters", [&] { return path(odd + "/'gone\".db"); },
       "FileNotFoundError Staging database not found: "},
      {"a directory",
       [&] {
         fs::create_directories(path("dir.db"));
         return path("dir.db");
       },
       "OperationalError unable to open database: "},
      {"empty", [&] { return written("empty.db", ""); }, "OperationalError no such table: stg.components"},
      {"a short text", [&] { return written("notes.txt", "not an index\n"); }, "Error file is not a database"},
      {"a text of several pages", [&] { return written("f.py", std::string(3 * kPage + 17, 'x')); },
       "Error file is not a database"},
      {"only the header", [&] { return cut(whole, "header.db", 100); }, malformed},
      {"cut to one page", [&] { return cut(whole, "page.db", kPage); }, malformed},
      {"cut to half its pages", [&] { return cut(whole, "half.db", size / kPage / 2 * kPage); }, malformed},
      {"cut inside a page", [&] { return cut(whole, "ragged.db", 3 * kPage + 1000); }, malformed},
      {"cut inside a page near the end", [&] { return cut(whole, "end.db", size - 5 * kPage - 123); }, malformed},
      {"cut to half with its log whole",
       [&] { return cut(logged, "l-half.db", static_cast<std::int64_t>(fs::file_size(logged)) / kPage / 2 * kPage); },
       malformed},
      {"cut to one page with its log whole", [&] { return cut(logged, "l-page.db", kPage); }, malformed},
      {"no symbols table", [&] { return edited("ns.db", "PRAGMA foreign_keys=OFF; DROP TABLE edges; DROP TABLE symbols"); },
       "OperationalError no such table: stg.symbols"},
      {"files lacks content_hash", [&] { return edited("nh.db", "ALTER TABLE files DROP COLUMN content_hash"); },
       "OperationalError no such column: content_hash"},
      {"external_imports lacks module, after three tables were copied",
       [&] { return edited("nm.db", "DROP INDEX idx_external_imports_module; ALTER TABLE external_imports DROP COLUMN module"); },
       "OperationalError no such column: module"},
      // Cut where SQLite reads an earlier state whole: the swap is all of it.
      {"its log cut in half", [&] { return cut(logged, "l-cut.db", -1, log_size / 2); }, ""},
      {"its log whole", [&] { return cut(logged, "l-whole.db", -1); }, ""},
      {"its log lost", [&] { return cut(logged, "l-lost.db", -1, -1); }, ""},
      {"valid, at a path with quotes and non-ASCII characters", [&] { return cut(good, odd + "/'stäged\" ✓.db", -1); },
       ""},
  };
  int n = 0;
  for (const auto& [name, make, error] : cases) {
    SCOPED_TRACE(name);
    auto db = live("live-" + std::to_string(++n) + ".db");
    const auto staging = make();
    const auto file_before = bytes(staging), log_before = bytes(staging.string() + "-wal");
    const State before = snapshot(*db);
    const State staged = error.empty() ? content_of(staging) : State{};
    std::string got;
    try {
      db->swap_index_from(staging);
    } catch (const QuorviError& e) {
      got = std::string(e.kind()) + " " + e.what();
    }
    EXPECT_EQ(got, error + (error.ends_with(": ") ? staging.string() : ""));
    if (error.empty()) {
      EXPECT_EQ(index_only(*db), staged);
      EXPECT_EQ(db->index_generation(), 8);
      EXPECT_EQ(snapshot(*db).at("schema_info"), before.at("schema_info"));
    } else {
      EXPECT_EQ(snapshot(*db), before);
    }
    EXPECT_TRUE(db->check_integrity());
    EXPECT_EQ(attached_files(*db), std::vector<std::string>{"main"});
    EXPECT_EQ(bytes(staging), file_before) << "the staging file changed";
    EXPECT_EQ(bytes(staging.string() + "-wal"), log_before) << "the staging file's log changed";
    if (error.starts_with("FileNotFoundError")) EXPECT_FALSE(fs::exists(staging)) << "the missing file was made";

    // The handle goes on: another thread (so the lock is free) swaps a good file in.
    std::async(std::launch::async, [&] { db->swap_index_from(good); }).get();
    EXPECT_EQ(index_only(*db), good_content);
    EXPECT_EQ(db->index_generation(), error.empty() ? 9 : 8);
    EXPECT_TRUE(db->check_integrity());
    EXPECT_EQ(attached_files(*db), std::vector<std::string>{"main"});
  }
  report_figure("bad_staging_files", static_cast<std::int64_t>(cases.size()));
  report_figure("states_checked", 2 * static_cast<std::int64_t>(cases.size()));
}

// A cursor from execute may be read after the lock is released, so another
// thread's statement can still be open on the writer connection while a swap
// runs: it keeps the staging file locked, the swap fails and so does its
// detachment. The next swap must not find `stg` still attached.
TEST_F(BadStaging, ASwapAfterAFailedDetachmentAttachesAgain) {
  auto db = live("live.db");
  const State before = snapshot(*db);
  const auto good = make_staging_file(path("good.db"), {5, 10, 0, 16, "good"});
  const State good_content = content_of(good);
  std::promise<void> reading, swapped;
  auto reader = std::async(std::launch::async, [&] {
    auto cursor = db->execute("SELECT id FROM files ORDER BY id");
    EXPECT_TRUE(cursor.fetchone().has_value());
    reading.set_value();
    swapped.get_future().wait();
  });
  reading.get_future().wait();
  try {
    db->swap_index_from(good);
    ADD_FAILURE() << "the swap dropped code_chunks under an open statement";
  } catch (const storage::OperationalError& e) {
    EXPECT_STREQ(e.what(), "database table is locked");
  }
  EXPECT_EQ(snapshot(*db), before);
  swapped.set_value();
  reader.get();
  EXPECT_EQ(db->swap_index_from(good).at("files"), 5);
  EXPECT_EQ(index_only(*db), good_content);
  EXPECT_EQ(db->index_generation(), 8);
  EXPECT_EQ(attached_files(*db), std::vector<std::string>{"main"});
}

}  // namespace
}  // namespace marsk_quorvi::testing
