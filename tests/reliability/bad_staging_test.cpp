// Swaps from staging files that are missing, not databases, cut short, or
// lack part of the schema: each is refused with the error SQLite reports,
// and leaves the live index, the staging file and the handle as they were.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <map>
#include <ostream>
#include <optional>
#include <string>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/storage_size.hpp"
#include "reliability/support/report.hpp"
#include "support/index_rows.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
namespace mt = marsk_quorvi::testing;
namespace fs = std::filesystem;

namespace {

using Snapshot = std::map<std::string, std::vector<std::string>>;

// The page size of every file made here.
constexpr std::int64_t kPage = mq::storage_size::PAGE_SIZE;

// What a swap from a case's staging file must end in.
enum class Outcome {
  kNotFound,     // FileNotFoundError before anything is touched
  kOperational,  // OperationalError with the message
  kError,        // Error that is not an OperationalError (corruption, not a database)
  kSucceeds,     // the swap goes through and the live index is what the staging file reads as
};

struct BadStagingCase {
  std::string name;
  std::function<fs::path()> make;
  Outcome outcome;
  std::function<std::string(const fs::path&)> message;  // for the error outcomes
};

std::optional<std::string> read_bytes(const fs::path& p) {
  std::error_code ec;
  if (!fs::is_regular_file(p, ec)) return std::nullopt;
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The staging file as the bytes of its database file and its write-ahead
// log (absent ones as none): a swap must leave both exactly as found.
struct FileBytes {
  std::optional<std::string> main;
  std::optional<std::string> wal;
  bool operator==(const FileBytes&) const = default;
};
void PrintTo(const FileBytes& b, std::ostream* os) {
  auto size = [](const std::optional<std::string>& f) { return f ? std::to_string(f->size()) + " bytes" : "none"; };
  *os << "{file: " << size(b.main) << ", log: " << size(b.wal) << "}";
}
FileBytes bytes_of(const fs::path& p) { return {read_bytes(p), read_bytes(p.string() + "-wal")}; }

void write_file(const fs::path& p, const std::string& text) { std::ofstream(p, std::ios::binary) << text; }

// The databases attached to the writer connection besides the temporary
// one that the integrity check opens.
std::vector<std::string> attached_files(mq::Database& db) {
  auto names = mt::attached(db);
  std::erase(names, "temp");
  return names;
}

Snapshot index_only(const Snapshot& all) {
  Snapshot snap = mt::index_content(all);
  snap.erase("schema_info");
  snap.erase("generation");
  return snap;
}

class BadStaging : public mt::TempDirTest {
 protected:
  // A live index with known rows and generation 7.
  std::unique_ptr<mq::Database> open_live(const std::string& name) {
    auto live = std::make_unique<mq::Database>(path(name));
    live->connect();
    live->create_schema();
    mt::seed_index(*live, {.files = 40, .symbols = 120, .edges = 60, .chunk_bytes = 64, .tag = "live"});
    live->execute("PRAGMA user_version = 7");
    return live;
  }

  // A complete staging file, closed cleanly: WAL mode with the log written
  // back and removed. `edit` changes it before the close.
  fs::path make_staging(const std::string& name, const mt::Seed& seed,
                        const std::function<void(mq::Database&)>& edit = {}) {
    return mt::make_staging_file(path(name), seed, edit);
  }

  // A staging file whose later rows are only in its write-ahead log: the
  // first half of the index is checkpointed into the file, the second half
  // is committed to the log, and the last connection leaves without writing
  // the log back. Returns the file; its log is beside it.
  fs::path make_uncheckpointed_staging(const std::string& name) {
    const auto p = path(name);
    mq::Database staging(p);
    staging.connect();
    staging.create_schema();
    staging.execute("PRAGMA wal_autocheckpoint=0");
    mt::seed_index(staging, {.files = 150, .symbols = 600, .edges = 300, .chunk_bytes = 300, .tag = "half"});
    staging.connection()->execute("PRAGMA wal_checkpoint(TRUNCATE)").fetchall();
    staging.transaction([](mq::Cursor& c) {
      c.execute(
          "WITH RECURSIVE n(i) AS (SELECT 151 UNION ALL SELECT i + 1 FROM n WHERE i < 300) "
          "INSERT INTO files (id, path, language, content_hash, size, mtime) "
          "SELECT i, 'wal/f' || i || '.py', 'py', 'h', i, 0 FROM n");
      c.execute(
          "INSERT INTO symbols (id, file_id, name, fqn, kind, start_line, end_line) "
          "SELECT 1000 + id, id, 'w' || id, 'm.w' || id, 'function', 1, 2 FROM files WHERE id > 150");
      c.execute(
          "INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
          "SELECT id << 20, 'wal ' || hex(randomblob(150)), 1, 100, 1 FROM files WHERE id > 150");
    });
    sqlite3_db_config(staging.connection()->handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    staging.close();
    EXPECT_GT(fs::file_size(p.string() + "-wal"), 0u) << "the log was written back";
    fs::remove(p.string() + "-shm");
    return p;
  }

  // `source` (and its log, when there is one) copied to `name`, then the
  // copy of the file cut to `main_size` bytes and the copy of the log to
  // `wal_size` bytes (none: left whole; a negative size: the log dropped).
  fs::path cut_copy(const fs::path& source, const std::string& name, std::optional<std::int64_t> main_size,
                    std::optional<std::int64_t> wal_size = std::nullopt) {
    const auto p = path(name);
    fs::copy_file(source, p, fs::copy_options::overwrite_existing);
    if (main_size) fs::resize_file(p, static_cast<std::uintmax_t>(*main_size));
    const fs::path source_wal = source.string() + "-wal";
    const fs::path wal = p.string() + "-wal";
    if (fs::exists(source_wal) && !(wal_size && *wal_size < 0)) {
      fs::copy_file(source_wal, wal, fs::copy_options::overwrite_existing);
      if (wal_size) fs::resize_file(wal, static_cast<std::uintmax_t>(*wal_size));
    }
    return p;
  }

  // What SQLite reads from `staging`, taken from a scratch copy so that the
  // original stays untouched.
  Snapshot content_of(const fs::path& staging) {
    const auto scratch = path("scratch/" + std::to_string(scratch_n_++) + ".db");
    fs::create_directories(scratch.parent_path());
    fs::copy_file(staging, scratch);
    if (fs::exists(staging.string() + "-wal")) fs::copy_file(staging.string() + "-wal", scratch.string() + "-wal");
    mq::Database copy(scratch);
    copy.connect();
    auto snap = index_only(mt::snapshot(copy));
    copy.close();
    return snap;
  }

  int scratch_n_ = 0;
};

std::function<std::string(const fs::path&)> fixed(std::string text) {
  return [text](const fs::path&) { return text; };
}

TEST_F(BadStaging, IsRefusedAndLeavesLiveIndexStagingFileAndHandleIntact) {
  const auto whole = make_staging("whole.db", {.files = 300, .symbols = 1500, .edges = 800, .chunk_bytes = 400, .tag = "w"});
  const auto whole_size = static_cast<std::int64_t>(fs::file_size(whole));
  ASSERT_EQ(whole_size % kPage, 0);
  ASSERT_GE(whole_size / kPage, 40) << "too small to cut in meaningful places";
  ASSERT_FALSE(fs::exists(whole.string() + "-wal"));
  const auto logged = make_uncheckpointed_staging("logged.db");
  const auto logged_wal_size = static_cast<std::int64_t>(fs::file_size(logged.string() + "-wal"));
  const auto good = make_staging("good.db", {.files = 7, .symbols = 21, .edges = 9, .chunk_bytes = 32, .tag = "good"});
  const auto good_content = content_of(good);
  const std::string odd_dir = "it's \"stäging\" ünïcødé 索引";
  fs::create_directories(path(odd_dir));

  const std::vector<BadStagingCase> cases = {
      {"missing path", [&] { return path("absent/staging.db"); }, Outcome::kNotFound, {}},
      {"missing path with quotes and non-ASCII characters", [&] { return path(odd_dir + "/'gone\".db"); },
       Outcome::kNotFound, {}},
      {"a directory",
       [&] {
         fs::create_directories(path("a-directory.db"));
         return path("a-directory.db");
       },
       Outcome::kOperational, [](const fs::path& p) { return "unable to open database: " + p.string(); }},
      {"an empty file",
       [&] {
         write_file(path("empty.db"), "");
         return path("empty.db");
       },
       Outcome::kOperational, fixed("no such table: stg.components")},
      {"a short text file",
       [&] {
         write_file(path("notes.txt"), "this is not an index\n");
         return path("notes.txt");
       },
       Outcome::kError, fixed("file is not a database")},
      {"a text file of several pages",
       [&] {
         std::string text;
         while (text.size() < 3 * 8192 + 17) text += "def f():\n    return 'not an index'\n";
         write_file(path("source.py"), text);
         return path("source.py");
       },
       Outcome::kError, fixed("file is not a database")},
      {"only the 100-byte header", [&] { return cut_copy(whole, "header.db", 100); }, Outcome::kError,
       fixed("database disk image is malformed")},
      {"cut to one page", [&] { return cut_copy(whole, "one-page.db", kPage); }, Outcome::kError,
       fixed("database disk image is malformed")},
      {"cut to half its pages", [&] { return cut_copy(whole, "half.db", whole_size / kPage / 2 * kPage); },
       Outcome::kError, fixed("database disk image is malformed")},
      {"cut inside a page", [&] { return cut_copy(whole, "ragged.db", 3 * kPage + 1000); }, Outcome::kError,
       fixed("database disk image is malformed")},
      {"cut inside a page near the end",
       [&] { return cut_copy(whole, "ragged-end.db", whole_size - 5 * kPage - 123); }, Outcome::kError,
       fixed("database disk image is malformed")},
      {"uncheckpointed log, file cut to half with the log whole",
       [&] {
         return cut_copy(logged, "logged-half.db",
                         static_cast<std::int64_t>(fs::file_size(logged)) / kPage / 2 * kPage);
       },
       Outcome::kError, fixed("database disk image is malformed")},
      {"uncheckpointed log, file cut to one page with the log whole",
       [&] { return cut_copy(logged, "logged-page.db", kPage); }, Outcome::kError,
       fixed("database disk image is malformed")},
      {"no symbols table",
       [&] {
         return make_staging("no-symbols.db", {.files = 5, .symbols = 5}, [](mq::Database& s) {
           s.execute("PRAGMA foreign_keys=OFF");
           s.execute("DROP TABLE edges");
           s.execute("DROP TABLE symbols");
         });
       },
       Outcome::kOperational, fixed("no such table: stg.symbols")},
      {"files lacks the live column content_hash",
       [&] {
         return make_staging("no-hash.db", {.files = 5, .symbols = 5},
                             [](mq::Database& s) { s.execute("ALTER TABLE files DROP COLUMN content_hash"); });
       },
       Outcome::kOperational, fixed("no such column: content_hash")},
      {"external_imports lacks the live column module, after three tables were copied",
       [&] {
         return make_staging("no-module.db", {.files = 30, .symbols = 30}, [](mq::Database& s) {
           s.execute("DROP INDEX idx_external_imports_module");
           s.execute("ALTER TABLE external_imports DROP COLUMN module");
         });
       },
       Outcome::kOperational, fixed("no such column: module")},
      // Cut where SQLite reads a consistent earlier state: the swap is all
      // of that state, never a mix.
      {"uncheckpointed log cut in half", [&] { return cut_copy(logged, "logged-cut-log.db", std::nullopt, logged_wal_size / 2); },
       Outcome::kSucceeds, {}},
      {"uncheckpointed log whole", [&] { return cut_copy(logged, "logged-whole.db", std::nullopt); }, Outcome::kSucceeds,
       {}},
      {"uncheckpointed log lost", [&] { return cut_copy(logged, "logged-no-log.db", std::nullopt, -1); },
       Outcome::kSucceeds, {}},
      {"valid file at a path with quotes and non-ASCII characters",
       [&] {
         const auto p = path(odd_dir + "/'stäged\" ✓.db");
         fs::copy_file(good, p);
         return p;
       },
       Outcome::kSucceeds, {}},
  };

  std::int64_t states_checked = 0;
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto live = open_live("live-" + std::to_string(n++) + ".db");
    const auto staging = c.make();
    const FileBytes staging_before = bytes_of(staging);
    const auto before = mt::snapshot(*live);
    std::optional<Snapshot> staged;
    if (c.outcome == Outcome::kSucceeds) staged = content_of(staging);

    std::optional<std::string> failure;
    try {
      live->swap_index_from(staging);
    } catch (const marsk_quorvi::FileNotFoundError& e) {
      EXPECT_EQ(c.outcome, Outcome::kNotFound) << e.what();
      EXPECT_EQ(e.what(), "Staging database not found: " + staging.string());
      failure = e.what();
    } catch (const mq::OperationalError& e) {
      EXPECT_EQ(c.outcome, Outcome::kOperational) << e.what();
      EXPECT_EQ(e.what(), c.message ? c.message(staging) : "");
      failure = e.what();
    } catch (const mq::Error& e) {
      EXPECT_EQ(c.outcome, Outcome::kError) << e.what();
      EXPECT_EQ(e.what(), c.message ? c.message(staging) : "");
      failure = e.what();
    }

    if (failure) {
      EXPECT_EQ(mt::snapshot(*live), before);
      EXPECT_EQ(live->index_generation(), 7);
    } else {
      EXPECT_EQ(c.outcome, Outcome::kSucceeds) << "a bad staging file was swapped in";
      EXPECT_EQ(index_only(mt::snapshot(*live)), *staged);
      EXPECT_EQ(live->index_generation(), 8);
      EXPECT_EQ(mt::snapshot(*live)["schema_info"], before.at("schema_info"));
    }
    EXPECT_TRUE(live->check_integrity());
    EXPECT_EQ(attached_files(*live), std::vector<std::string>{"main"});
    EXPECT_EQ(bytes_of(staging), staging_before) << "the staging file was changed";
    if (c.outcome == Outcome::kNotFound) EXPECT_FALSE(fs::exists(staging)) << "the missing file was created";
    ++states_checked;

    // The handle is fine: another thread (so the lock must be free) swaps a
    // good file in.
    const auto generation = live->index_generation();
    std::async(std::launch::async, [&] { live->swap_index_from(good); }).get();
    EXPECT_EQ(index_only(mt::snapshot(*live)), good_content);
    EXPECT_EQ(live->index_generation(), generation + 1);
    EXPECT_TRUE(live->check_integrity());
    EXPECT_EQ(attached_files(*live), std::vector<std::string>{"main"});
    ++states_checked;
    live->close();
  }
  mt::report_figure("bad_staging_files", static_cast<std::int64_t>(cases.size()));
  mt::report_figure("states_checked", states_checked);
}

}  // namespace

namespace {

using StagingAttachment = BadStaging;

// A cursor from execute may be read after the lock is released, so a
// statement of another thread can still be open on the writer connection
// while a swap runs. Its read keeps the staging file locked, the swap fails
// and its detachment fails with it; the next swap must not find `stg` still
// attached.
TEST_F(StagingAttachment, ASwapAfterAFailedDetachmentAttachesAgain) {
  auto live = open_live("live.db");
  const auto before = mt::snapshot(*live);
  const auto good = make_staging("good.db", {.files = 5, .symbols = 10, .chunk_bytes = 16, .tag = "good"});
  const auto good_content = content_of(good);

  std::promise<void> reading, done_swapping;
  auto reader = std::async(std::launch::async, [&] {
    auto cursor = live->execute("SELECT id FROM files ORDER BY id");
    EXPECT_TRUE(cursor.fetchone().has_value());
    reading.set_value();
    done_swapping.get_future().wait();
    cursor.close();
  });
  reading.get_future().wait();
  try {
    live->swap_index_from(good);
    ADD_FAILURE() << "the swap dropped code_chunks under an open statement";
  } catch (const mq::OperationalError& e) {
    EXPECT_STREQ(e.what(), "database table is locked");
  }
  EXPECT_EQ(mt::snapshot(*live), before);
  done_swapping.set_value();
  reader.get();

  EXPECT_EQ(live->swap_index_from(good).at("files"), 5);
  EXPECT_EQ(index_only(mt::snapshot(*live)), good_content);
  EXPECT_EQ(live->index_generation(), 8);
  EXPECT_EQ(attached_files(*live), std::vector<std::string>{"main"});
}

}  // namespace
