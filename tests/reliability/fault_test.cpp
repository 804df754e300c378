// A disk that fails or fills up at any read, write, sync, truncate, open or
// delete of an operation, or a staging file that is bad, must leave exactly a
// state the operation commits, a sound file, and a handle that goes on.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <map>
#include <mutex>

#include "marsk_quorvi/storage/storage_size.hpp"
#include "reliability/support/report.hpp"
#include "storage/migrations.hpp"
#include "support/index_rows.hpp"
#include "support/test_support.hpp"

namespace marsk_quorvi::testing {
namespace {

namespace fs = std::filesystem;
constexpr std::int64_t kPage = storage::storage_size::PAGE_SIZE;

enum class FaultOp { write, sync, truncate, open, read, remove, any };

struct Fault {
  FaultOp op;
  std::int64_t nth;         // 1 is the first operation of that kind after arming
  bool full = false;        // a full disk rather than an I/O error
  bool persistent = false;  // the Nth and every later one, as a disk that died or filled up
};

// The default VFS once installed, so every file goes through it, journals and logs too: it
// counts the operations of each kind and, once armed, fails the Nth as SQLite's own VFS would.
struct FaultVfs {
  static inline std::atomic<bool> armed{false};
  static inline Fault fault{FaultOp::any, 0};  // written only while disarmed
  static inline std::array<std::atomic<std::int64_t>, 7> counts{};
  static inline std::atomic<std::int64_t> fired{0};

  static void arm(const Fault& f) {
    armed = false;
    for (auto& c : counts) c = 0;
    fired = 0;
    fault = f;
    armed = true;
  }
  static int check(FaultOp op) {
    const std::int64_t of_kind = ++counts[static_cast<int>(op)];
    const std::int64_t of_any = ++counts[6];
    if (!armed || (fault.op != FaultOp::any && fault.op != op)) return SQLITE_OK;
    const std::int64_t n = fault.op == FaultOp::any ? of_any : of_kind;
    if (fault.persistent ? n < fault.nth : n != fault.nth) return SQLITE_OK;
    ++fired;
    static const int codes[] = {SQLITE_IOERR_WRITE, SQLITE_IOERR_FSYNC, SQLITE_IOERR_TRUNCATE,
                                SQLITE_CANTOPEN,    SQLITE_IOERR_READ,  SQLITE_IOERR_DELETE};
    return fault.full ? SQLITE_FULL : codes[static_cast<int>(op)];
  }
  // A file keeps the real VFS's state and gets a copy of its methods that counts first (a
  // failed write writes nothing); the copy leads with the table, so it leads back to the real one.
  struct Patched {
    sqlite3_io_methods methods;
    const sqlite3_io_methods* real;
  };
  template <FaultOp Op, auto Method, class... Args>
  static int counted(sqlite3_file* f, Args... args) {
    const int rc = check(Op);
    return rc ? rc : (reinterpret_cast<const Patched*>(f->pMethods)->real->*Method)(f, args...);
  }
  static const sqlite3_io_methods* patched(const sqlite3_io_methods* real) {
    static std::mutex mu;
    static std::map<const sqlite3_io_methods*, std::unique_ptr<Patched>> tables;
    std::lock_guard lock(mu);
    auto& p = tables[real];
    if (!p) {
      p = std::make_unique<Patched>(Patched{*real, real});
      p->methods.xRead = counted<FaultOp::read, &sqlite3_io_methods::xRead, void*, int, sqlite3_int64>;
      p->methods.xWrite = counted<FaultOp::write, &sqlite3_io_methods::xWrite, const void*, int, sqlite3_int64>;
      p->methods.xTruncate = counted<FaultOp::truncate, &sqlite3_io_methods::xTruncate, sqlite3_int64>;
      p->methods.xSync = counted<FaultOp::sync, &sqlite3_io_methods::xSync, int>;
    }
    return &p->methods;
  }
  static void install() {
    static sqlite3_vfs* const real = sqlite3_vfs_find(nullptr);
    static sqlite3_vfs vfs = [] {
      sqlite3_vfs v = *real;
      v.zName = "quorvi-fault";
      v.xOpen = [](sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* out) {
        file->pMethods = nullptr;  // a refused open is not closed
        if (const int rc = check(FaultOp::open)) return rc;
        const int rc = real->xOpen(real, name, file, flags, out);
        if (file->pMethods != nullptr) file->pMethods = patched(file->pMethods);
        return rc;
      };
      v.xDelete = [](sqlite3_vfs*, const char* name, int sync_dir) {
        const int rc = check(FaultOp::remove);
        return rc ? rc : real->xDelete(real, name, sync_dir);
      };
      return v;
    }();
    sqlite3_vfs_register(&vfs, 1);
  }
};

// Commits past the budget are refused, on every connection; -1 is no limit.
std::atomic<int> commit_budget{-1};
std::atomic<bool> commit_refused{false};
int limit_commits(sqlite3* db, char**, const sqlite3_api_routines*) {
  sqlite3_commit_hook(
      db,
      [](void*) {
        if (commit_budget < 0) return 0;
        if (commit_budget > 0) {
          --commit_budget;
          return 0;
        }
        commit_refused = true;
        return 1;
      },
      nullptr);
  return SQLITE_OK;
}

// SQLite answers some pragmas from what the connection last read: the header is read first.
std::string pragma(storage::Database& db, const std::string& name) {
  db.fetchone("PRAGMA schema_version");
  return (*db.fetchone("PRAGMA " + name))[0].to_text();
}
bool below_thresholds(storage::Database& db) {
  const double free = std::stod(pragma(db, "freelist_count")), pages = std::stod(pragma(db, "page_count"));
  return free < storage::COMPACT_MIN_FREE_PAGES || free < pages * storage::COMPACT_MIN_FREE_RATIO;
}

// SQLite's texts for the injected failures: alone, behind FTS5's or a migration step's context,
// or only the table's name when a read fails while the full-text table loads.
bool expected_failure(std::string m) {
  if (m.starts_with("Schema migration to ")) m = m.substr(m.find(" failed: ") + 9);
  for (const std::string text : {"disk I/O error", "database or disk is full", "unable to open database file"}) {
    if (m == text || (m.starts_with("fts5: ") && m.ends_with(": " + text))) return true;
  }
  return m.starts_with("unable to open database: ") || m == "vtable constructor failed: code_chunks";
}
fs::path seeded(const fs::path& p, const Seed& seed = {40, 120, 80, 64, "old"}) {
  return make_staging_file(p, seed, [](storage::Database& db) { db.refresh_extractor_stamp({{"py", 1}}); });
}

// 2200 free pages between rows kept, so that releasing them moves pages; `auto_vacuum` 0 needs the conversion.
fs::path free_pages(const fs::path& p, int auto_vacuum, const Seed& seed = {40, 120, 80, 64, "old"}, int doc = 2) {
  storage::Connection::open(p.string())->executescript("PRAGMA page_size=" + std::to_string(kPage) +
                                                       "; PRAGMA auto_vacuum=" + std::to_string(auto_vacuum) +
                                                       "; CREATE TABLE padding (id INTEGER PRIMARY KEY, b BLOB)");
  return make_staging_file(p, seed, [&](storage::Database& db) {
    db.execute("UPDATE symbols SET docstring = hex(randomblob(?))", {doc / 2});
    db.execute("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2444) "
               "INSERT INTO padding (b) SELECT randomblob(64) || zeroblob(5936) FROM n");  // a row a page
    db.execute("DELETE FROM padding WHERE id % 10 <> 0");
  });
}

// An older build's index: pages of 4096 bytes and the first release's tables and version.
fs::path older_build(const fs::path& dir) {
  auto conn = storage::Connection::open(seeded(dir / "older.db", {40, 120, 80, 200, "old"}).string());
  conn->executescript(R"sql(PRAGMA journal_mode=DELETE; PRAGMA page_size=4096;
    DROP INDEX idx_files_stale; ALTER TABLE files DROP COLUMN stale; ALTER TABLE index_errors DROP COLUMN line;
    DROP TABLE external_imports; DROP TABLE pending_references; DROP TRIGGER files_delete_code_chunks;
    DROP TABLE code_chunks;
    CREATE VIRTUAL TABLE code_chunks USING fts5(file_id UNINDEXED, text, start_line UNINDEXED, end_line UNINDEXED);
    INSERT INTO code_chunks SELECT id, 'chunk of ' || path, 1, 9 FROM files;
    INSERT INTO code_chunks VALUES (9999, 'a chunk of no file', 1, 1);
    UPDATE schema_info SET value = '1.0.0' WHERE key = 'version';
    VACUUM; PRAGMA journal_mode=WAL;)sql");
  return dir / "older.db";
}

struct Outcome {
  bool raised = false;
  std::string message, result;
  bool fired = false;
};
struct Scenario {
  std::string name;
  fs::path (*prepare)(const fs::path& dir);
  void (*run)(TestDb&, std::string& result);  // the operation, and what it returned as text
  bool opens = false;                          // `run` opens the handle, else it is connected first
  bool all_or_nothing = true;                  // one transaction: a raise leaves the first state, a return the last
  std::int64_t quick_points = 12;
  // Its own checks after each point, and after the run without a fault.
  void (*after)(TestDb&, const Outcome&, const State& seen, LogCapture&) = nullptr;
  std::int64_t first_delete = 1;  // the first removal of a file that is failed
};
void PrintTo(const Scenario& s, std::ostream* os) { *os << s.name; }

storage::Compaction last;
State staging_before;
void compact(TestDb& db, std::string& result) {
  last = db.compact();
  result = std::to_string(last.converted) + " " + std::to_string(last.pages_released) + " " + last.skipped.value_or("");
}
// A compaction never raises: a fault ends in `skipped` "failed: ...".
void expect_reported(const Outcome& out) {
  EXPECT_FALSE(out.raised) << out.message;
  if (!last.skipped) return;
  EXPECT_TRUE(last.skipped->starts_with("failed: ") && expected_failure(last.skipped->substr(8))) << *last.skipped;
  EXPECT_EQ(last.pages_released, 0);
  EXPECT_FALSE(last.converted);
}
void open_index(TestDb& db, std::string&) {
  db.connect();
  db.create_schema();
  db.migrate_schema();
}

const Scenario kScenarios[] = {
    {.name = "transaction",
     .prepare = [](const fs::path& dir) { return seeded(dir / "small.db"); },
     .run = [](TestDb& db, std::string&) {
       db.transaction([&](storage::Cursor&) {
         db.clear_all();
         seed_index(db, {.files = 300, .symbols = 900, .edges = 600, .tag = "new"});  // no random chunk text
       });
     }},
    // The live index outgrows the page cache (pages spill before the commit) and leaves pages to release.
    {.name = "swap_index_from",
     .prepare = [](const fs::path& dir) {
       staging_before = snapshot(seeded(dir / "staging.db", {25, 70, 40, 48, "new"}));
       return free_pages(dir / "swap.db", 2, {60, 300, 200, 64, "old"}, 8000);
     },
     .run = [](TestDb& db, std::string& result) {
       result = db.swap_index_from(db.db_path.parent_path() / "staging.db").to_string();
     },
     .quick_points = 6,
     .after = [](TestDb& db, const Outcome& out, const State&, LogCapture&) {
       const auto names = attached(db);
       EXPECT_EQ(std::count(names.begin(), names.end(), "stg"), 0) << "the staging file stayed attached";
       EXPECT_EQ(snapshot(db.db_path.parent_path() / "staging.db"), staging_before) << "the staging file changed";
       if (!out.fired) EXPECT_TRUE(below_thresholds(db) && std::stoi(pragma(db, "page_count")) < 800);
     }},
    {.name = "clear_all",
     .prepare = [](const fs::path& dir) { return seeded(dir / "small.db"); },
     .run = [](TestDb& db, std::string&) { db.clear_all(); }},
    {.name = "refresh_extractor_stamp",
     .prepare = [](const fs::path& dir) { return seeded(dir / "small.db"); },
     .run = [](TestDb& db, std::string& result) {
       result = std::to_string(db.refresh_extractor_stamp({{"c", 1}, {"py", 2}}));
       EXPECT_EQ(result, "40");
     }},
    {.name = "compact_steps",
     .prepare = [](const fs::path& dir) { return free_pages(dir / "steps.db", 2); },
     .run = compact,
     .all_or_nothing = false,
     .quick_points = 6,
     .after = [](TestDb& db, const Outcome& out, const State&, LogCapture&) {
       expect_reported(out);
       if (!out.fired) EXPECT_GT(last.pages_released, 2 * storage::COMPACT_STEP_PAGES) << "fewer than three steps";
       EXPECT_EQ(db.compact().skipped, std::nullopt);
       EXPECT_TRUE(below_thresholds(db));
     }},
    {.name = "compact_conversion",
     .prepare = [](const fs::path& dir) { return free_pages(dir / "convert.db", 0); },
     .run = compact,
     .all_or_nothing = false,
     .quick_points = 6,
     .after = [](TestDb& db, const Outcome& out, const State&, LogCapture&) {
       expect_reported(out);
       EXPECT_TRUE(out.fired || last.converted);
       if (last.skipped) EXPECT_TRUE(db.impl()._conversion_failed.load()) << "a failed rewrite is not marked";
       if (pragma(db, "auto_vacuum") == "2") {
         EXPECT_EQ(db.compact(), storage::Compaction{});
         return;
       }
       // Not tried again by this handle; the next start converts the file.
       EXPECT_EQ(db.compact().skipped, "an earlier conversion failed or changed nothing: not retried");
       TestDb next(db.db_path);
       next.connect();
       EXPECT_TRUE(next.compact().converted);
     }},
    // connect, create_schema, each migration step and the page rewrite. The first removal, the
    // log's as the journal leaves WAL, is left out: SQLite ignores its failure, and the switch back
    // replays the stale log over the rewritten pages, which the rewrite does not guard against yet.
    {.name = "open_older_build",
     .prepare = older_build,
     .run = open_index,
     .opens = true,
     .all_or_nothing = false,
     .quick_points = 24,
     .after = [](TestDb&, const Outcome& out, const State& seen, LogCapture& log) {
       if (!out.message.starts_with("Schema migration")) return;
       const std::string versions[] = {"1.0.0", "2.0.0", "3.0.0", "3.1.0", "3.2.0"};
       const auto& info = seen.at("schema_info");
       const auto row = std::find_if(info.begin(), info.end(), [](auto& r) { return r.starts_with("version|"); });
       const auto at = std::find(std::begin(versions), std::end(versions) - 1, row->substr(8));
       ASSERT_NE(at, std::end(versions) - 1) << *row;
       EXPECT_TRUE(out.message.starts_with("Schema migration to " + at[1] + " failed: ")) << out.message;
       EXPECT_EQ(log.matching("Schema migration from ").at(0).level, spdlog::level::warn);
       EXPECT_EQ(log.matching("Schema migration from " + *at + " to " + at[1] + " failed\n").size(), 1u);
     },
     .first_delete = 2},
    {.name = "open_new_file",
     .prepare = [](const fs::path& dir) {
       std::ofstream(dir / "new.db").flush();
       return dir / "new.db";
     },
     .run = open_index,
     .opens = true,
     .all_or_nothing = false},
};

// N evenly spread over `total` points (a swap has thousands), the first and the last always,
// then total + 1, where no fault may fire.
std::vector<std::int64_t> points_for(std::int64_t total, std::int64_t quick_points) {
  const std::int64_t visited = exhaustive_scale() ? total : scaled<std::int64_t>(quick_points, 250);
  const std::int64_t stride = total <= visited ? 1 : (total + visited - 1) / visited;
  std::vector<std::int64_t> out;
  for (std::int64_t n = 1; n <= total; n += stride) out.push_back(n);
  if (total > 0 && out.back() != total) out.push_back(total);
  out.push_back(total + 1);
  return out;
}

class FaultSweep : public TempDirTest, public ::testing::WithParamInterface<Scenario> {
 protected:
  // Thousands of copies of files of tens of MiB: in memory if it can, the faults come from the VFS.
  void SetUp() override {
    TempDirTest::SetUp();
    if (::access("/dev/shm", W_OK | X_OK) == 0) {
      fs::remove_all(dir_);
      dir_ = fs::path("/dev/shm") / dir_.filename();
      fs::create_directories(dir_);
    }
    static const int installed = [] {
      FaultVfs::install();
      return sqlite3_auto_extension(reinterpret_cast<void (*)()>(&limit_commits));
    }();
    ASSERT_EQ(installed, SQLITE_OK);
  }

  // The operation on a fresh copy, `fault` armed and commits past `budget` refused.
  Outcome attempt(const Scenario& s, std::unique_ptr<TestDb>& db, const Fault& fault, int budget = -1) {
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) fs::remove(path("work.db").string() + suffix);
    fs::copy_file(prepared_, path("work.db"));
    db = std::make_unique<TestDb>(path("work.db"));
    if (!s.opens) db->connect();
    log_.clear();
    Outcome out;
    commit_refused = false;
    commit_budget = budget;
    FaultVfs::arm(fault);
    try {
      s.run(*db, out.result);
    } catch (const storage::Error& e) {
      out = {true, e.what()};
    } catch (const storage::migrations::SchemaMigrationError& e) {
      out = {true, e.what()};
    }
    FaultVfs::armed = false;
    commit_budget = -1;
    out.fired = FaultVfs::fired > 0;
    return out;
  }

  LogCapture log_;  // also keeps the warnings of thousands of failures off the terminal
  fs::path prepared_;
};
TEST_P(FaultSweep, EveryFaultLeavesACommittedStateAndAHandleThatGoesOn) {
  const Scenario& s = GetParam();
  prepared_ = s.prepare(dir_);
  const auto work = path("work.db");
  std::unique_ptr<TestDb> db;
  // The states after each commit, from runs with commits refused past the Nth; the last run counts the points.
  std::vector<State> states;
  std::int64_t totals[7];
  Outcome reference;
  for (int budget = 0; budget == 0 || commit_refused; ++budget) {
    reference = attempt(s, db, {FaultOp::any, INT64_MAX}, budget);
    for (int op = 0; op < 7; ++op) totals[op] = FaultVfs::counts[op];
    if (states.empty() || snapshot(work) != states.back()) states.push_back(snapshot(work));
  }
  ASSERT_FALSE(reference.raised) << reference.message;
  if (s.after) s.after(*db, reference, states.back(), log_);
  if (s.all_or_nothing) ASSERT_EQ(states.size(), 2u) << "one commit that changes the rows";
  // Each kind once and from then on (a disk that dies or fills), writes also on a full disk.
  std::vector<Fault> kinds = {{FaultOp::any, 0, false, true}};
  for (const bool persistent : {false, true}) {
    kinds.push_back({FaultOp::write, 0, true, persistent});
    for (int op = 0; op < 6; ++op) kinds.push_back({static_cast<FaultOp>(op), 0, false, persistent});
  }
  std::int64_t fired = 0, reached = 0;
  for (Fault fault : kinds) {
    const std::int64_t total = totals[static_cast<int>(fault.op)];
    for (const std::int64_t n : points_for(total, s.quick_points)) {
      if (fault.op == FaultOp::remove && n < s.first_delete) continue;
      fault.nth = n;
      static const char* const names[] = {"write", "sync", "truncate", "open", "read", "delete", "any"};
      SCOPED_TRACE(std::string(names[static_cast<int>(fault.op)]) + (fault.full ? " on a full disk" : "") + " #" +
                   std::to_string(n) + " of " + std::to_string(total) + (fault.persistent ? " and on" : ""));
      const Outcome out = attempt(s, db, fault);
      fired += out.fired;
      reached += out.raised || out.result != reference.result;
      EXPECT_EQ(out.fired, n <= total) << (out.fired ? "the operation did more than without a fault" : "no fault");
      if (out.raised) EXPECT_TRUE(out.fired && expected_failure(out.message)) << out.message;
      if (!out.raised && (s.all_or_nothing || !out.fired)) EXPECT_EQ(out.result, reference.result);
      // A connection of its own rolls back a hot journal, as the next process would.
      EXPECT_EQ((*storage::Connection::open(work.string())->execute("PRAGMA integrity_check").fetchone())[0].to_text(),
                "ok");
      const State seen = snapshot(work);
      EXPECT_NE(std::find(states.begin(), states.end(), seen), states.end()) << "a state the operation never commits";
      if (s.all_or_nothing) EXPECT_TRUE(seen == (out.raised ? states.front() : states.back())) << out.message;
      if (db->impl()._connection.load()) {
        EXPECT_TRUE(snapshot(*db) == seen) << "the handle reads another state than a fresh connection";
        if (db->impl()._readers.load()) EXPECT_EQ(pragma(*db, "journal_mode"), "wal") << "a pool on a rollback journal";
      }
      if (s.after) s.after(*db, out, seen, log_);
      // The same handle goes on to the last state, and writes and reads after it.
      std::string result;
      if (s.opens) {
        db->close();
        s.run(*db, result);
        EXPECT_EQ(pragma(*db, "page_size") + " " + pragma(*db, "journal_mode"), std::to_string(kPage) + " wal");
        EXPECT_NE(db->impl()._readers.load(), nullptr);
      } else if (seen != states.back()) {
        s.run(*db, result);
        EXPECT_EQ(result, reference.result);
      }
      EXPECT_TRUE(snapshot(*db) == states.back()) << "the handle does not reach the last state";
      db->record_error("probe.py", "probe", "after the fault", 7);
      EXPECT_EQ(db->fetchall("SELECT line FROM index_errors WHERE file_path = 'probe.py'").at(0)[0].as_int(), 7);
      db->execute("INSERT INTO code_chunks(code_chunks) VALUES ('integrity-check')");
      EXPECT_TRUE(db->check_integrity());
      if (HasFailure()) return;  // one broken point tells it; thousands would drown it
      if (!out.fired) break;
    }
  }
  EXPECT_GT(reached, 0) << "no fault ever changed what the operation did";
  std::printf("[ points   ] %s: %zu states, %lld faults fired\n", s.name.c_str(), states.size(),
              static_cast<long long>(fired));
  report_figure("fault_points", fired);
  report_figure("states_checked", 3 * fired);
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultSweep, ::testing::ValuesIn(kScenarios),
                         [](const auto& info) { return info.param.name; });

// The file's bytes; none for no file (or a directory).
std::optional<std::string> bytes(const fs::path& p) {
  if (!fs::is_regular_file(p)) return std::nullopt;
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The index tables as a swap copies them, and the databases attached but the integrity check's.
std::pair<State, std::vector<std::string>> index_only(storage::Database& db) {
  State s = index_content(snapshot(db));
  s.erase("schema_info");
  s.erase("generation");
  auto names = attached(db);
  std::erase(names, "temp");
  return {s, names};
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
    return index_only(*open(scratch)).first;
  }
  int copies_ = 0;
};

TEST_F(BadStaging, IsRefusedAndLeavesLiveIndexStagingFileAndHandleAsTheyWere) {
  const auto whole = make_staging_file(path("whole.db"), {300, 1500, 800, 400, "w"});
  const auto size = static_cast<std::int64_t>(fs::file_size(whole));
  // Its later rows only in the log that the last connection left behind.
  const auto logged = make_staging_file(path("logged.db"), {150, 600, 300, 300, "half"});
  {
    auto conn = storage::Connection::open(logged.string());
    sqlite3_db_config(conn->handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    conn->executescript("UPDATE files SET path = 'wal/' || path WHERE id > 75; DELETE FROM index_errors");
  }
  fs::remove(path("logged.db-shm"));
  const auto log_size = static_cast<std::int64_t>(fs::file_size(path("logged.db-wal")));
  const auto good = make_staging_file(path("good.db"), {7, 21, 9, 32, "good"});
  const State good_content = content_of(good);
  const std::string odd = path("it's \"stäging\" ünïcødé 索引").string();
  fs::create_directories(odd);
  // `source` and its log (-1: none) copied to `name`, cut to `size` and `log` bytes (-1: whole).
  auto cut = [&](const fs::path& source, const std::string& name, std::int64_t size, std::int64_t log = -2) {
    fs::copy_file(source, path(name));
    if (size >= 0) fs::resize_file(path(name), size);
    if (log != -1 && fs::exists(source.string() + "-wal")) fs::copy_file(source.string() + "-wal", path(name + "-wal"));
    if (log >= 0) fs::resize_file(path(name + "-wal"), log);
    return path(name);
  };
  auto edited = [&](const char* name, const char* ddl) {
    return make_staging_file(path(name), {30, 30}, [&](storage::Database& s) { s.connection()->executescript(ddl); });
  };
  const std::string missing = "FileNotFoundError Staging database not found: ";
  const std::string malformed = "Error database disk image is malformed", not_index = "Error file is not a database";
  // Each with the error a swap from it gets ("Kind message", the path after ": "), or none.
  const std::pair<fs::path, std::string> cases[] = {
      {path("absent/missing.db"), missing},
      {odd + "/missing 'quoted\".db", missing},
      {odd, "OperationalError unable to open database: "},
      {write(path("empty.db"), ""), "OperationalError no such table: stg.components"},
      {write(path("short-text.txt"), "not an index\n"), not_index},
      {write(path("text-of-pages.py"), std::string(3 * kPage + 17, 'x')), not_index},
      {cut(whole, "only-its-header.db", 100), malformed},
      {cut(whole, "one-page.db", kPage), malformed},
      {cut(whole, "half-its-pages.db", size / kPage / 2 * kPage), malformed},
      {cut(whole, "cut-in-a-page.db", 3 * kPage + 1000), malformed},
      {cut(whole, "cut-in-a-page-near-the-end.db", size - 5 * kPage - 123), malformed},
      {cut(logged, "one-page-and-its-log.db", kPage), malformed},
      {cut(logged, "two-pages-and-its-log.db", 2 * kPage), malformed},
      {edited("no-symbols.db", "PRAGMA foreign_keys=OFF; DROP TABLE edges; DROP TABLE symbols"),
       "OperationalError no such table: stg.symbols"},
      {edited("no-content-hash.db", "ALTER TABLE files DROP COLUMN content_hash"),
       "OperationalError no such column: content_hash"},
      // References that lead nowhere, found once every row is in.
      {edited("orphan-symbol.db", "PRAGMA foreign_keys=OFF; UPDATE symbols SET file_id = 99999 WHERE id = 30"),
       "Error FOREIGN KEY constraint failed"},
      {edited("orphan-parent.db", "PRAGMA foreign_keys=OFF; UPDATE symbols SET parent_id = 99999 WHERE id = 9"),
       "Error FOREIGN KEY constraint failed"},
      // Refused after three tables were copied.
      {edited("no-module.db", "DROP INDEX idx_external_imports_module; ALTER TABLE external_imports DROP module"),
       "OperationalError no such column: module"},
      // Cut where SQLite reads an earlier state whole: the swap is all of it.
      {cut(logged, "log-cut-in-half.db", -1, log_size / 2), ""},
      {cut(logged, "log-whole.db", -1), ""},
      {cut(logged, "log-lost.db", -1, -1), ""},
      {cut(good, odd + "/valid 'quoted\" ✓.db", -1), ""},
  };
  int n = 0;
  for (const auto& [staging, error] : cases) {
    SCOPED_TRACE(staging);
    auto db = live("live-" + std::to_string(++n) + ".db");
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
    EXPECT_EQ(error.empty() ? index_only(*db).first : snapshot(*db), error.empty() ? staged : before);
    EXPECT_EQ(snapshot(*db).at("schema_info"), before.at("schema_info"));
    EXPECT_EQ(index_only(*db).second, std::vector<std::string>{"main"}) << "the staging file stayed attached";
    EXPECT_EQ(bytes(staging), file_before) << "the staging file changed";
    for (const auto& [pragma, value] : {std::pair{"foreign_keys", 1}, std::pair{"cache_size", -2000}}) {
      EXPECT_EQ(db->connection()->execute(std::string("PRAGMA ") + pragma).fetchone().value()[0].as_int(), value);
    }
    EXPECT_EQ(bytes(staging.string() + "-wal"), log_before) << "the staging file's log changed";
    if (error.starts_with("FileNotFoundError")) EXPECT_FALSE(fs::exists(staging)) << "the missing file was made";
    // The handle goes on: another thread (so the lock is free) swaps a good file in.
    std::async(std::launch::async, [&] { db->swap_index_from(good); }).get();
    EXPECT_EQ(index_only(*db), std::pair(good_content, std::vector<std::string>{"main"}));
    EXPECT_EQ(db->index_generation(), error.empty() ? 9 : 8);
    EXPECT_TRUE(db->check_integrity());
  }
  report_figure("bad_staging_files", std::size(cases));
  report_figure("states_checked", 2 * std::size(cases));
}
// A cursor from execute is read after the lock is gone: while another thread's statement is open
// on the writer a swap fails, and its detachment too; the next swap must attach again.
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
  EXPECT_EQ(index_only(*db), std::pair(good_content, std::vector<std::string>{"main"}));
  EXPECT_EQ(db->index_generation(), 8);
}

}  // namespace
}  // namespace marsk_quorvi::testing
