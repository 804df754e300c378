// Space reclamation: how much of the file is in use, whether the disk holds a
// rewrite, releasing free pages in short steps, and the one-time conversion
// of a file made without auto-vacuum.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "database_impl.hpp"
#include "log.hpp"
#include "platform.hpp"

namespace marsk_quorvi::storage::detail {

namespace {

using Clock = std::chrono::steady_clock;

// The connection lock does not queue its waiters: a thread that releases it
// and takes it again at once nearly always wins against a writer the release
// has only just woken. The compaction steps aside this long between steps so
// that a waiting writer gets its turn after one step, not after the last.
constexpr auto kPauseBetweenSteps = std::chrono::milliseconds(1);

double seconds_since(Clock::time_point started) {
  return std::chrono::duration<double>(Clock::now() - started).count();
}


bool usable_directory(const char* dir) {
  if (dir == nullptr || *dir == '\0') return false;
  std::error_code ec;
  return std::filesystem::is_directory(dir, ec) && ::access(dir, W_OK | X_OK) == 0;
}

// Where SQLite on Unix puts its temporary files when SQLITE_TMPDIR is not
// set: the same candidates in the same order (note /var/tmp before /tmp), so
// that the disk check looks at the volume the VACUUM will actually fill.
std::filesystem::path system_temp_dir() {
  const char* candidates[] = {std::getenv("TMPDIR"), "/var/tmp", "/usr/tmp", "/tmp"};
  for (const char* candidate : candidates) {
    if (usable_directory(candidate)) return candidate;
  }
  return ".";
}

std::filesystem::path sqlite_temp_dir() {
  const char* configured = std::getenv("SQLITE_TMPDIR");
  if (configured != nullptr && *configured != '\0') return configured;
  return system_temp_dir();
}

std::int64_t size_on_disk(const std::filesystem::path& path) { return platform::file_status(path).size; }

}  // namespace

std::int64_t pragma_int(Connection& connection, const std::string& name) {
  auto cursor = connection.execute("PRAGMA " + name);
  auto row = cursor.fetchone();
  cursor.close();
  if (!row) throw Error("PRAGMA " + name + " returned no row");
  return (*row)[0].as_int();
}

// ------------------------------------------------------------------ measurement

Space DatabaseImpl::_space(Connection& connection) {
  // SQLite answers "PRAGMA auto_vacuum" from what it cached when this
  // connection last read the header, without reading the file; another
  // process may have rewritten the file since. A statement that reads the
  // header first makes the mode current.
  pragma_int(connection, "schema_version");
  Space space;
  space.mode = pragma_int(connection, "auto_vacuum");
  space.pages = pragma_int(connection, "page_count");
  space.free = pragma_int(connection, "freelist_count");
  space.page_size = pragma_int(connection, "page_size");
  return space;
}

PageCounts DatabaseImpl::page_counts() {
  std::lock_guard lock(_lock);
  const Space space = _space(*connection());
  return PageCounts{space.page_size, space.pages, space.free};
}

bool _same_volume(const std::filesystem::path& first, const std::filesystem::path& second) {
  try {
    const auto a = platform::file_status(first);
    const auto b = platform::file_status(second);
    return a.device == b.device;
  } catch (const OSError&) {
    // Unknown counts as one volume: the case that asks the most of the
    // database's volume.
    return true;
  }
}

std::optional<std::string> _disk_shortfall(const std::filesystem::path& db_dir_given, std::int64_t used_bytes) {
  // The parent of a bare file name is empty: the file is in the working
  // directory.
  const auto db_dir = db_dir_given.empty() ? std::filesystem::path(".") : db_dir_given;
  const auto temp_dir = sqlite_temp_dir();
  const std::int64_t each = used_bytes + COMPACT_DISK_MARGIN_BYTES;
  std::vector<std::pair<std::filesystem::path, std::int64_t>> needs;
  if (_same_volume(db_dir, temp_dir)) {
    // The temporary copy and the write-ahead log copy land on one volume.
    needs.emplace_back(db_dir, each + used_bytes);
  } else {
    needs.emplace_back(db_dir, each);
    needs.emplace_back(temp_dir, each);
  }
  for (const auto& [directory, needed] : needs) {
    const std::int64_t free = platform::disk_usage(directory).free;
    if (free < needed) {
      return "not enough disk space: " + std::to_string(free / kMiB) + " MiB free in " + directory.string() + ", " +
             std::to_string(needed / kMiB) + " MiB needed";
    }
  }
  return std::nullopt;
}

// ------------------------------------------------------------------ compaction

Compaction DatabaseImpl::compact() {
  _require_writable();
  try {
    return _compact();
  } catch (const QuorviError& e) {
    return _skip_compaction("failed", std::string("failed: ") + e.what(), spdlog::level::warn, true);
  }
}

Compaction DatabaseImpl::_compact() {
  if (_on_event_loop()) return _skip_compaction("loop", "called on the event loop: a pool thread compacts");

  Space space;
  {
    std::lock_guard lock(_lock);
    auto connection = _connection.load();
    if (!connection) return _skip_compaction("closed", "the database is closed");
    if (_tx_depth > 0) return _skip_compaction("transaction", "called inside a transaction");
    space = _space(*connection);
  }

  if (space.free < COMPACT_MIN_FREE_PAGES ||
      static_cast<double>(space.free) < static_cast<double>(space.pages) * COMPACT_MIN_FREE_RATIO) {
    return Compaction{};
  }
  if (space.mode == kAutoVacuumNone) return _convert_to_incremental(space);

  const auto started = Clock::now();
  const std::int64_t size_before = size_on_disk(db_path);
  const std::int64_t released = _release_free_pages();
  {
    std::lock_guard lock(_lock);
    if (auto connection = _connection.load()) _shrink_file(*connection);
  }
  if (released != 0) {
    log(spdlog::level::info, "Compacted %s: %d free pages released (%d -> %d MiB) in %.1fs", db_path.string(),
                released, size_before / kMiB, size_on_disk(db_path) / kMiB, seconds_since(started));
  }
  return Compaction{false, released, std::nullopt};
}

std::int64_t DatabaseImpl::_release_free_pages() {
  static const std::string step = "PRAGMA incremental_vacuum(" + std::to_string(COMPACT_STEP_PAGES) + ")";
  std::int64_t released = 0;
  for (;;) {
    std::int64_t free = 0;
    std::int64_t remaining = 0;
    {
      // One bounded step per lock scope: a writer waits for one step at most.
      std::lock_guard lock(_lock);
      auto connection = _connection.load();
      if (!connection) break;
      free = pragma_int(*connection, "freelist_count");
      if (free == 0) break;
      // The pragma frees pages while it is stepped; run it to the end here
      // so the whole step is done before the lock is released.
      auto cursor = connection->execute(step);
      cursor.fetchall();
      cursor.close();
      remaining = pragma_int(*connection, "freelist_count");
    }
    // Nothing freed: the file is not in incremental mode, or writers free
    // pages as fast as the steps release them.
    if (remaining >= free) break;
    released += free - remaining;
    std::this_thread::sleep_for(kPauseBetweenSteps);
  }
  return released;
}

void DatabaseImpl::_shrink_file(Connection& connection) {
  auto cursor = connection.execute("PRAGMA wal_checkpoint(TRUNCATE)");
  auto row = cursor.fetchone();
  cursor.close();
  if (row && (*row)[0].as_int() != 0) {
    log(spdlog::level::info,
                "Compaction of %s: a reader still uses an older snapshot, so the file shrinks at a later checkpoint",
                db_path.string());
  }
}

Compaction DatabaseImpl::_skip_compaction(const std::string& kind, const std::string& reason,
                                      spdlog::level::level_enum level, bool exc_info) {
  bool first;
  {
    std::lock_guard noted(_compaction_noted_mu);
    first = _compaction_noted.insert(kind).second;
  }
  const auto at = first ? level : spdlog::level::debug;
  if (exc_info) {
    if (database_logger()->should_log(at)) {
      log(at, "Compaction of %s skipped: %s\n%s", db_path.string(), reason,
                  describe_exception(std::current_exception()));
    }
  } else {
    log(at, "Compaction of %s skipped: %s", db_path.string(), reason);
  }
  return Compaction{false, 0, reason};
}

// ------------------------------------------------------------------ conversion

Compaction DatabaseImpl::_convert_to_incremental(const Space& space) {
  if (_conversion_failed.load()) {
    return _skip_compaction("failed", "an earlier conversion failed or changed nothing: not retried");
  }
  const std::int64_t used = (space.pages - space.free) * space.page_size;
  if (used > COMPACT_CONVERT_MAX_BYTES) {
    // Judged again at every compaction: the data may shrink below the limit.
    return _skip_compaction("large", "too large to convert in place: " + std::to_string(used / kMiB) +
                                         " MiB of data, the limit is " +
                                         std::to_string(COMPACT_CONVERT_MAX_BYTES / kMiB) +
                                         " MiB; its free pages stay until the index file is rebuilt");
  }
  // Without a read pool every query runs on the writer connection and would
  // wait for the whole rewrite.
  if (!_readers.load()) {
    return _skip_compaction("readers", "no read connections: a query would wait for the lock the conversion holds");
  }
  if (auto shortfall = _disk_shortfall(db_path.parent_path(), used)) return _skip_compaction("disk", *shortfall);

  const auto started = Clock::now();
  const std::int64_t size_before = size_on_disk(db_path);
  Space after;
  try {
    // The whole rewrite holds the writer; queries go on on the read pool.
    std::lock_guard lock(_lock);
    auto connection = _connection.load();
    if (!connection) return _skip_compaction("closed", "the database is closed");
    // Another thread or process may have converted it since it was measured.
    if (_space(*connection).mode != kAutoVacuumNone) return Compaction{};
    _vacuum(*connection);
    _shrink_file(*connection);
    after = _space(*connection);
  } catch (const QuorviError&) {
    _conversion_failed.store(true);
    throw;
  }

  if (after.mode != kAutoVacuumIncremental) {
    _conversion_failed.store(true);
    return _skip_compaction("failed", "the file was rewritten but is not in incremental auto-vacuum mode");
  }
  const std::int64_t released = space.pages - after.pages;
  log(spdlog::level::info,
              "Converted %s to incremental auto-vacuum: %d free pages released (%d -> %d MiB) in %.1fs",
              db_path.string(), released, size_before / kMiB, size_on_disk(db_path) / kMiB, seconds_since(started));
  return Compaction{true, released, std::nullopt};
}

void DatabaseImpl::_vacuum(Connection& connection) {
  // The mode reaches an existing file only through the rewrite that follows.
  connection.execute("PRAGMA auto_vacuum=INCREMENTAL").close();
  connection.execute("VACUUM").close();
}

}  // namespace marsk_quorvi::storage::detail
