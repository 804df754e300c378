// TEMPORARY stand-in for the space measurement and the platform seams, so that
// the schema code links and its tests run on this branch. Removed as soon as
// the real implementation is merged.
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/platform.hpp"

namespace marsk_quorvi::storage {

namespace platform {
namespace {
DiskUsageFn disk_override;
FileStatusFn stat_override;
}  // namespace

VolumeUsage disk_usage(const std::filesystem::path& directory) {
  if (disk_override) return disk_override(directory);
  struct statvfs st{};
  if (::statvfs(directory.c_str(), &st) != 0) {
    const int e = errno;
    if (e == ENOENT) throw FileNotFoundError(std::strerror(e), e);
    throw OSError(std::strerror(e), e);
  }
  const auto frsize = static_cast<std::int64_t>(st.f_frsize);
  return {static_cast<std::int64_t>(st.f_blocks) * frsize,
          static_cast<std::int64_t>(st.f_blocks - st.f_bfree) * frsize,
          static_cast<std::int64_t>(st.f_bavail) * frsize};
}

FileStatus file_status(const std::filesystem::path& path) {
  if (stat_override) return stat_override(path);
  struct stat st{};
  if (::stat(path.c_str(), &st) != 0) {
    const int e = errno;
    if (e == ENOENT) throw FileNotFoundError(std::strerror(e), e);
    throw OSError(std::strerror(e), e);
  }
  return {static_cast<std::int64_t>(st.st_size), static_cast<std::uint64_t>(st.st_dev)};
}

ScopedOverride::ScopedOverride(DiskUsageFn disk_usage, FileStatusFn file_status)
    : saved_disk_(disk_override), saved_stat_(stat_override) {
  if (disk_usage) disk_override = std::move(disk_usage);
  if (file_status) stat_override = std::move(file_status);
}

ScopedOverride::~ScopedOverride() {
  disk_override = saved_disk_;
  stat_override = saved_stat_;
}
}  // namespace platform

_Space Database::_space(Connection& connection) {
  auto pragma = [&](const char* name) {
    return (*connection.execute(std::string("PRAGMA ") + name).fetchone())[0].as_int();
  };
  _Space s;
  s.mode = pragma("auto_vacuum");
  s.pages = pragma("page_count");
  s.free = pragma("freelist_count");
  s.page_size = pragma("page_size");
  return s;
}

bool _same_volume(const std::filesystem::path& first, const std::filesystem::path& second) {
  try {
    return platform::file_status(first).device == platform::file_status(second).device;
  } catch (const OSError&) {
    return true;
  }
}

std::optional<std::string> _disk_shortfall(const std::filesystem::path& db_dir, std::int64_t used_bytes) {
  const char* env = std::getenv("SQLITE_TMPDIR");
  const std::filesystem::path temp_dir =
      env && *env ? std::filesystem::path(env) : std::filesystem::temp_directory_path();
  const std::int64_t each = used_bytes + COMPACT_DISK_MARGIN_BYTES;
  std::vector<std::pair<std::filesystem::path, std::int64_t>> needs;
  if (_same_volume(db_dir, temp_dir)) {
    needs.emplace_back(db_dir, each + used_bytes);
  } else {
    needs.emplace_back(db_dir, each);
    needs.emplace_back(temp_dir, each);
  }
  for (const auto& [dir, needed] : needs) {
    const auto free = platform::disk_usage(dir).free;
    if (free < needed) {
      return "not enough disk space: " + std::to_string(free / _MIB) + " MiB free in " + dir.string() + ", " +
             std::to_string(needed / _MIB) + " MiB needed";
    }
  }
  return std::nullopt;
}

}  // namespace marsk_quorvi::storage
