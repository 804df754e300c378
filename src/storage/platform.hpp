// The two operating-system queries behind space reclamation, behind seams so
// that tests can make them fail or report a nearly full disk.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>

namespace marsk_quorvi::storage::platform {

struct VolumeUsage {
  std::int64_t total = 0;
  std::int64_t used = 0;
  std::int64_t free = 0;  // available to this process, not counting reserved blocks
};

struct FileStatus {
  std::int64_t size = 0;
  std::uint64_t device = 0;
};

using DiskUsageFn = std::function<VolumeUsage(const std::filesystem::path&)>;
using FileStatusFn = std::function<FileStatus(const std::filesystem::path&)>;

// statvfs of the volume holding `directory`; raises OSError (FileNotFoundError
// for a missing path).
VolumeUsage disk_usage(const std::filesystem::path& directory);
// stat of `path`, following symbolic links; raises OSError likewise.
FileStatus file_status(const std::filesystem::path& path);

// Replaces the queries for its lifetime (an empty function keeps the real
// one). Install before the threads that use them start.
class ScopedOverride {
 public:
  ScopedOverride(DiskUsageFn disk_usage, FileStatusFn file_status);
  ~ScopedOverride();
  ScopedOverride(const ScopedOverride&) = delete;
  ScopedOverride& operator=(const ScopedOverride&) = delete;

 private:
  DiskUsageFn saved_disk_;
  FileStatusFn saved_stat_;
};

}  // namespace marsk_quorvi::storage::platform
