// Giving free pages back in steps, the one-time conversion of files made
// without auto-vacuum, and how every refusal is reported.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <future>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"
#include "storage/platform.hpp"
#include "support/page_files.hpp"
#include "support/test_support.hpp"

namespace fs = std::filesystem;
namespace mq = marsk_quorvi::storage;
namespace platform = marsk_quorvi::storage::platform;
using marsk_quorvi::OSError;
using marsk_quorvi::testing::LogCapture;
using marsk_quorvi::testing::LogRecord;
using marsk_quorvi::testing::make_page_file;
using marsk_quorvi::testing::patch_u32;
using marsk_quorvi::testing::pragma;
using marsk_quorvi::testing::PeerProcess;
using marsk_quorvi::testing::ScopedEnv;
using marsk_quorvi::testing::SpaceDb;
using marsk_quorvi::testing::PageTrace;
using spdlog::level::level_enum;

namespace {

constexpr std::int64_t MiB = 1048576;
const std::string kStep = "PRAGMA incremental_vacuum(1024)";

class CompactionTest : public marsk_quorvi::testing::TempDirTest {
 protected:
  std::unique_ptr<SpaceDb> open(const fs::path& file) {
    auto db = std::make_unique<SpaceDb>(file);
    db->connect();
    return db;
  }
};

std::string skip_line(const mq::Database& db, const std::string& reason) {
  return "Compaction of " + db.db_path.string() + " skipped: " + reason;
}

std::int64_t size_on_disk(const fs::path& file) { return static_cast<std::int64_t>(fs::file_size(file)); }

// Whether another thread can take the connection lock right now.
bool lock_is_free(SpaceDb& db) {
  return std::async(std::launch::async, [&] {
           if (!db.impl()._lock.try_lock()) return false;
           db.impl()._lock.unlock();
           return true;
         })
      .get();
}

// ------------------------------------------------------------------ thresholds and steps

TEST_F(CompactionTest, ThresholdsAtTheirBoundaries) {
  struct Case {
    std::int64_t pages, free;
    bool runs;
  };
  // 2047 is below the page minimum; 2048 of 20480 is exactly a tenth, of
  // 20481 just below it.
  for (const Case& c : {Case{4000, 2047, false}, Case{20480, 2048, true}, Case{20481, 2048, false}}) {
    SCOPED_TRACE(std::to_string(c.free) + " free of " + std::to_string(c.pages));
    const auto file = path("t" + std::to_string(c.pages) + ".db");
    make_page_file(file, c.pages, c.free, mq::detail::kAutoVacuumIncremental);
    auto db = open(file);
    LogCapture log;
    const auto result = db->compact();
    if (c.runs) {
      EXPECT_EQ(result, (mq::Compaction{false, c.free, std::nullopt}));
      EXPECT_EQ(pragma(*db, "freelist_count"), 0);
      EXPECT_EQ(log.matching("Compacted ").size(), 1u);
    } else {
      EXPECT_EQ(result, mq::Compaction{});
      EXPECT_EQ(pragma(*db, "freelist_count"), c.free);
      EXPECT_TRUE(log.records().empty());
    }
    EXPECT_TRUE(lock_is_free(*db));
    db->close();
    fs::remove(file);
  }
}

TEST_F(CompactionTest, ReleasesInBoundedStepsAndShrinksTheFile) {
  const auto file = path("steps.db");
  make_page_file(file, 20000, 5000, mq::detail::kAutoVacuumIncremental);
  const std::int64_t size_before = size_on_disk(file);
  auto db = open(file);
  PageTrace trace(db->connection());
  LogCapture log;

  EXPECT_EQ(db->compact(), (mq::Compaction{false, 5000, std::nullopt}));
  trace.stop();

  EXPECT_EQ(trace.steps(kStep), (std::vector<std::int64_t>{1024, 1024, 1024, 1024, 904}));
  // The loop ends on a reading of 0 without running a sixth step.
  const auto events = trace.events();
  auto last_step = std::find(events.rbegin(), events.rend(), kStep);
  ASSERT_NE(last_step, events.rend());
  EXPECT_EQ(std::count(events.rbegin(), last_step, "free 0"), 2);
  EXPECT_EQ(trace.count("PRAGMA wal_checkpoint(TRUNCATE)"), 1);

  const std::int64_t pages_after = pragma(*db, "page_count");
  EXPECT_EQ(size_on_disk(file), pages_after * 8192);
  EXPECT_EQ(size_on_disk(fs::path(file.string() + "-wal")), 0);
  const auto lines = log.records();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, spdlog::level::info);
  const std::string expected = "Compacted " + file.string() + ": 5000 free pages released (" +
                               std::to_string(size_before / MiB) + " -> " + std::to_string(pages_after * 8192 / MiB) +
                               " MiB) in ";
  EXPECT_EQ(lines[0].text.substr(0, expected.size()), expected);
  EXPECT_TRUE(std::regex_match(lines[0].text.substr(expected.size()), std::regex("[0-9]+\\.[0-9]s"))) << lines[0].text;

  // Nothing left: the next call measures, finds too little and says nothing.
  log.clear();
  EXPECT_EQ(db->compact(), mq::Compaction{});
  EXPECT_TRUE(log.records().empty());
}

TEST_F(CompactionTest, FullAutoVacuumFileHasNothingToRelease) {
  // Another process switches the file to full mode. SQLite itself gives the
  // free pages back at the commit that switches it (and at every commit
  // after), so a compaction finds nothing, runs no step and logs nothing.
  const auto file = path("full.db");
  make_page_file(file, 4101, 2048, mq::detail::kAutoVacuumIncremental);
  auto db = open(file);
  ASSERT_EQ(PeerProcess::run({"exec", file.string(), "PRAGMA auto_vacuum=FULL"}).status, 0);
  PageTrace trace(db->connection());
  LogCapture log;
  EXPECT_EQ(db->compact(), mq::Compaction{});
  trace.stop();
  EXPECT_EQ(trace.count(kStep), 0);
  EXPECT_TRUE(log.records().empty());
  const auto space = marsk_quorvi::storage::detail::DatabaseImpl::_space(*db->connection());
  EXPECT_EQ(space.mode, 1);
  EXPECT_EQ(space.free, 0);
}

// ------------------------------------------------------------------ refusals

// One way for `compact` to decline: the handle in that situation, what it
// must answer, and how to call it there.
struct Situation {
  std::unique_ptr<SpaceDb> db;
  std::string reason;
  level_enum level = spdlog::level::info;
  std::string attached;  // the rendered error the first line carries, if any
  std::function<mq::Compaction(SpaceDb&)> call = [](SpaceDb& db) { return db.compact(); };
  std::vector<std::shared_ptr<void>> keep;  // overrides and environment held while compacting
};

struct Refusal {
  const char* name;
  const char* kind;
  std::function<Situation(const fs::path& dir)> make;
};

std::unique_ptr<SpaceDb> connected(const fs::path& file) {
  auto db = std::make_unique<SpaceDb>(file);
  db->connect();
  return db;
}

const Refusal kRefusals[] = {
    {"OnTheEventLoop", "loop",
     [](const fs::path& dir) {
       Situation s{connected(dir / "loop.db"), "called on the event loop: a pool thread compacts"};
       s.call = [](SpaceDb& db) {
         mq::EventLoopThread marker;
         return db.compact();
       };
       return s;
     }},
    {"BeforeConnect", "closed",
     [](const fs::path& dir) { return Situation{std::make_unique<SpaceDb>(dir / "never.db"), "the database is closed"}; }},
    {"AfterClose", "closed",
     [](const fs::path& dir) {
       Situation s{connected(dir / "closed.db"), "the database is closed"};
       s.db->close();
       return s;
     }},
    {"InsideATransaction", "transaction",
     [](const fs::path& dir) {
       Situation s{connected(dir / "tx.db"), "called inside a transaction"};
       s.db->execute("CREATE TABLE t (x)");
       s.call = [](SpaceDb& db) {
         // The refusal leaves the caller's transaction as it was: both
         // rows around it are committed together.
         const auto before = (*db.fetchone("SELECT count(*) FROM t"))[0].as_int();
         mq::Compaction result;
         db.transaction([&](mq::Cursor& c) {
           c.execute("INSERT INTO t VALUES (1)");
           result = db.compact();
           c.execute("INSERT INTO t VALUES (2)");
         });
         EXPECT_EQ((*db.fetchone("SELECT count(*) FROM t"))[0].as_int(), before + 2);
         return result;
       };
       return s;
     }},
    {"CorruptFreeList", "failed",
     [](const fs::path& dir) {
       const auto file = dir / "corrupt.db";
       make_page_file(file, 2101, 2048, mq::detail::kAutoVacuumIncremental);
       patch_u32(file, 32, 999999);  // first free-list trunk page: far past the end
       Situation s{connected(file), "failed: database disk image is malformed", spdlog::level::warn,
                   "Error: database disk image is malformed"};
       return s;
     }},
    {"FileStatusFails", "failed",
     [](const fs::path& dir) {
       const auto file = dir / "nostat.db";
       make_page_file(file, 2101, 2048, mq::detail::kAutoVacuumIncremental);
       const std::string error = "[Errno 13] Permission denied: '" + file.string() + "'";
       Situation s{connected(file), "failed: " + error, spdlog::level::warn, "OSError: " + error};
       s.keep.push_back(std::make_shared<platform::ScopedOverride>(
           platform::DiskUsageFn{}, [](const fs::path& p) -> platform::FileStatus {
             throw OSError("[Errno 13] Permission denied: '" + p.string() + "'", EACCES);
           }));
       return s;
     }},
    {"TooLargeToConvert", "large",
     [](const fs::path& dir) {
       // A sparse file whose header claims 150000 pages, 15000 of them free:
       // 135000 pages of data, about 1054 MiB, and almost no disk used.
       const auto file = dir / "large.db";
       make_page_file(file, 2100, 2048, mq::detail::kAutoVacuumNone);
       patch_u32(file, 28, 150000);
       patch_u32(file, 36, 15000);
       fs::resize_file(file, 150000 * 8192);
       return Situation{connected(file),
                        "too large to convert in place: 1054 MiB of data, the limit is 1024 MiB; its free pages stay "
                        "until the index file is rebuilt"};
     }},
    {"NoReadPool", "readers",
     [](const fs::path& dir) {
       const auto file = dir / "noreaders.db";
       make_page_file(file, 2100, 2048, mq::detail::kAutoVacuumNone);
       ScopedEnv readers("QUORVI_DB_READERS", "0");
       return Situation{connected(file), "no read connections: a query would wait for the lock the conversion holds"};
     }},
    {"DiskTooFull", "disk",
     [](const fs::path& dir) {
       const auto file = dir / "disk.db";
       make_page_file(file, 2100, 2048, mq::detail::kAutoVacuumNone);
       // 52 pages of data: twice that plus the margin is 64.8 MiB.
       Situation s{connected(file), "not enough disk space: 10 MiB free in " + dir.string() + ", 64 MiB needed"};
       s.keep.push_back(std::make_shared<ScopedEnv>("SQLITE_TMPDIR", dir.string()));
       s.keep.push_back(std::make_shared<platform::ScopedOverride>(
           [](const fs::path&) { return platform::VolumeUsage{100 * MiB, 90 * MiB, 10 * MiB}; },
           platform::FileStatusFn{}));
       return s;
     }},
};

class CompactionRefusal : public CompactionTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(CompactionRefusal, ReportedOnceAtItsLevelThenAtDebug) {
  auto s = GetParam().make(dir_);
  const auto size_before = fs::exists(s.db->db_path) ? size_on_disk(s.db->db_path) : -1;
  std::string text = skip_line(*s.db, s.reason);
  if (!s.attached.empty()) text += "\n" + s.attached;
  LogCapture log;
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE("call " + std::to_string(round + 1));
    log.clear();
    EXPECT_EQ(s.call(*s.db), (mq::Compaction{false, 0, s.reason}));
    EXPECT_EQ(log.records(), (std::vector<LogRecord>{{round == 0 ? s.level : spdlog::level::debug, text}}));
    EXPECT_TRUE(lock_is_free(*s.db));
  }
  {
    std::lock_guard noted(s.db->impl()._compaction_noted_mu);
    EXPECT_EQ(s.db->impl()._compaction_noted, (std::set<std::string>{GetParam().kind}));
  }
  // None of these is a failed conversion: each is judged again next time.
  EXPECT_FALSE(s.db->impl()._conversion_failed.load());
  if (size_before >= 0) EXPECT_EQ(size_on_disk(s.db->db_path), size_before);
}

INSTANTIATE_TEST_SUITE_P(Kinds, CompactionRefusal, ::testing::ValuesIn(kRefusals),
                         [](const auto& info) { return std::string(info.param.name); });

// ------------------------------------------------------------------ conversion

TEST_F(CompactionTest, ConvertsOnceThenReleasesInSteps) {
  const auto file = path("legacy.db");
  make_page_file(file, 4551, 2048, mq::detail::kAutoVacuumNone);  // 2500 pages of data
  const std::int64_t size_before = size_on_disk(file);
  auto db = open(file);
  LogCapture log;

  const auto converted = db->compact();
  const auto after = marsk_quorvi::storage::detail::DatabaseImpl::_space(*db->connection());
  EXPECT_EQ(after.mode, mq::detail::kAutoVacuumIncremental);
  EXPECT_EQ(after.free, 0);
  // The drop in the page count, which is not the free count: the rewrite
  // also adds the pointer-map pages incremental mode needs.
  EXPECT_EQ(converted, (mq::Compaction{true, 4551 - after.pages, std::nullopt}));
  EXPECT_LT(converted.pages_released, 2048);
  EXPECT_EQ(size_on_disk(file), after.pages * 8192);
  EXPECT_LT(size_on_disk(file), size_before);
  const auto lines = log.records();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, spdlog::level::info);
  const std::string expected = "Converted " + file.string() + " to incremental auto-vacuum: " +
                               std::to_string(converted.pages_released) + " free pages released (" +
                               std::to_string(size_before / MiB) + " -> " + std::to_string(after.pages * 8192 / MiB) +
                               " MiB) in ";
  EXPECT_EQ(lines[0].text.substr(0, expected.size()), expected);
  EXPECT_TRUE(std::regex_match(lines[0].text.substr(expected.size()), std::regex("[0-9]+\\.[0-9]s")));

  // From now on the file gives its pages back in steps, without a rewrite.
  db->execute("DELETE FROM bulk");
  const auto freed = pragma(*db, "freelist_count");
  PageTrace trace(db->connection());
  EXPECT_EQ(db->compact(), (mq::Compaction{false, freed, std::nullopt}));
  trace.stop();
  EXPECT_EQ(trace.count("VACUUM"), 0);
  EXPECT_EQ(trace.steps(kStep), (std::vector<std::int64_t>{1024, 1024, freed - 2048}));
  EXPECT_FALSE(db->impl()._conversion_failed.load());
}

TEST_F(CompactionTest, ConversionSizeLimitAtItsBoundary) {
  ScopedEnv tmp("SQLITE_TMPDIR", dir_.string());
  platform::ScopedOverride roomy([](const fs::path&) { return platform::VolumeUsage{1LL << 50, 0, 1LL << 50}; },
                                 platform::FileStatusFn{});
  struct Case {
    const char* name;
    mq::detail::Space space;  // what the caller measured
    std::optional<std::string> refused;
  };
  const std::string tail = " MiB of data, the limit is 1024 MiB; its free pages stay until the index file is rebuilt";
  const Case cases[] = {
      {"exactly the limit", {0, 131072 + 2048, 2048, 8192}, std::nullopt},
      {"one byte more", {0, 1073741825 + 10, 10, 1}, "too large to convert in place: 1024" + tail},
      {"2000 MiB", {0, 256000 + 30000, 30000, 8192}, "too large to convert in place: 2000" + tail},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto file = path(std::string(c.name) + ".db");
    make_page_file(file, 2100, 2048, mq::detail::kAutoVacuumNone);
    auto db = open(file);
    LogCapture log;
    const auto first = db->impl()._convert_to_incremental(c.space);
    const auto mode = marsk_quorvi::storage::detail::DatabaseImpl::_space(*db->connection()).mode;
    if (!c.refused) {
      EXPECT_TRUE(first.converted);
      EXPECT_EQ(first.pages_released, c.space.pages - pragma(*db, "page_count"));
      EXPECT_EQ(mode, mq::detail::kAutoVacuumIncremental);
      continue;
    }
    EXPECT_EQ(first, (mq::Compaction{false, 0, *c.refused}));
    EXPECT_EQ(mode, mq::detail::kAutoVacuumNone);
    // Judged afresh every time, logged at DEBUG after the first.
    EXPECT_EQ(db->impl()._convert_to_incremental(c.space), first);
    EXPECT_EQ(log.records(), (std::vector<LogRecord>{{spdlog::level::info, skip_line(*db, *c.refused)},
                                                      {spdlog::level::debug, skip_line(*db, *c.refused)}}));
    EXPECT_FALSE(db->impl()._conversion_failed.load());
  }
}

TEST_F(CompactionTest, FileConvertedByAnotherProcessMeanwhile) {
  const auto file = path("raced.db");
  make_page_file(file, 2100, 2048, mq::detail::kAutoVacuumNone);
  auto db = open(file);
  const auto measured = marsk_quorvi::storage::detail::DatabaseImpl::_space(*db->connection());
  ASSERT_EQ(measured.mode, mq::detail::kAutoVacuumNone);
  // The other process's handle asks for incremental mode at connect; its
  // VACUUM applies it.
  ASSERT_EQ(PeerProcess::run({"exec", file.string(), "VACUUM"}).status, 0);
  LogCapture log;
  EXPECT_EQ(db->impl()._convert_to_incremental(measured), mq::Compaction{});
  EXPECT_TRUE(log.records().empty());
  EXPECT_FALSE(db->impl()._conversion_failed.load());
  EXPECT_EQ(marsk_quorvi::storage::detail::DatabaseImpl::_space(*db->connection()).mode, mq::detail::kAutoVacuumIncremental);
}

TEST_F(CompactionTest, FailedRewriteIsNotRetried) {
  const auto file = path("broken.db");
  make_page_file(file, 2100, 2048, mq::detail::kAutoVacuumNone);
  std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).seekp(8192).put('\x07');  // root of bulk
  auto db = open(file);
  LogCapture log;

  const std::string error = "database disk image is malformed";
  EXPECT_EQ(db->compact(), (mq::Compaction{false, 0, "failed: " + error}));
  EXPECT_TRUE(db->impl()._conversion_failed.load());
  const std::string again = "an earlier conversion failed or changed nothing: not retried";
  PageTrace trace(db->connection());
  for (int i = 0; i < 2; ++i) EXPECT_EQ(db->compact(), (mq::Compaction{false, 0, again}));
  trace.stop();
  EXPECT_EQ(trace.count("VACUUM"), 0);
  EXPECT_EQ(log.records(),
            (std::vector<LogRecord>{{spdlog::level::warn, skip_line(*db, "failed: " + error) + "\nError: " + error},
                                    {spdlog::level::debug, skip_line(*db, again)},
                                    {spdlog::level::debug, skip_line(*db, again)}}));
  // The failed rewrite changed nothing.
  EXPECT_EQ(marsk_quorvi::storage::detail::DatabaseImpl::_space(*db->connection()), (mq::detail::Space{0, 2100, 2048, 8192}));
  // A new handle, as at the next start, tries again.
  db->close();
  SpaceDb next(file);
  next.connect();
  EXPECT_EQ(next.compact().skipped, "failed: " + error);
}

// ------------------------------------------------------------------ concurrency

TEST_F(CompactionTest, ReadersNeverWaitForAStep) {
  const auto file = path("busy.db");
  make_page_file(file, 4101, 2048, mq::detail::kAutoVacuumIncremental);
  auto db = open(file);
  std::atomic<int> steps{0};
  std::atomic<bool> lock_held{false};
  std::atomic<bool> reader_done{false};
  std::future<void> writer;
  PageTrace trace(db->connection(), [&](const std::string& sql) {
    if (sql != kStep || steps++ != 0) return;
    // In the middle of the first step, on the compacting thread.
    lock_held = !lock_is_free(*db);
    auto reader = std::async(std::launch::async, [&] { db->fetchone("SELECT count(*) FROM bulk"); });
    reader_done = reader.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    // A writer that arrives now waits; it gets its turn between steps.
    writer = std::async(std::launch::async, [&] { db->execute("INSERT INTO spare VALUES (x'00')"); });
  });
  const auto result = db->compact();
  trace.stop();
  writer.get();
  EXPECT_TRUE(lock_held);
  EXPECT_TRUE(reader_done);
  EXPECT_EQ(result.skipped, std::nullopt);
  EXPECT_GE(steps.load(), 2);
  EXPECT_EQ(pragma(*db, "freelist_count"), 0);
  EXPECT_EQ((*db->fetchone("SELECT count(*) FROM spare"))[0].as_int(), 1);
}

TEST_F(CompactionTest, CloseBetweenStepsEndsTheLoopQuietly) {
  const auto file = path("closing.db");
  make_page_file(file, 12000, 5000, mq::detail::kAutoVacuumIncremental);
  auto db = open(file);
  std::future<void> closer;
  PageTrace trace(db->connection(), [&](const std::string& sql) {
    // Another thread closes the handle while the first step runs; it gets
    // the lock when a step ends.
    if (sql == kStep && !closer.valid()) closer = std::async(std::launch::async, [&] { db->close(); });
  });
  LogCapture log;
  const auto result = db->compact();
  closer.get();
  EXPECT_EQ(result.skipped, std::nullopt);
  EXPECT_GE(result.pages_released, 1024);
  EXPECT_TRUE(result.pages_released % 1024 == 0 || result.pages_released == 5000);
  EXPECT_EQ(log.matching("Compacted " + file.string() + ": " + std::to_string(result.pages_released) + " free").size(),
            1u);
  EXPECT_TRUE(db->closed());
}

TEST_F(CompactionTest, ConcurrentCompactionsCountEachPageOnce) {
  const auto file = path("shared.db");
  make_page_file(file, 12000, 5000, mq::detail::kAutoVacuumIncremental);
  auto db = open(file);
  std::vector<std::future<mq::Compaction>> calls;
  for (int i = 0; i < 3; ++i) calls.push_back(std::async(std::launch::async, [&] { return db->compact(); }));
  std::int64_t total = 0;
  for (auto& c : calls) {
    const auto r = c.get();
    EXPECT_EQ(r.skipped, std::nullopt);
    EXPECT_FALSE(r.converted);
    total += r.pages_released;
  }
  EXPECT_EQ(total, 5000);
  EXPECT_EQ(pragma(*db, "freelist_count"), 0);
}

TEST_F(CompactionTest, ConcurrentConversionsRewriteOnce) {
  const auto file = path("twice.db");
  make_page_file(file, 2100, 2048, mq::detail::kAutoVacuumNone);
  auto db = open(file);
  LogCapture log;
  std::vector<std::future<mq::Compaction>> calls;
  for (int i = 0; i < 2; ++i) calls.push_back(std::async(std::launch::async, [&] { return db->compact(); }));
  int converted = 0;
  for (auto& c : calls) {
    const auto r = c.get();
    EXPECT_EQ(r.skipped, std::nullopt);
    if (r.converted) {
      ++converted;
    } else {
      EXPECT_EQ(r, mq::Compaction{});
    }
  }
  EXPECT_EQ(converted, 1);
  EXPECT_EQ(log.matching("Converted ").size(), 1u);
  EXPECT_EQ(log.records().size(), 1u);
}

TEST_F(CompactionTest, ConcurrentReportsKeepTheNotedKindsIntact) {
  auto db = std::make_unique<SpaceDb>(path("never.db"));
  LogCapture log;
  constexpr int kThreads = 6, kCalls = 100;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::optional<mq::EventLoopThread> marker;
      if (t % 2 == 0) marker.emplace();
      for (int i = 0; i < kCalls; ++i) db->compact();
    });
  }
  for (auto& t : threads) t.join();
  {
    std::lock_guard noted(db->impl()._compaction_noted_mu);
    EXPECT_EQ(db->impl()._compaction_noted, (std::set<std::string>{"closed", "loop"}));
  }
  const auto records = log.records();
  EXPECT_EQ(records.size(), static_cast<std::size_t>(kThreads * kCalls));
  for (const char* reason : {"called on the event loop: a pool thread compacts", "the database is closed"}) {
    int first = 0;
    for (const auto& r : log.matching(reason)) first += r.level == spdlog::level::info;
    EXPECT_GE(first, 1) << reason;
    EXPECT_LE(first, kThreads / 2) << reason;
  }
}

TEST_F(CompactionTest, ReaderInAnotherProcessHoldsTheCheckpoint) {
  const auto file = path("held.db");
  make_page_file(file, 2101, 2048, mq::detail::kAutoVacuumIncremental);
  auto db = open(file);
  PeerProcess peer({"snapshot", file.string(), "60"});
  ASSERT_EQ(peer.read_line(), "ready");
  LogCapture log;
  // The checkpoint waits out the busy time-out for the other process's
  // snapshot, then leaves the log for a later checkpoint.
  EXPECT_EQ(db->compact(), (mq::Compaction{false, 2048, std::nullopt}));
  const auto records = log.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0], (LogRecord{spdlog::level::info,
                                   "Compaction of " + file.string() +
                                       ": a reader still uses an older snapshot, so the file shrinks at a later "
                                       "checkpoint"}));
  EXPECT_EQ(records[1].text.rfind("Compacted " + file.string() + ": 2048 free pages released (", 0), 0u);
}

}  // namespace
