// Every write, sync, truncate and open of the operations that change an index
// file, failed one at a time (and from one point on, as a dying or full disk):
// afterwards the index holds exactly the old rows or exactly the new ones, the
// file passes SQLite's integrity check, and the same handle keeps working.
//
// Each operation first runs once without a fault on a fresh copy of its
// prepared file, which gives the new state and the number of operations of
// each kind; then for each kind of fault N runs from 1 until the armed fault
// no longer fires. The quick run strides over N when an operation has many
// points, the full run visits at most kFullPoints per kind, and
// QUORVI_RELIABILITY_SCALE=exhaustive visits every one.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <typeinfo>
#include <vector>

#include "marsk_quorvi/storage/core_schema.hpp"
#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/logging.hpp"
#include "marsk_quorvi/storage/storage_size.hpp"
#include "reliability/support/fault_vfs.hpp"
#include "reliability/support/report.hpp"
#include "support/index_rows.hpp"
#include "support/test_support.hpp"

namespace marsk_quorvi::testing {
namespace {

namespace fs = std::filesystem;

using FaultDb = marsk_quorvi::testing::TestDb;

// ------------------------------------------------------------------ state

using State = std::map<std::string, std::vector<std::string>>;

// Every table of the file row by row (the index tables, schema_info, the
// tables this layer never touches, and the FTS5 shadow tables, so the
// full-text index is compared along with its text), the schema and the
// generation. Rows are sorted: the layout of the file may change, the
// content may not.
template <class FetchAll>
State full_state(FetchAll&& fetchall) {
  State out;
  auto lines = [&](const std::string& sql) {
    std::vector<std::string> rows;
    for (const st::Row& row : fetchall(sql)) {
      std::string line;
      for (std::size_t i = 0; i < row.size(); ++i) {
        if (i) line += '|';
        line += row[i].is_null() ? std::string("<null>") : row[i].to_text();
      }
      rows.push_back(std::move(line));
    }
    std::sort(rows.begin(), rows.end());
    return rows;
  };
  for (const auto& table : lines("SELECT name FROM sqlite_master WHERE type = 'table'")) {
    out["table " + table] = lines("SELECT * FROM \"" + table + "\"");
  }
  out["schema"] = lines("SELECT type, name, tbl_name, sql FROM sqlite_master");
  out["generation"] = lines("PRAGMA user_version");
  return out;
}

State state_through(st::Database& db) {
  return full_state([&](const std::string& sql) { return db.fetchall(sql); });
}

// Read through a connection of its own, not the handle's writer or pool.
State state_on_disk(const fs::path& path) {
  st::Connection::Options options;
  options.readonly = true;
  auto conn = st::Connection::open(path.string(), options);
  State out = full_state([&](const std::string& sql) { return conn->execute(sql).fetchall(); });
  conn->close();
  return out;
}

std::string integrity_on_disk(const fs::path& path) {
  st::Connection::Options options;
  options.readonly = true;
  auto conn = st::Connection::open(path.string(), options);
  std::string out;
  for (const auto& row : conn->execute("PRAGMA integrity_check").fetchall()) out += row[0].to_text() + ";";
  conn->close();
  return out;
}

std::int64_t pragma_of(st::Database& db, const std::string& name) {
  return (*db.fetchone("PRAGMA " + name))[0].as_int();
}

// The journal mode of the file: SQLite answers from what the connection last
// read, so the header is read first.
std::string journal_mode(st::Database& db) {
  db.fetchone("PRAGMA schema_version");
  return (*db.fetchone("PRAGMA journal_mode"))[0].to_text();
}

std::string describe(const st::Compaction& c) {
  return "Compaction(" + std::string(c.converted ? "true" : "false") + ", " + std::to_string(c.pages_released) +
         ", " + (c.skipped ? "'" + *c.skipped + "'" : std::string("none")) + ")";
}

bool below_thresholds(std::int64_t pages, std::int64_t free) {
  return free < st::COMPACT_MIN_FREE_PAGES ||
         static_cast<double>(free) < static_cast<double>(pages) * st::COMPACT_MIN_FREE_RATIO;
}

// Removes a database file with its journal, write-ahead log and shared memory.
void remove_database(const fs::path& path) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) fs::remove(path.string() + suffix);
}

// Warnings of failed compactions would fill standard error: the module
// logger stays silent while the points run.
class QuietLog {
 public:
  QuietLog() : saved_(st::database_logger()->level()) { st::database_logger()->set_level(spdlog::level::off); }
  ~QuietLog() { st::database_logger()->set_level(saved_); }

 private:
  spdlog::level::level_enum saved_;
};

// ------------------------------------------------------------------ faults

struct FaultKind {
  FaultOp op;
  FaultError error;
  bool persistent;
};

// A full disk is what a write meets; sync, truncate and open fail with their
// own I/O errors. Once, each point is one failure; from then on, the disk
// dies (or fills) at that point, and in the `any` case everything fails.
const std::vector<FaultKind> kFaultKinds = {
    {FaultOp::write, FaultError::io, false},    {FaultOp::write, FaultError::full, false},
    {FaultOp::sync, FaultError::io, false},     {FaultOp::truncate, FaultError::io, false},
    {FaultOp::open, FaultError::io, false},     {FaultOp::write, FaultError::io, true},
    {FaultOp::write, FaultError::full, true},   {FaultOp::sync, FaultError::io, true},
    {FaultOp::truncate, FaultError::io, true},  {FaultOp::open, FaultError::io, true},
    {FaultOp::any, FaultError::io, true},
};

// The texts SQLite gives the failures the VFS injects, alone or after the
// context FTS5 puts before them ("fts5: error creating shadow table ...: ").
bool expected_failure_text(const std::string& message) {
  for (const std::string text : {"disk I/O error", "database or disk is full", "unable to open database file"}) {
    if (message == text) return true;
    if (message.size() > text.size() + 2 && message.ends_with(": " + text) && message.starts_with("fts5: ")) {
      return true;
    }
  }
  return message.starts_with("unable to open database: ");  // ATTACH of a file that cannot be opened
}

// A swap or a stepped compaction has thousands of write points (Debian's
// SQLite overwrites every freed page); visiting each one under every kind of
// fault takes hours, so the full run spreads this many over them.
constexpr std::int64_t kFullPoints = 250;

// The values of N visited for an operation with `total` points of a kind:
// every one in the exhaustive run, at most about kFullPoints in the full run
// and `quick_points` in the quick one, evenly spread (always the first and
// the last); then total + 1, where the fault must no longer fire.
std::vector<std::int64_t> points_for(std::int64_t total, std::int64_t quick_points) {
  std::vector<std::int64_t> out;
  const std::int64_t visited = exhaustive_scale() ? total : full_scale() ? kFullPoints : quick_points;
  const std::int64_t stride = total <= visited ? 1 : (total + visited - 1) / visited;
  for (std::int64_t n = 1; n <= total; n += stride) out.push_back(n);
  if (total > 0 && out.back() != total) out.push_back(total);
  out.push_back(total + 1);
  return out;
}

// ------------------------------------------------------------------ scenarios

struct Outcome {
  bool raised = false;
  std::string message;
  std::string result;  // what the operation returned, as text
};

// One operation under test and what is checked around it.
struct Scenario {
  std::string name;
  fs::path prepared;  // copied afresh for every run
  // Runs the operation; its result as text.
  std::function<std::string(FaultDb&)> operation;
  // Whether the operation changes rows: otherwise the old and the new state
  // have the same content and only the file's layout differs.
  bool changes_rows = true;
  // Whether running it again on the new state changes nothing.
  bool repeatable = true;
  // Extra checks right after the fault (the database is disarmed).
  std::function<void(FaultDb&, const Outcome&, const std::string& reference)> after_fault;
  // Brings the handle to the new state again after the fault: by default
  // the operation runs again when the state is the old one (or always, when
  // it is repeatable) and returns what it returned without a fault.
  std::function<void(FaultDb&, bool was_old, const std::string& reference)> recover;
  // Extra checks on the reference run.
  std::function<void(FaultDb&, const std::string& result)> reference_check;
  std::int64_t quick_points = 12;
};

class FaultInjection : public TempDirTest {
 protected:
  // The points copy and sync files of tens of MiB thousands of times: in
  // memory when the machine has a RAM-backed directory. Faults come from the
  // VFS, so the medium underneath changes nothing of what is tested.
  void SetUp() override {
    TempDirTest::SetUp();
    std::error_code ec;
    if (fs::is_directory("/dev/shm", ec) && ::access("/dev/shm", W_OK | X_OK) == 0) {
      fs::remove_all(dir_, ec);
      dir_ = fs::path("/dev/shm") / dir_.filename();
      fs::create_directories(dir_);
    }
  }

  void TearDown() override {
    report_figure("fault_points", fired_points_);
    report_figure("states_checked", states_checked_);
    TempDirTest::TearDown();
  }

  // Runs every fault kind at every point of `scenario`.
  void sweep(const Scenario& scenario) {
    QuietLog quiet;
    FaultVfs vfs;
    const fs::path work = path("work.db");

    // The run without a fault: the new state and the points of each kind.
    std::map<FaultOp, std::int64_t> totals;
    State old_state;
    State new_state;
    std::string reference;
    {
      remove_database(work);
      fs::copy_file(scenario.prepared, work);
      FaultDb db(work);
      db.connect();
      old_state = state_through(db);
      vfs.reset_counts();
      reference = scenario.operation(db);
      for (FaultOp op : {FaultOp::write, FaultOp::sync, FaultOp::truncate, FaultOp::open, FaultOp::any}) {
        totals[op] = vfs.count(op);
      }
      new_state = state_through(db);
      if (scenario.reference_check) scenario.reference_check(db, reference);
      db.close();
    }
    ASSERT_EQ(old_state != new_state, scenario.changes_rows) << scenario.name;
    ASSERT_GT(totals[FaultOp::write], 0) << scenario.name;
    std::printf("[ points   ] %s: %lld writes, %lld syncs, %lld truncates, %lld opens\n", scenario.name.c_str(),
                static_cast<long long>(totals[FaultOp::write]), static_cast<long long>(totals[FaultOp::sync]),
                static_cast<long long>(totals[FaultOp::truncate]), static_cast<long long>(totals[FaultOp::open]));
    const std::int64_t fired_before = fired_points_;

    for (const FaultKind& kind : kFaultKinds) {
      const std::int64_t total = totals[kind.op];
      for (const std::int64_t n : points_for(total, scenario.quick_points)) {
        const Fault fault{kind.op, n, kind.error, kind.persistent};
        SCOPED_TRACE(scenario.name + ": " + to_string(fault) + " of " + std::to_string(total));
        const bool fired = run_point(scenario, vfs, fault, old_state, new_state, reference, work);
        if (HasFailure()) return;  // one broken point tells it; thousands would drown it
        if (n <= total) {
          EXPECT_TRUE(fired) << "the fault did not fire within the operation's points";
        } else {
          EXPECT_FALSE(fired) << "the operation did more than the run without a fault";
        }
        if (HasFailure()) return;
        if (!fired) break;
      }
    }
    std::printf("[ points   ] %s: %lld faults fired\n", scenario.name.c_str(),
                static_cast<long long>(fired_points_ - fired_before));
  }

  // One fault at one point; true when it fired.
  bool run_point(const Scenario& scenario, FaultVfs& vfs, const Fault& fault, const State& old_state,
                 const State& new_state, const std::string& reference, const fs::path& work) {
    remove_database(work);
    fs::copy_file(scenario.prepared, work);
    FaultDb db(work);
    db.connect();

    Outcome outcome;
    vfs.arm(fault);
    try {
      outcome.result = scenario.operation(db);
    } catch (const st::Error& e) {
      outcome.raised = true;
      outcome.message = e.what();
    } catch (const std::exception& e) {
      // A SQLite failure is to reach the caller as the access layer's Error.
      vfs.disarm();
      ADD_FAILURE() << "raised " << typeid(e).name() << ": " << e.what();
      return true;
    }
    vfs.disarm();
    const bool fired = vfs.fired() > 0;
    if (fired) ++fired_points_;

    if (outcome.raised) {
      EXPECT_TRUE(fired) << "raised without a fault: " << outcome.message;
      EXPECT_TRUE(expected_failure_text(outcome.message)) << outcome.message;
    } else if (!fired) {
      EXPECT_EQ(outcome.result, reference);
    }

    // Exactly the old state or exactly the new one, whichever way it is read.
    const State seen = state_through(db);
    const bool is_old = seen == old_state;
    const bool is_new = seen == new_state;
    EXPECT_TRUE(is_old || is_new) << "neither the old state nor the new one";
    if (scenario.changes_rows) {
      if (outcome.raised) {
        EXPECT_TRUE(is_old) << "raised, yet the change stayed: " << outcome.message;
      } else {
        EXPECT_TRUE(is_new) << "returned normally without the change";
      }
    }
    EXPECT_EQ(state_on_disk(work), seen) << "a fresh connection reads another state";
    EXPECT_TRUE(db.check_integrity());
    EXPECT_EQ(integrity_on_disk(work), "ok;");
    EXPECT_TRUE(db.fetchall("PRAGMA foreign_key_check").empty());
    states_checked_ += 2;
    if (scenario.after_fault) scenario.after_fault(db, outcome, reference);

    // The same handle goes on: the operation again (when it has to), then
    // another write and a query.
    const bool was_old = scenario.changes_rows && is_old;
    if (scenario.recover) {
      scenario.recover(db, was_old, reference);
    } else if (was_old || scenario.repeatable) {
      EXPECT_EQ(scenario.operation(db), reference);
    }
    EXPECT_EQ(state_through(db), new_state) << "the handle does not reach the new state after the fault";
    ++states_checked_;
    probe(db);
    db.close();
    return fired;
  }

  // A write through the handle and a query that sees it, then the
  // full-text index checked against its text.
  void probe(st::Database& db) {
    db.record_error("probe/after-fault.py", "probe", "written after the fault", 7);
    const auto row = db.fetchone("SELECT message, line FROM index_errors WHERE file_path = ?", {"probe/after-fault.py"});
    ASSERT_TRUE(row.has_value());
    EXPECT_EQ((*row)[0].to_text(), "written after the fault");
    EXPECT_EQ((*row)[1].as_int(), 7);
    db.clear_file_errors("probe/after-fault.py");
    if (has_table(db, "code_chunks")) db.execute("INSERT INTO code_chunks(code_chunks) VALUES ('integrity-check')");
    EXPECT_TRUE(db.check_integrity());
  }

  // ---------------------------------------------------------------- prepared files

  // A small index: files, symbols, edges, chunks, an extractor stamp.
  fs::path prepare_small_index() {
    const auto p = path("prepared-small.db");
    st::Database db(p);
    db.connect();
    db.create_schema();
    seed_index(db, {.files = 40, .symbols = 120, .edges = 80, .chunk_bytes = 64, .tag = "old"});
    db.refresh_extractor_stamp({{"py", 1}});
    db.close();
    EXPECT_FALSE(fs::exists(p.string() + "-wal"));
    return p;
  }

  fs::path prepare_staging() {
    const auto p = path("staging.db");
    st::Database db(p);
    db.connect();
    db.create_schema();
    seed_index(db, {.files = 25, .symbols = 70, .edges = 40, .chunk_bytes = 48, .tag = "new"});
    db.close();
    return p;
  }

  // An index followed by `spill_pages` free pages interleaved with the pages
  // of table `padding` (one padding row in ten), so that releasing them
  // moves pages. `auto_vacuum` 0 makes a file that needs conversion;
  // `docstring_bytes` gives each symbol a docstring of that many bytes.
  fs::path prepare_free_pages(const std::string& name, int auto_vacuum, int spill_pages, const Seed& seed,
                              int docstring_bytes = 0) {
    const auto p = path(name);
    {
      auto conn = st::Connection::open(p.string());
      conn->execute("PRAGMA page_size=" + std::to_string(st::storage_size::PAGE_SIZE));
      conn->execute("PRAGMA auto_vacuum=" + std::to_string(auto_vacuum));
      conn->execute("CREATE TABLE padding (id INTEGER PRIMARY KEY, b BLOB)");
      conn->close();
    }
    st::Database db(p);
    db.connect();
    db.create_schema();
    seed_index(db, seed);
    if (docstring_bytes > 0) db.execute("UPDATE symbols SET docstring = hex(randomblob(?))", {docstring_bytes / 2});
    db.transaction([&](st::Cursor& c) {
      c.execute("CREATE TABLE spill (id INTEGER PRIMARY KEY, b BLOB)");
      const int rows = spill_pages + spill_pages / 9;
      for (int i = 1; i <= rows; ++i) {
        // One row per page, so the kept rows end up spread over the whole
        // file; a random head tells every kept row from the others.
        if (i % 10 == 0) {
          c.execute("INSERT INTO padding (b) VALUES (randomblob(64) || zeroblob(5936))");
        } else {
          c.execute("INSERT INTO spill (b) VALUES (zeroblob(6000))");
        }
      }
    });
    db.execute("DROP TABLE spill");
    db.close();
    return p;
  }

  // A small index written with 4096-byte pages, as an older build made them.
  fs::path prepare_small_pages() {
    const auto p = path("prepared-small-pages.db");
    {
      auto conn = st::Connection::open(p.string());
      conn->execute("PRAGMA page_size=4096");
      conn->execute("PRAGMA auto_vacuum=INCREMENTAL");
      conn->execute("PRAGMA journal_mode=WAL");
      conn->execute("BEGIN");
      auto cursor = conn->cursor();
      st::core_schema::create_tables(cursor);
      cursor.close();
      conn->execute("COMMIT");
      conn->close();
    }
    st::Database db(p);
    db.connect();
    seed_index(db, {.files = 40, .symbols = 120, .edges = 80, .chunk_bytes = 200, .tag = "old"});
    db.refresh_extractor_stamp({{"py", 1}});
    db.close();
    return p;
  }

  std::int64_t fired_points_ = 0;
  std::int64_t states_checked_ = 0;
};

// ------------------------------------------------------------------ the operations

TEST_F(FaultInjection, TransactionCommitOfSeveralInserts) {
  Scenario s;
  s.name = "transaction";
  s.prepared = prepare_small_index();
  s.repeatable = false;
  s.operation = [](FaultDb& db) {
    db.transaction([](st::Cursor& c) {
      c.execute("INSERT INTO components (id, name) VALUES (2, 'added')");
      for (int i = 0; i < 30; ++i) {
        const std::int64_t file = 1000 + i;
        c.execute(
            "INSERT INTO files (id, path, language, content_hash, size, mtime, component_id) "
            "VALUES (?, ?, 'go', 'h', ?, 0, 2)",
            {file, "added/f" + std::to_string(i) + ".go", i});
        c.execute(
            "INSERT INTO symbols (file_id, name, fqn, kind, start_line, end_line, docstring) "
            "VALUES (?, ?, ?, 'function', 1, 9, hex(zeroblob(900)))",
            {file, "added" + std::to_string(i), "added.f" + std::to_string(i)});
        c.execute("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, 1, 9, 1)",
                  {file << 20, "func added" + std::to_string(i) + "() { return " + std::to_string(i) + " }"});
      }
      c.execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, 'added')", {st::LAST_INDEX_KEY});
    });
    return std::string();
  };
  sweep(s);
}

TEST_F(FaultInjection, SwapAndTheCompactionAfterIt) {
  Scenario s;
  s.name = "swap_index_from";
  // The live index outgrows SQLite's page cache, so the swap spills pages
  // into the log before its commit; the free pages left behind make the
  // compaction after it release them in steps.
  s.prepared = prepare_free_pages("prepared-swap.db", 2, 2200,
                                  {.files = 60, .symbols = 300, .edges = 200, .chunk_bytes = 64, .tag = "old"}, 8000);
  const auto staging = prepare_staging();
  const State staging_before = state_on_disk(staging);
  s.repeatable = false;
  s.operation = [staging](FaultDb& db) { return db.swap_index_from(staging).to_string(); };
  s.reference_check = [](FaultDb& db, const std::string&) {
    // The compaction after the swap did its work: otherwise its points
    // would not be among the ones visited.
    EXPECT_TRUE(below_thresholds(pragma_of(db, "page_count"), pragma_of(db, "freelist_count")));
    EXPECT_LT(pragma_of(db, "page_count"), 800);
  };
  s.after_fault = [](FaultDb& db, const Outcome& outcome, const std::string& reference) {
    const auto names = attached(db);
    EXPECT_EQ(std::count(names.begin(), names.end(), "stg"), 0) << "the staging file stayed attached";
    if (!outcome.raised) EXPECT_EQ(outcome.result, reference);
  };
  s.quick_points = 6;
  sweep(s);
  EXPECT_EQ(state_on_disk(staging), staging_before) << "the staging file changed";
}

TEST_F(FaultInjection, ClearAll) {
  Scenario s;
  s.name = "clear_all";
  s.prepared = prepare_small_index();
  s.operation = [](FaultDb& db) {
    db.clear_all();
    return std::string();
  };
  sweep(s);
}

TEST_F(FaultInjection, RefreshExtractorStampThatMarksFiles) {
  Scenario s;
  s.name = "refresh_extractor_stamp";
  s.prepared = prepare_small_index();
  s.operation = [](FaultDb& db) { return std::to_string(db.refresh_extractor_stamp({{"c", 1}, {"py", 2}})); };
  s.reference_check = [](FaultDb&, const std::string& result) { EXPECT_EQ(result, "40"); };
  s.after_fault = [](FaultDb&, const Outcome& outcome, const std::string& reference) {
    if (!outcome.raised) EXPECT_EQ(outcome.result, reference);
  };
  s.recover = [s](FaultDb& db, bool was_old, const std::string& reference) {
    // Again on the new state: the stamp is current, nothing is marked.
    EXPECT_EQ(s.operation(db), was_old ? reference : "0");
  };
  sweep(s);
}

// A compaction never raises: a fault ends in `skipped` "failed: ..." and the
// rows stay as they were, whatever pages were released before it.
void expect_compaction_reported(const Outcome& outcome, const st::Compaction& result) {
  EXPECT_FALSE(outcome.raised) << "compact raised: " << outcome.message;
  if (result.skipped) {
    EXPECT_EQ(result.skipped->rfind("failed: ", 0), 0u) << *result.skipped;
    EXPECT_TRUE(expected_failure_text(result.skipped->substr(8))) << *result.skipped;
    EXPECT_EQ(result.pages_released, 0);
    EXPECT_FALSE(result.converted);
  }
}

TEST_F(FaultInjection, CompactReleasingFreePagesInSteps) {
  Scenario s;
  s.name = "compact (steps)";
  s.prepared = prepare_free_pages("prepared-steps.db", 2, 2200,
                                  {.files = 30, .symbols = 60, .edges = 40, .chunk_bytes = 64, .tag = "old"});
  s.changes_rows = false;
  auto last = std::make_shared<st::Compaction>();
  s.operation = [last](FaultDb& db) {
    *last = db.compact();
    return describe(*last);
  };
  s.reference_check = [last](FaultDb& db, const std::string&) {
    EXPECT_FALSE(last->skipped.has_value());
    EXPECT_GT(last->pages_released, 2 * st::COMPACT_STEP_PAGES) << "fewer than three steps";
    EXPECT_EQ(pragma_of(db, "freelist_count"), 0);
  };
  s.after_fault = [last](FaultDb& db, const Outcome& outcome, const std::string&) {
    expect_compaction_reported(outcome, *last);
    EXPECT_EQ(pragma_of(db, "auto_vacuum"), st::detail::kAutoVacuumIncremental);
  };
  s.recover = [last](FaultDb& db, bool, const std::string&) {
    const auto again = db.compact();
    EXPECT_FALSE(again.skipped.has_value()) << describe(again);
    EXPECT_TRUE(below_thresholds(pragma_of(db, "page_count"), pragma_of(db, "freelist_count")));
  };
  s.quick_points = 6;
  sweep(s);
}

TEST_F(FaultInjection, CompactConvertingAFileWithoutAutoVacuum) {
  Scenario s;
  s.name = "compact (conversion)";
  s.prepared = prepare_free_pages("prepared-convert.db", 0, 2200,
                                  {.files = 30, .symbols = 60, .edges = 40, .chunk_bytes = 64, .tag = "old"});
  s.changes_rows = false;
  auto last = std::make_shared<st::Compaction>();
  s.operation = [last](FaultDb& db) {
    *last = db.compact();
    return describe(*last);
  };
  s.reference_check = [last](FaultDb& db, const std::string&) {
    EXPECT_TRUE(last->converted) << describe(*last);
    EXPECT_EQ(pragma_of(db, "auto_vacuum"), st::detail::kAutoVacuumIncremental);
  };
  s.after_fault = [last](FaultDb& db, const Outcome& outcome, const std::string&) {
    expect_compaction_reported(outcome, *last);
    const auto mode = pragma_of(db, "auto_vacuum");
    EXPECT_TRUE(mode == st::detail::kAutoVacuumNone || mode == st::detail::kAutoVacuumIncremental) << mode;
    if (last->skipped) EXPECT_TRUE(db.impl()._conversion_failed.load()) << "a failed rewrite is not marked";
    if (mode == st::detail::kAutoVacuumNone) EXPECT_TRUE(last->skipped.has_value()) << describe(*last);
  };
  s.recover = [last, path = s.prepared](FaultDb& db, bool, const std::string&) {
    const bool converted = pragma_of(db, "auto_vacuum") == st::detail::kAutoVacuumIncremental;
    const auto again = db.compact();
    if (converted) {
      EXPECT_EQ(again, st::Compaction{}) << describe(again);
      return;
    }
    // Not tried again by this handle; the next start converts the file.
    EXPECT_EQ(again.skipped, "an earlier conversion failed or changed nothing: not retried");
    FaultDb next(db.db_path);
    next.connect();
    const auto converted_now = next.compact();
    EXPECT_TRUE(converted_now.converted) << describe(converted_now);
    EXPECT_EQ(pragma_of(next, "auto_vacuum"), st::detail::kAutoVacuumIncremental);
    next.close();
  };
  s.quick_points = 6;
  sweep(s);
}

TEST_F(FaultInjection, RewriteOfSmallPages) {
  Scenario s;
  s.name = "_rewrite_pages";
  s.prepared = prepare_small_pages();
  s.changes_rows = false;
  s.operation = [](FaultDb& db) {
    db.impl()._rewrite_pages();
    return std::string();
  };
  s.reference_check = [](FaultDb& db, const std::string&) {
    EXPECT_EQ(pragma_of(db, "page_size"), st::storage_size::PAGE_SIZE);
    EXPECT_EQ(journal_mode(db), "wal");
  };
  s.after_fault = [](FaultDb& db, const Outcome&, const std::string&) {
    const auto size = pragma_of(db, "page_size");
    EXPECT_TRUE(size == 4096 || size == st::storage_size::PAGE_SIZE) << size;
    // A pool only on a journal back in WAL mode (a failure while asking
    // for the mode leaves no pool at all: queries share the writer).
    if (db.impl()._readers.load() != nullptr) EXPECT_EQ(journal_mode(db), "wal");
  };
  s.recover = [s](FaultDb& db, bool, const std::string&) {
    s.operation(db);
    EXPECT_EQ(pragma_of(db, "page_size"), st::storage_size::PAGE_SIZE);
    if (db.impl()._readers.load() != nullptr) EXPECT_EQ(journal_mode(db), "wal");
    // A rewrite that succeeded before the failure is not done again: a
    // journal left in rollback mode, or a pool not reopened, comes back at
    // the next open.
    if (db.impl()._readers.load() == nullptr || journal_mode(db) != "wal") {
      db.close();
      db.connect();
    }
    EXPECT_EQ(journal_mode(db), "wal");
    EXPECT_NE(db.impl()._readers.load(), nullptr);
  };
  sweep(s);
}

// The rewrite's last write is the header change that puts the journal back
// in WAL mode. When it fails, SQLite still answers "wal" to the journal mode
// until the connection reads the file again; a read pool opened on that
// answer would take shared locks on a file in rollback mode.
TEST_F(FaultInjection, AFailedReturnToWalLeavesNoReadPool) {
  const auto prepared = prepare_small_pages();
  const auto work = path("work.db");
  QuietLog quiet;
  FaultVfs vfs;
  std::int64_t writes = 0;
  {
    fs::copy_file(prepared, work);
    FaultDb db(work);
    db.connect();
    vfs.reset_counts();
    db.impl()._rewrite_pages();
    writes = vfs.count(FaultOp::write);
    db.close();
  }
  remove_database(work);
  fs::copy_file(prepared, work);
  FaultDb db(work);
  db.connect();
  vfs.arm({FaultOp::write, writes, FaultError::io, false});
  try {
    db.impl()._rewrite_pages();
    ADD_FAILURE() << "the rewrite did not raise";
  } catch (const st::OperationalError& e) {
    EXPECT_STREQ(e.what(), "disk I/O error");
  }
  vfs.disarm();
  ASSERT_EQ(vfs.fired(), 1);
  EXPECT_EQ(pragma_of(db, "page_size"), st::storage_size::PAGE_SIZE);  // the VACUUM itself committed
  EXPECT_EQ(journal_mode(db), "delete");
  EXPECT_TRUE(db.impl()._readers.load() == nullptr) << "a read pool on a file in rollback mode";
  db.close();
  db.connect();
  EXPECT_EQ(journal_mode(db), "wal");
  EXPECT_TRUE(db.impl()._readers.load() != nullptr);
}

}  // namespace
}  // namespace marsk_quorvi::testing
