// A SQLite VFS that wraps the default one and fails a chosen operation: the
// way to prove that no failing write, sync, truncate or open ever leaves an
// index file partial or corrupt.
//
// While a `FaultVfs` lives it is SQLite's default VFS, so every connection
// opened meanwhile (the writer, the read pool, an attached staging file, the
// journals, write-ahead logs and temporary files they open) goes through it.
// It counts the operations of each kind and, once armed, fails the Nth one
// of a kind (or of any kind) with the I/O error SQLite's own Unix VFS would
// report for it, or with a full disk, once or from then on until disarmed.
//
// Thread safety: the counters and the armed fault are atomics; connections on
// several threads may use the VFS at once. Arm and disarm between
// operations, not during one.
#pragma once

#include <cstdint>
#include <string>

namespace marsk_quorvi::testing {

// The operations the VFS counts and can fail. `any` arms a fault on the Nth
// operation whatever its kind.
enum class FaultOp { write, sync, truncate, open, any };

// What the failing operation reports: the kind's own I/O error
// (SQLITE_IOERR_WRITE, SQLITE_IOERR_FSYNC, SQLITE_IOERR_TRUNCATE, and
// SQLITE_CANTOPEN for an open) or SQLITE_FULL.
enum class FaultError { io, full };

struct Fault {
  FaultOp op = FaultOp::write;
  std::int64_t nth = 1;  // 1 is the first operation of that kind after arming
  FaultError error = FaultError::io;
  // Once: only the Nth operation fails. Persistent: the Nth and every later
  // one of that kind, as a disk that has died or filled up.
  bool persistent = false;
};

std::string to_string(FaultOp op);
std::string to_string(const Fault& fault);

// The result code a fault of `error` reports for an operation of `op`.
int fault_code(FaultOp op, FaultError error);

class FaultVfs {
 public:
  // Registers the wrapper as the default VFS. One at a time per process.
  FaultVfs();
  // Restores the previous default. Connections still open keep working:
  // the wrapper itself stays in memory for the life of the process.
  ~FaultVfs();
  FaultVfs(const FaultVfs&) = delete;
  FaultVfs& operator=(const FaultVfs&) = delete;

  // Resets the counts and arms `fault`.
  void arm(const Fault& fault);
  // No operation fails any more; the counts go on.
  void disarm();
  void reset_counts();

  // Operations of `op` (every counted one for `any`) since the last arm or reset.
  std::int64_t count(FaultOp op) const;
  // Operations failed since the last arm.
  std::int64_t fired() const;

  // The registered name of the wrapper.
  static const char* name();
};

}  // namespace marsk_quorvi::testing
