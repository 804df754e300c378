// Measuring a file's space, the operating-system queries behind the disk
// check, and the disk check itself.
#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"
#include "storage/platform.hpp"
#include "support/page_files.hpp"
#include "support/test_support.hpp"

namespace fs = std::filesystem;
namespace mq = marsk_quorvi::storage;
namespace platform = marsk_quorvi::storage::platform;
using marsk_quorvi::OSError;
using marsk_quorvi::FileNotFoundError;
using marsk_quorvi::testing::make_page_file;
using marsk_quorvi::testing::ScopedEnv;
using marsk_quorvi::testing::SpaceDb;

namespace {

constexpr std::int64_t MiB = 1048576;

class SpaceTest : public marsk_quorvi::testing::TempDirTest {};

std::string errno_message(int error_number, const fs::path& p) {
  return "[Errno " + std::to_string(error_number) + "] " + std::strerror(error_number) + ": '" + p.string() + "'";
}

// ------------------------------------------------------------------ platform queries

TEST_F(SpaceTest, FileStatusFollowsSymbolicLinks) {
  std::ofstream(path("data")) << std::string(100, 'x');
  fs::create_symlink(path("data"), path("link"));
  EXPECT_EQ(platform::file_status(path("link")).size, 100);
  EXPECT_EQ(platform::file_status(path("link")).device, platform::file_status(dir_).device);
}

TEST_F(SpaceTest, FailingQueriesRaiseWithErrnoAndPath) {
  std::ofstream(path("plain")) << "x";
  fs::create_symlink(path("gone"), path("dangling"));
  struct Case {
    fs::path target;
    int error_number;
  };
  const Case cases[] = {
      {path("missing"), ENOENT},
      {path("dangling"), ENOENT},
      {path("plain") / "child", ENOTDIR},
  };
  using Query = std::function<void(const fs::path&)>;
  const std::pair<const char*, Query> queries[] = {
      {"file_status", [](const fs::path& p) { platform::file_status(p); }},
      {"disk_usage", [](const fs::path& p) { platform::disk_usage(p); }},
  };
  for (const auto& [name, query] : queries) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(name) + " " + c.target.string());
      try {
        query(c.target);
        ADD_FAILURE() << "no error";
      } catch (const OSError& e) {
        EXPECT_EQ(e.error_number(), c.error_number);
        EXPECT_EQ(std::string(e.what()), errno_message(c.error_number, c.target));
        EXPECT_EQ(dynamic_cast<const FileNotFoundError*>(&e) != nullptr, c.error_number == ENOENT);
      }
    }
  }
}

TEST_F(SpaceTest, DiskUsageCountsOnlyWhatTheProcessMayWrite) {
  const auto usage = platform::disk_usage(dir_);
  struct statvfs st {};
  ASSERT_EQ(::statvfs(dir_.c_str(), &st), 0);
  const auto unit = static_cast<std::int64_t>(st.f_frsize);
  EXPECT_EQ(usage.total, static_cast<std::int64_t>(st.f_blocks) * unit);
  // Other writers move the free figures between the two readings; the
  // reserved blocks (when the volume keeps any) are a far larger gap.
  const std::int64_t available = static_cast<std::int64_t>(st.f_bavail) * unit;
  const std::int64_t unreserved = static_cast<std::int64_t>(st.f_bfree) * unit;
  EXPECT_LT(std::llabs(usage.free - available), 64 * MiB);
  if (unreserved - available > 1024 * MiB) EXPECT_GT(std::llabs(usage.free - unreserved), 512 * MiB);
  EXPECT_LE(usage.free, usage.total - usage.used + 64 * MiB);
}

// ------------------------------------------------------------------ _space

TEST_F(SpaceTest, SpaceReadsModePagesFreeAndPageSize) {
  struct Case {
    std::int64_t mode, pages, free;
  };
  for (const Case& c : {Case{0, 2100, 2048}, Case{2, 2101, 2048}, Case{2, 40, 0}}) {
    SCOPED_TRACE("mode " + std::to_string(c.mode));
    const auto file = path("m" + std::to_string(c.mode) + "-" + std::to_string(c.pages) + ".db");
    make_page_file(file, c.pages, c.free, c.mode);
    SpaceDb db(file);
    db.connect();
    EXPECT_EQ(marsk_quorvi::storage::detail::DatabaseImpl::_space(*db.connection()), (mq::detail::Space{c.mode, c.pages, c.free, 8192}));
    db.close();
  }
  // A file the handle creates itself is incremental from the start.
  SpaceDb fresh(path("fresh/index.db"));
  fresh.connect();
  fresh.execute("CREATE TABLE t (x)");
  const auto space = marsk_quorvi::storage::detail::DatabaseImpl::_space(*fresh.connection());
  EXPECT_EQ(space.mode, mq::detail::kAutoVacuumIncremental);
  EXPECT_EQ(space.page_size, 8192);
  auto conn = fresh.connection();
  fresh.close();
  EXPECT_THROW(marsk_quorvi::storage::detail::DatabaseImpl::_space(*conn), mq::Error);
}

TEST_F(SpaceTest, SpaceSeesAnotherProcessRewriteTheFile) {
  const auto file = path("shared.db");
  make_page_file(file, 2100, 2048, mq::detail::kAutoVacuumNone);
  SpaceDb db(file);
  db.connect();
  ASSERT_EQ(marsk_quorvi::storage::detail::DatabaseImpl::_space(*db.connection()).mode, mq::detail::kAutoVacuumNone);
  // The other process's handle asks for incremental mode when it connects;
  // its VACUUM applies it.
  ASSERT_EQ(marsk_quorvi::testing::PeerProcess::run({"exec", file.string(), "VACUUM"}).status, 0);
  const auto space = marsk_quorvi::storage::detail::DatabaseImpl::_space(*db.connection());
  EXPECT_EQ(space.mode, mq::detail::kAutoVacuumIncremental);
  EXPECT_EQ(space.free, 0);
  EXPECT_LT(space.pages, 100);
}

// ------------------------------------------------------------------ disk check

// A pretend file system: a device number and a free size per directory, and
// the directories whose free space was asked for, in order.
struct FakeVolumes {
  std::map<std::string, std::uint64_t> device;
  std::map<std::string, std::int64_t> free;
  std::vector<std::string> stat_queries;
  std::vector<std::string> free_queries;

  platform::ScopedOverride install() {
    return platform::ScopedOverride(
        [this](const fs::path& p) {
          free_queries.push_back(p.string());
          auto it = free.find(p.string());
          if (it == free.end()) throw FileNotFoundError("no volume " + p.string(), ENOENT);
          return platform::VolumeUsage{1 << 30, 0, it->second};
        },
        [this](const fs::path& p) {
          stat_queries.push_back(p.string());
          auto it = device.find(p.string());
          if (it == device.end()) throw OSError("no status " + p.string(), EACCES);
          return platform::FileStatus{0, it->second};
        });
  }
};

TEST_F(SpaceTest, SameVolumeComparesDevicesAndTreatsUnknownAsOne) {
  struct Case {
    std::map<std::string, std::uint64_t> device;
    bool expected;
    std::vector<std::string> queried;
  };
  const Case cases[] = {
      {{{"a", 1}, {"b", 1}}, true, {"a", "b"}},
      {{{"a", 1}, {"b", 2}}, false, {"a", "b"}},
      {{{"b", 2}}, true, {"a"}},  // the first failure answers at once
      {{{"a", 1}}, true, {"a", "b"}},
  };
  for (const auto& c : cases) {
    FakeVolumes fake;
    fake.device = c.device;
    auto seam = fake.install();
    EXPECT_EQ(mq::detail::_same_volume("a", "b"), c.expected);
    EXPECT_EQ(fake.stat_queries, c.queried);
  }
  // The real queries: /proc is never the volume of a temporary directory.
  EXPECT_TRUE(mq::detail::_same_volume(dir_, dir_));
  EXPECT_FALSE(mq::detail::_same_volume(dir_, "/proc"));
  EXPECT_TRUE(mq::detail::_same_volume(dir_, path("missing")));
}

TEST_F(SpaceTest, ShortfallNamesTheFirstVolumeThatFallsShort) {
  ScopedEnv tmp("SQLITE_TMPDIR", "/scratch");
  struct Case {
    const char* name;
    bool one_volume;
    std::int64_t used, db_free, tmp_free;
    std::optional<std::string> expected;
    std::vector<std::string> queried;
  };
  const Case cases[] = {
      {"exactly enough on one volume", true, 100 * MiB, 264 * MiB, 0, std::nullopt, {"/db"}},
      {"one byte short on one volume", true, 100 * MiB, 264 * MiB - 1, 0,
       "not enough disk space: 263 MiB free in /db, 264 MiB needed", {"/db"}},
      {"twice the data plus the margin", true, 100 * MiB, 200 * MiB, 0,
       "not enough disk space: 200 MiB free in /db, 264 MiB needed", {"/db"}},
      {"no data still needs the margin", true, 0, 64 * MiB - 1, 0,
       "not enough disk space: 63 MiB free in /db, 64 MiB needed", {"/db"}},
      {"no data, margin present", true, 0, 64 * MiB, 0, std::nullopt, {"/db"}},
      {"two volumes, each exactly enough", false, 100 * MiB, 164 * MiB, 164 * MiB, std::nullopt, {"/db", "/scratch"}},
      {"two volumes both short: the database's is named", false, 100 * MiB, 100 * MiB, 100 * MiB,
       "not enough disk space: 100 MiB free in /db, 164 MiB needed", {"/db"}},
      {"two volumes, the temporary one short", false, 100 * MiB, 500 * MiB, 164 * MiB - MiB / 2,
       "not enough disk space: 163 MiB free in /scratch, 164 MiB needed", {"/db", "/scratch"}},
      {"sizes are rounded down", false, MiB * 9 / 10, MiB * 3 / 2, 0,
       "not enough disk space: 1 MiB free in /db, 64 MiB needed", {"/db"}},
      {"no data on two volumes", false, 0, 64 * MiB, 64 * MiB - 1,
       "not enough disk space: 63 MiB free in /scratch, 64 MiB needed", {"/db", "/scratch"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeVolumes fake;
    fake.device = {{"/db", 1}, {"/scratch", c.one_volume ? 1u : 2u}};
    fake.free = {{"/db", c.db_free}, {"/scratch", c.tmp_free}};
    auto seam = fake.install();
    EXPECT_EQ(mq::detail::_disk_shortfall("/db", c.used), c.expected);
    EXPECT_EQ(fake.free_queries, c.queried);
  }
}

TEST_F(SpaceTest, TemporaryDirectoryFollowsSqlite) {
  // Where the check looks for SQLite's temporary files, for each setting of
  // the environment; the database's own volume is always asked first.
  const std::string first_usable = [] {
    for (const char* d : {"/var/tmp", "/usr/tmp", "/tmp"}) {
      if (fs::is_directory(d) && ::access(d, W_OK | X_OK) == 0) return std::string(d);
    }
    return std::string(".");
  }();
  fs::create_directories(path("tmpdir"));
  struct Case {
    const char* name;
    std::optional<std::string> sqlite_tmpdir, tmpdir;
    std::string expected;
  };
  const Case cases[] = {
      {"SQLITE_TMPDIR wins", "/scratch", path("tmpdir").string(), "/scratch"},
      {"empty SQLITE_TMPDIR counts as unset", "", path("tmpdir").string(), path("tmpdir").string()},
      {"TMPDIR when SQLITE_TMPDIR is unset", std::nullopt, path("tmpdir").string(), path("tmpdir").string()},
      {"an unusable TMPDIR is passed over", std::nullopt, path("nowhere").string(), first_usable},
      {"neither set", std::nullopt, std::nullopt, first_usable},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScopedEnv a("SQLITE_TMPDIR", c.sqlite_tmpdir);
    ScopedEnv b("TMPDIR", c.tmpdir);
    FakeVolumes fake;
    fake.device = {{"/db", 1}, {c.expected, 2}};
    fake.free = {{"/db", 1024 * MiB}, {c.expected, 0}};
    auto seam = fake.install();
    EXPECT_EQ(mq::detail::_disk_shortfall("/db", 0),
              "not enough disk space: 0 MiB free in " + c.expected + ", 64 MiB needed");
    EXPECT_EQ(fake.free_queries, (std::vector<std::string>{"/db", c.expected}));
  }
}

TEST_F(SpaceTest, UnusableDirectoriesOnTheRealFileSystem) {
  // A temporary directory that does not exist: one volume assumed, so the
  // whole requirement lands on the database's directory, and the missing
  // directory's free space is never asked for.
  {
    ScopedEnv tmp("SQLITE_TMPDIR", path("no-such-dir").string());
    const auto free = platform::disk_usage(dir_).free;
    // Fits on two volumes (half the free space each, plus the margin), not
    // on one.
    const std::int64_t used = free / 2 - 16 * MiB;
    const auto text = mq::detail::_disk_shortfall(dir_, used);
    ASSERT_TRUE(text.has_value());
    EXPECT_NE(text->find(" MiB free in " + dir_.string() + ", "), std::string::npos) << *text;
    EXPECT_NE(text->find(std::to_string((2 * used + mq::COMPACT_DISK_MARGIN_BYTES) / MiB) + " MiB needed"),
              std::string::npos)
        << *text;
    EXPECT_EQ(mq::detail::_disk_shortfall(dir_, 0), std::nullopt);
  }
  // A database directory that does not exist: the free-space query fails
  // and its error reaches the caller.
  ScopedEnv tmp("SQLITE_TMPDIR", dir_.string());
  // A bare file name's directory is the working directory.
  EXPECT_EQ(mq::detail::_disk_shortfall("", 0), std::nullopt);
  EXPECT_THROW(mq::detail::_disk_shortfall(path("missing"), 0), FileNotFoundError);
}

}  // namespace
