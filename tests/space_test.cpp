// Measuring a file's space, the disk check before a rewrite, giving free pages
// back in steps and the one-time conversion of files made without auto-vacuum.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <future>
#include <regex>
#include <set>

#include "storage/platform.hpp"
#include "support/test_support.hpp"

namespace fs = std::filesystem;
namespace mq = marsk_quorvi::storage;
namespace platform = mq::platform;
using marsk_quorvi::FileNotFoundError, marsk_quorvi::OSError, mq::Compaction, mq::detail::Space;
using namespace marsk_quorvi::testing;
using spdlog::level::level_enum;

namespace {

constexpr std::int64_t MiB = 1048576;
constexpr level_enum kDebug = spdlog::level::debug, kInfo = spdlog::level::info, kWarn = spdlog::level::warn;
const std::string kMalformed = "database disk image is malformed";
const std::string kStep = "PRAGMA incremental_vacuum(1024)", kCheckpoint = "PRAGMA wal_checkpoint(TRUNCATE)";
using SpaceTest = TempDirTest;
using CompactionTest = TempDirTest;

std::int64_t size_on_disk(const fs::path& file) { return static_cast<std::int64_t>(fs::file_size(file)); }

std::unique_ptr<TestDb> connected(const fs::path& file, int busy_timeout_ms = 5000) {
  auto db = std::make_unique<TestDb>(file);
  db->impl()._busy_timeout_ms = busy_timeout_ms;
  db->connect();
  return db;
}

Space space(TestDb& db) { return mq::detail::DatabaseImpl::_space(*db.connection()); }

// A file of exactly `pages` pages of 8192 bytes, `free` of them on the free list, in auto-vacuum mode `mode`: the
// data is one blob of table bulk, the free pages the overflow chain of a deleted blob of table spare.
void make_page_file(const fs::path& file, std::int64_t pages, std::int64_t free, std::int64_t mode) {
  const std::int64_t pointer_maps = mode == 0 ? 0 : (pages - 2) / (8192 / 5 + 1) + 1;
  auto conn = mq::Connection::open(file.string());
  conn->executescript("PRAGMA page_size=8192; PRAGMA auto_vacuum=" + std::to_string(mode) +
                      "; PRAGMA journal_mode=OFF; CREATE TABLE bulk (b BLOB); CREATE TABLE spare (b BLOB);");
  conn->execute("INSERT INTO bulk VALUES (zeroblob(?))", {(pages - 3 - free - pointer_maps) * 8188});
  conn->execute("INSERT INTO spare VALUES (zeroblob(?))", {free * 8188});
  conn->execute("DELETE FROM spare");
  ASSERT_EQ(mq::detail::DatabaseImpl::_space(*conn), (Space{mode, pages, free, 8192}));
}

// Writes a big-endian 32-bit header field.
void patch_u32(const fs::path& file, std::int64_t offset, std::uint32_t value) {
  std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
  f.seekp(offset);
  for (int shift = 24; shift >= 0; shift -= 8) f.put(static_cast<char>(value >> shift));
}

// A file without auto-vacuum whose header claims `pages` pages, `free` of them free; sparse, so it costs no disk.
void make_sparse_file(const fs::path& file, std::uint32_t pages, std::uint32_t free) {
  make_page_file(file, 2100, 2048, 0);
  patch_u32(file, 28, pages);
  patch_u32(file, 36, free);
  fs::resize_file(file, std::uintmax_t{pages} * 8192);
}

// Calls `hook` with each statement `connection` starts, on the thread running it, inside whatever lock it holds.
struct StatementHook {
  StatementHook(std::shared_ptr<mq::Connection> connection, std::function<void(const std::string&)> on_statement)
      : conn(std::move(connection)), hook(std::move(on_statement)) {
    auto callback = [](unsigned, void* self, void*, void* sql) {
      static_cast<StatementHook*>(self)->hook(static_cast<const char*>(sql));
      return 0;
    };
    sqlite3_trace_v2(conn->handle(), SQLITE_TRACE_STMT, callback, this);
  }
  ~StatementHook() {
    if (conn->handle()) sqlite3_trace_v2(conn->handle(), 0, nullptr, nullptr);
  }
  std::shared_ptr<mq::Connection> conn;
  std::function<void(const std::string&)> hook;
};

std::string skip_line(const mq::Database& db, const std::string& reason) {
  return "Compaction of " + db.db_path.string() + " skipped: " + reason;
}

// The records, with the seconds an operation took replaced by "T".
std::vector<LogRecord> timed(std::vector<LogRecord> records) {
  for (auto& r : records) r.text = std::regex_replace(r.text, std::regex(" in [0-9]+\\.[0-9]s$"), " in T");
  return records;
}

std::string short_of(std::int64_t free, const std::string& dir, std::int64_t needed) {
  return "not enough disk space: " + std::to_string(free) + " MiB free in " + dir + ", " + std::to_string(needed) +
         " MiB needed";
}

TEST_F(SpaceTest, RealQueriesFollowLinksAndRaiseWithErrnoAndPath) {
  std::ofstream(path("data")) << std::string(100, 'x');
  fs::create_symlink(path("data"), path("link"));
  fs::create_symlink(path("gone"), path("dangling"));
  EXPECT_EQ(platform::file_status(path("link")).size, 100);
  EXPECT_EQ(platform::file_status(path("link")).device, platform::file_status(dir_).device);
  EXPECT_TRUE(mq::detail::_same_volume(dir_, path("missing")));  // unknown counts as one volume
  EXPECT_FALSE(mq::detail::_same_volume(dir_, "/proc"));
  for (const auto& [target, error] : {std::pair{path("missing"), ENOENT}, std::pair{path("dangling"), ENOENT},
                                      std::pair{path("data") / "child", ENOTDIR}}) {
    for (const bool disk : {false, true}) {
      SCOPED_TRACE(target.string() + (disk ? " disk_usage" : " file_status"));
      try {
        disk ? (void)platform::disk_usage(target) : (void)platform::file_status(target);
        ADD_FAILURE() << "no error";
      } catch (const OSError& e) {
        EXPECT_EQ(e.what(),
                  "[Errno " + std::to_string(error) + "] " + std::strerror(error) + ": '" + target.string() + "'");
        EXPECT_EQ(std::tuple(e.error_number(), e.path()), std::tuple(error, target));
        EXPECT_EQ(dynamic_cast<const FileNotFoundError*>(&e) != nullptr, error == ENOENT);
      }
    }
  }
  // Only what this process may write counts as free; other writers move the figures between the readings.
  struct statvfs st {};
  ASSERT_EQ(::statvfs(dir_.c_str(), &st), 0);
  const auto usage = platform::disk_usage(dir_);
  EXPECT_EQ(usage.total, static_cast<std::int64_t>(st.f_blocks * st.f_frsize));
  EXPECT_LT(std::llabs(usage.free - static_cast<std::int64_t>(st.f_bavail * st.f_frsize)), 64 * MiB);
  // A missing temporary directory is never asked about: it counts as the database's volume.
  ScopedEnv tmp("SQLITE_TMPDIR", path("no-such-dir").string());
  EXPECT_EQ(mq::detail::_disk_shortfall(dir_, 0), std::nullopt);
  EXPECT_EQ(mq::detail::_disk_shortfall("", 0), std::nullopt);  // a bare file name's directory
  EXPECT_THROW(mq::detail::_disk_shortfall(path("missing"), 0), FileNotFoundError);
}

TEST_F(SpaceTest, SpaceIsMeasuredAndStepsThatFreeNothingEnd) {
  struct Case {
    std::int64_t mode, pages, free, released;
  } const cases[] = {{0, 2100, 2048, 0}, {2, 2101, 2048, 2048}, {2, 40, 0, 0}};
  // Without incremental mode a step frees nothing, and the loop must stop rather than spin.
  for (const Case& c : cases) {
    SCOPED_TRACE("mode " + std::to_string(c.mode) + ", pages " + std::to_string(c.pages));
    make_page_file(path(std::to_string(c.pages) + ".db"), c.pages, c.free, c.mode);
    auto db = connected(path(std::to_string(c.pages) + ".db"));
    EXPECT_EQ(space(*db), (Space{c.mode, c.pages, c.free, 8192}));
    auto release = std::async(std::launch::async, [&] { return db->impl()._release_free_pages(); });
    const bool ended = release.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    if (!ended) db->close();  // ends a spinning loop
    EXPECT_TRUE(ended);
    EXPECT_EQ(release.get(), c.released);
  }
}

// A pretend file system: a device number and a free size per directory.
struct FakeVolumes {
  std::map<std::string, std::uint64_t> device;
  std::map<std::string, std::int64_t> free;
  platform::ScopedOverride seam{[this](const fs::path& p) {
                                  if (!free.contains(p.string())) throw FileNotFoundError(p.string(), ENOENT);
                                  return platform::VolumeUsage{1 << 30, 0, free.at(p.string())};
                                },
                                [this](const fs::path& p) {
                                  if (!device.contains(p.string())) throw OSError(p.string(), EACCES);
                                  return platform::FileStatus{0, device.at(p.string())};
                                }};
};

TEST_F(SpaceTest, ShortfallNamesTheFirstVolumeThatFallsShort) {
  std::string first_usable = ".";  // of /var/tmp, /usr/tmp and /tmp, in that order
  for (const char* d : {"/tmp", "/usr/tmp", "/var/tmp"}) {
    if (fs::is_directory(d) && ::access(d, W_OK | X_OK) == 0) first_usable = d;
  }
  const std::string tmpdir = path("tmpdir").string();
  fs::create_directories(tmpdir);
  struct Case {
    std::optional<std::string> sqlite_tmpdir, tmpdir;
    std::string tmp;           // where SQLite puts its temporary files
    std::uint64_t tmp_device;  // 1 the database's volume, 0 unknown
    std::int64_t used, db_free, tmp_free;
    std::optional<std::string> expected;
  } const cases[] = {
      {"/s", {}, "/s", 1, 100 * MiB, 264 * MiB, 0, std::nullopt},  // twice the data and the margin on one volume
      {"/s", {}, "/s", 0, 100 * MiB, 264 * MiB - 1, 0, short_of(263, "/db", 264)},
      {"/s", {}, "/s", 2, 100 * MiB, 164 * MiB, 164 * MiB, std::nullopt},
      {"/s", {}, "/s", 2, 100 * MiB, 100 * MiB, 100 * MiB, short_of(100, "/db", 164)},  // the database's first
      {"/s", {}, "/s", 2, 100 * MiB, 500 * MiB, 164 * MiB - MiB / 2, short_of(163, "/s", 164)},
      {"/s", {}, "/s", 2, MiB * 9 / 10, MiB * 3 / 2, 0, short_of(1, "/db", 64)},  // sizes are rounded down
      {"/s", tmpdir, "/s", 2, 0, 64 * MiB, 0, short_of(0, "/s", 64)},
      {"", tmpdir, tmpdir, 2, 0, 64 * MiB, 0, short_of(0, tmpdir, 64)},  // empty counts as unset
      {{}, path("nowhere").string(), first_usable, 2, 0, 64 * MiB, 0, short_of(0, first_usable, 64)},
      {{}, {}, first_usable, 2, 0, 64 * MiB, 0, short_of(0, first_usable, 64)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    ScopedEnv a("SQLITE_TMPDIR", c.sqlite_tmpdir), b("TMPDIR", c.tmpdir);
    FakeVolumes fake{{{"/db", 1}, {c.tmp, c.tmp_device}}, {{"/db", c.db_free}, {c.tmp, c.tmp_free}}};
    if (c.tmp_device == 0) fake.device.erase(c.tmp);
    EXPECT_EQ(mq::detail::_disk_shortfall("/db", c.used), c.expected);
  }
}

TEST_F(CompactionTest, ReleasesInBoundedStepsAndShrinksTheFile) {
  const auto file = path("steps.db");
  make_page_file(file, 6000, 2500, 2);
  const std::int64_t size_before = size_on_disk(file);
  auto db = connected(file);
  std::vector<std::int64_t> free_before_step;
  StatementHook hook(db->connection(), [&](const std::string& sql) {
    if (sql == kStep) free_before_step.push_back((*db->fetchone("SELECT * FROM pragma_freelist_count"))[0].as_int());
  });
  LogCapture log;
  EXPECT_EQ(db->compact(), (Compaction{false, 2500, std::nullopt}));
  EXPECT_EQ(free_before_step, (std::vector<std::int64_t>{2500, 1476, 452}));
  const std::int64_t pages = space(*db).pages;
  EXPECT_EQ(size_on_disk(file), pages * 8192);
  EXPECT_EQ(size_on_disk(file.string() + "-wal"), 0);
  const std::string line = "Compacted " + file.string() + ": 2500 free pages released (" +
                           std::to_string(size_before / MiB) + " -> " + std::to_string(pages * 8192 / MiB) +
                           " MiB) in T";
  EXPECT_EQ(timed(log.records()), (std::vector<LogRecord>{{kInfo, line}}));
}

// A refusal answers with its reason, is logged once at its level (with the error under it, if any) and at DEBUG
// after that, notes only its own kind and counts as no failed conversion.
void expect_refusal(TestDb& db, const std::string& kind, const std::string& reason, level_enum level = kInfo,
                    const std::string& attached = "", const std::function<Compaction(TestDb&)>& call = {}) {
  SCOPED_TRACE(reason);
  LogCapture log;
  for (int round = 0; round < 3; ++round) {
    log.clear();
    EXPECT_EQ(call ? call(db) : db.compact(), (Compaction{false, 0, reason}));
    EXPECT_EQ(log.records(), (std::vector<LogRecord>{{round ? kDebug : level, skip_line(db, reason) + attached}}));
  }
  std::lock_guard noted(db.impl()._compaction_noted_mu);
  EXPECT_EQ(db.impl()._compaction_noted, std::set<std::string>{kind});
  EXPECT_FALSE(db.impl()._conversion_failed.load());
}

TEST_F(CompactionTest, RefusalsAndThresholds) {
  const auto plain = path("plain.db"), corrupt = path("corrupt.db");
  make_page_file(plain, 2100, 2048, 0);
  make_page_file(corrupt, 2101, 2048, 2);
  patch_u32(corrupt, 32, 999999);  // the first free-list trunk page, far past the end
  expect_refusal(*connected(plain), "loop", "called on the event loop: a pool thread compacts", kInfo, "",
                 [](TestDb& db) {
                   mq::EventLoopThread marker;
                   return db.compact();
                 });
  expect_refusal(*connected(plain), "transaction", "called inside a transaction", kInfo, "",
                 [](TestDb& db) { return db.transaction([&](mq::Cursor&) { return db.compact(); }); });
  auto closed = connected(plain);
  closed->close();
  expect_refusal(*closed, "closed", "the database is closed");
  expect_refusal(*connected(corrupt), "failed", "failed: " + kMalformed, kWarn, "\nError: " + kMalformed);
  {
    // Measured before the free list is read: what fails is the size of the file.
    const std::string denied = "[Errno 13] Permission denied: '" + corrupt.string() + "'";
    platform::ScopedOverride no_stat(platform::DiskUsageFn{}, [](const fs::path& p) -> platform::FileStatus {
      throw OSError("[Errno 13] Permission denied: '" + p.string() + "'", EACCES);
    });
    expect_refusal(*connected(corrupt), "failed", "failed: " + denied, kWarn, "\nOSError: " + denied);
  }
  auto no_pool = [&] {
    ScopedEnv no_readers("QUORVI_DB_READERS", "0");
    return connected(plain);
  }();
  expect_refusal(*no_pool, "readers", "no read connections: a query would wait for the lock the conversion holds");
  make_sparse_file(path("large.db"), 131072 + 1 + 20000, 20000);  // a page of data more than the limit
  expect_refusal(*connected(path("large.db")), "large",
                 "too large to convert in place: 1024 MiB of data, the limit is 1024 MiB; its free pages stay until "
                 "the index file is rebuilt");
  // 10 MiB free, and no file status: the temporary files count as being on the database's volume.
  FakeVolumes full{{}, {{dir_.string(), 10 * MiB}}};
  make_sparse_file(path("limit.db"), 131072 + 20000, 20000);  // exactly the limit of data
  expect_refusal(*connected(path("limit.db")), "disk", short_of(10, dir_.string(), 2112));
  // 2048 free pages of 20480 are exactly a tenth and reach the disk check; 2047 are too few, and of 20481 too little.
  make_sparse_file(path("tenth.db"), 20480, 2048);
  expect_refusal(*connected(path("tenth.db")), "disk", short_of(10, dir_.string(), 352));
  for (const auto& [pages, free] : {std::pair{4000u, 2047u}, std::pair{20481u, 2048u}}) {
    make_sparse_file(path(std::to_string(pages) + ".db"), pages, free);
    LogCapture log;
    EXPECT_EQ(connected(path(std::to_string(pages) + ".db"))->compact(), Compaction{}) << pages;
    EXPECT_TRUE(log.records().empty());
  }
}

TEST_F(CompactionTest, ConvertsOnceUnlessAnotherProcessDidMeanwhile) {
  const auto file = path("legacy.db");
  make_page_file(file, 4551, 2048, 0);
  const std::int64_t size_before = size_on_disk(file);
  auto db = connected(file);
  LogCapture log;
  const auto converted = db->compact();
  const Space after = space(*db);
  EXPECT_EQ(std::tuple(after.mode, after.free), std::tuple(2, 0));
  // The drop in the page count, not the free count: the rewrite adds the pointer-map pages incremental mode needs.
  EXPECT_EQ(converted, (Compaction{true, 4551 - after.pages, std::nullopt}));
  EXPECT_EQ(size_on_disk(file), after.pages * 8192);
  const std::string line = "Converted " + file.string() +
                           " to incremental auto-vacuum: " + std::to_string(converted.pages_released) +
                           " free pages released (" + std::to_string(size_before / MiB) + " -> " +
                           std::to_string(after.pages * 8192 / MiB) + " MiB) in T";
  EXPECT_EQ(timed(log.records()), (std::vector<LogRecord>{{kInfo, line}}));
  EXPECT_FALSE(db->impl()._conversion_failed.load());
  make_page_file(path("shared.db"), 2100, 2048, 0);
  auto other = connected(path("shared.db"));
  const Space measured = space(*other);
  // The other process's handle asks for incremental mode when it connects; its VACUUM applies it.
  ASSERT_EQ(PeerProcess::run({"exec", path("shared.db").string(), "VACUUM"}).status, 0);
  log.clear();
  EXPECT_EQ(other->impl()._convert_to_incremental(measured), Compaction{});
  EXPECT_TRUE(log.records().empty());
  EXPECT_EQ(space(*other).mode, 2);
}

TEST_F(CompactionTest, ConversionThatFailsOrChangesNothingIsNotRetried) {
  const std::string again = "an earlier conversion failed or changed nothing: not retried";
  struct Case {
    bool corrupt;  // else another connection turns the file back right after the rewrite
    std::string reason, attached;
    level_enum level;
  } const cases[] = {{true, "failed: " + kMalformed, "\nError: " + kMalformed, kWarn},
                     {false, "the file was rewritten but is not in incremental auto-vacuum mode", "", kInfo}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    const auto file = path(c.corrupt ? "corrupt.db" : "turned.db");
    make_page_file(file, 2100, 2048, 0);
    if (c.corrupt) std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).seekp(8192).put('\x07');
    auto db = connected(file);
    StatementHook hook(db->connection(), [&](const std::string& sql) {
      // Free pages stay behind, so that later calls reach the conversion again.
      if (!c.corrupt && sql == kCheckpoint) {
        mq::Connection::open(file.string())
            ->executescript(
                "PRAGMA auto_vacuum=NONE; VACUUM; INSERT INTO spare VALUES (zeroblob(20000000)); "
                "DELETE FROM spare;");
      }
    });
    LogCapture log;
    EXPECT_EQ(db->compact(), (Compaction{false, 0, c.reason}));
    EXPECT_TRUE(db->impl()._conversion_failed.load());
    for (int i = 0; i < 2; ++i) EXPECT_EQ(db->compact(), (Compaction{false, 0, again}));
    EXPECT_EQ(log.records(), (std::vector<LogRecord>{{c.level, skip_line(*db, c.reason) + c.attached},
                                                     {kDebug, skip_line(*db, again)},
                                                     {kDebug, skip_line(*db, again)}}));
    if (c.corrupt) EXPECT_EQ(space(*db), (Space{0, 2100, 2048, 8192}));
  }
}

TEST_F(CompactionTest, StepsHoldTheLockButNotTheReadersAndCloseEndsThem) {
  make_page_file(path("busy.db"), 6000, 2500, 2);
  auto db = connected(path("busy.db"));
  bool lock_held = false, reader_done = false;
  std::future<void> closer;
  StatementHook hook(db->connection(), [&](const std::string& sql) {
    if (sql != kStep || closer.valid()) return;
    // In the middle of the first step, on the compacting thread. The closing thread gets the lock when a step ends.
    auto& lock = db->impl()._lock;
    lock_held = !std::async(std::launch::async, [&] { return lock.try_lock() && (lock.unlock(), true); }).get();
    auto reader = std::async(std::launch::async, [&] { db->fetchone("SELECT count(*) FROM bulk"); });
    reader_done = reader.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    closer = std::async(std::launch::async, [&] { db->close(); });
  });
  LogCapture log;
  const auto result = db->compact();
  closer.get();
  EXPECT_EQ(std::pair(lock_held, reader_done), std::pair(true, true));
  EXPECT_EQ(result.skipped, std::nullopt);
  EXPECT_TRUE(result.pages_released == 1024 || result.pages_released == 2048 || result.pages_released == 2500);
  const std::string compacted = "Compacted " + db->db_path.string() + ": " + std::to_string(result.pages_released);
  EXPECT_EQ(log.matching(compacted + " free pages released (").size(), 1u);
  EXPECT_TRUE(db->closed());
}

TEST_F(CompactionTest, ConcurrentCallsReleaseEachPageOnceAndReportEachRefusalOnce) {
  make_page_file(path("shared.db"), 6000, 2500, 2);
  auto db = connected(path("shared.db"));
  const auto before = db->page_counts();
  LogCapture log;
  std::vector<std::future<Compaction>> calls;
  for (int t = 0; t < 6; ++t) {
    calls.push_back(std::async(std::launch::async, [&, t] {
      if (t % 2 == 0) return db->compact();
      mq::EventLoopThread marker;
      for (int i = 0; i < 99; ++i) db->compact();
      return db->compact();
    }));
  }
  std::int64_t total = 0;
  for (auto& c : calls) total += c.get().pages_released;
  EXPECT_EQ(total, 2500);
  EXPECT_EQ(space(*db).free, 0);
  const auto after = db->page_counts();
  EXPECT_EQ(before.freelist_count - after.freelist_count, 2500);
  EXPECT_GE(before.page_count - after.page_count, 2500);  // and pointer-map pages no longer needed
  EXPECT_EQ(after.page_size, before.page_size);
  const auto refusals = log.matching("called on the event loop: a pool thread compacts");
  EXPECT_EQ(refusals.size(), 300u);
  EXPECT_EQ(std::ranges::count(refusals, kInfo, &LogRecord::level), 1);
  std::lock_guard noted(db->impl()._compaction_noted_mu);
  EXPECT_EQ(db->impl()._compaction_noted, std::set<std::string>{"loop"});
}

TEST_F(CompactionTest, ReaderInAnotherProcessHoldsTheCheckpoint) {
  const auto file = path("held.db");
  make_page_file(file, 2101, 2048, 2);
  auto db = connected(file, 50);  // the checkpoint waits out the busy time-out for the other process's snapshot
  PeerProcess peer({"snapshot", file.string(), "60"});
  ASSERT_EQ(peer.read_line(), "ready");
  LogCapture log;
  EXPECT_EQ(db->compact(), (Compaction{false, 2048, std::nullopt}));
  const std::string held = "Compaction of " + file.string() +
                           ": a reader still uses an older snapshot, so the file shrinks at a later checkpoint";
  const std::string compacted = "Compacted " + file.string() + ": 2048 free pages released (16 -> 16 MiB) in T";
  EXPECT_EQ(timed(log.records()), (std::vector<LogRecord>{{kInfo, held}, {kInfo, compacted}}));
}

}  // namespace
