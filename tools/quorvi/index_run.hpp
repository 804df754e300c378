// One `index` run's claim on an index file: the lock that keeps a second
// run out, the run's own staging file name, and the signal handlers that
// clean up when the run is interrupted.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace marsk_quorvi::cli {

// How long a second run waits for the lock: QUORVI_DB_LOCK_WAIT_MS
// (milliseconds), 5000 when unset or not a whole number.
std::chrono::milliseconds lock_wait();

// Another run held the lock past the wait.
class IndexLocked : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// While it lives: an exclusive advisory lock (flock) on `<index>.lock`,
// which holds this process's pid as text for the message of a run that
// waits; a staging file name of this run's own (`<index>.staging-<pid>-<random>`),
// reserved on disk; and handlers for SIGINT and SIGTERM that remove the
// staging file, end the ctags children and exit with 128 + the signal.
// Taking the lock removes the staging files of runs that were killed.
class IndexRun {
 public:
  // Raises IndexLocked after waiting `wait` for another run, OSError when
  // the lock file cannot be opened (a folder the user may not write, a
  // symbolic link in its place).
  IndexRun(const std::filesystem::path& db_path, std::chrono::milliseconds wait);
  ~IndexRun();  // removes the staging file and the handlers; the lock goes with the descriptor
  IndexRun(const IndexRun&) = delete;
  IndexRun& operator=(const IndexRun&) = delete;

  const std::filesystem::path& staging() const noexcept { return staging_; }
  // Staging files of killed runs that this run removed.
  int leftovers_removed() const noexcept { return leftovers_; }

 private:
  int fd_ = -1;
  std::filesystem::path staging_;
  int leftovers_ = 0;
};

}  // namespace marsk_quorvi::cli
