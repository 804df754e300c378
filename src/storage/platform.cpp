// The operating-system queries behind space reclamation, and the seams by
// which tests replace them.
#include "platform.hpp"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>

#include "marsk_quorvi/errors.hpp"

namespace marsk_quorvi {

void raise_os_error(int error_number, const std::filesystem::path& path) {
  const std::string message =
      "[Errno " + std::to_string(error_number) + "] " + std::strerror(error_number) + ": '" + path.string() + "'";
  if (error_number == ENOENT) throw FileNotFoundError(message, error_number, path);
  throw OSError(message, error_number, path);
}

}  // namespace marsk_quorvi

namespace marsk_quorvi::storage::platform {

namespace {

VolumeUsage real_disk_usage(const std::filesystem::path& directory) {
  struct statvfs st {};
  if (::statvfs(directory.c_str(), &st) != 0) raise_os_error(errno, directory);
  const auto unit = static_cast<std::int64_t>(st.f_frsize);
  VolumeUsage usage;
  usage.total = static_cast<std::int64_t>(st.f_blocks) * unit;
  usage.used = static_cast<std::int64_t>(st.f_blocks - st.f_bfree) * unit;
  // f_bavail leaves out the blocks reserved for the superuser: what this
  // process can actually write.
  usage.free = static_cast<std::int64_t>(st.f_bavail) * unit;
  return usage;
}

FileStatus real_file_status(const std::filesystem::path& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) raise_os_error(errno, path);
  return FileStatus{static_cast<std::int64_t>(st.st_size), static_cast<std::uint64_t>(st.st_dev)};
}

// The queries in force. Overrides are installed before the threads that use
// them start; the mutex only keeps a late install from tearing a function
// another thread is copying.
struct Seams {
  std::mutex mu;
  DiskUsageFn disk = real_disk_usage;
  FileStatusFn stat = real_file_status;
};

Seams& seams() {
  static Seams s;
  return s;
}

}  // namespace

VolumeUsage disk_usage(const std::filesystem::path& directory) {
  DiskUsageFn fn;
  {
    std::lock_guard lock(seams().mu);
    fn = seams().disk;
  }
  return fn(directory);
}

FileStatus file_status(const std::filesystem::path& path) {
  FileStatusFn fn;
  {
    std::lock_guard lock(seams().mu);
    fn = seams().stat;
  }
  return fn(path);
}

ScopedOverride::ScopedOverride(DiskUsageFn disk_usage, FileStatusFn file_status) {
  std::lock_guard lock(seams().mu);
  saved_disk_ = seams().disk;
  saved_stat_ = seams().stat;
  if (disk_usage) seams().disk = std::move(disk_usage);
  if (file_status) seams().stat = std::move(file_status);
}

ScopedOverride::~ScopedOverride() {
  std::lock_guard lock(seams().mu);
  seams().disk = std::move(saved_disk_);
  seams().stat = std::move(saved_stat_);
}

}  // namespace marsk_quorvi::storage::platform
