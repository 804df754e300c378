// A SQLite VFS over the default one that fails a chosen operation, to prove
// that no failing read, write, sync, truncate, open or delete ever leaves an
// index file partial or corrupt.
//
// While a `FaultVfs` lives it is SQLite's default VFS, so every file opened
// meanwhile (databases, journals, write-ahead logs, temporary files) goes
// through it. It counts the operations of each kind and, once armed, fails the
// Nth one of a kind (or of any kind) with the error SQLite's Unix VFS would
// report for it, or with a full disk, once or from then on until disarmed.
// Counters are atomics: connections on several threads may use it at once.
#pragma once

#include <sqlite3.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

namespace marsk_quorvi::testing {

enum class FaultOp { write, sync, truncate, open, read, remove, any };
enum class FaultError { io, full };

struct Fault {
  FaultOp op = FaultOp::write;
  std::int64_t nth = 1;  // 1 is the first operation of that kind after arming
  FaultError error = FaultError::io;
  bool persistent = false;  // the Nth and every later one, as a disk that died or filled up
};

inline std::string to_string(const Fault& f) {
  static const char* const names[] = {"write", "sync", "truncate", "open", "read", "delete", "any"};
  return std::string(names[static_cast<int>(f.op)]) + " #" + std::to_string(f.nth) +
         (f.error == FaultError::full ? " disk full" : " I/O error") + (f.persistent ? " from then on" : " once");
}

inline int fault_code(FaultOp op, FaultError error) {
  static const int codes[] = {SQLITE_IOERR_WRITE, SQLITE_IOERR_FSYNC, SQLITE_IOERR_TRUNCATE, SQLITE_CANTOPEN,
                              SQLITE_IOERR_READ,  SQLITE_IOERR_DELETE, SQLITE_IOERR};
  return error == FaultError::full ? SQLITE_FULL : codes[static_cast<int>(op)];
}

class FaultVfs {
 public:
  FaultVfs() {
    if (s().installed.exchange(true)) throw std::logic_error("a FaultVfs is installed already");
    sqlite3_initialize();
    // Connections opened through the wrapper keep pointing at it after it
    // stops being the default: it and what it wraps live as long as the process.
    static sqlite3_vfs* const real = sqlite3_vfs_find(nullptr);
    static sqlite3_vfs vfs = [] {
      sqlite3_vfs v = *real;
      v.zName = "quorvi-fault";
      v.pNext = nullptr;
      v.xOpen = [](sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* out) {
        file->pMethods = nullptr;  // a refused open is not closed
        if (int rc = check(FaultOp::open)) return rc;
        const int rc = real->xOpen(real, name, file, flags, out);
        if (file->pMethods != nullptr) file->pMethods = patched(file->pMethods);
        return rc;
      };
      v.xDelete = [](sqlite3_vfs*, const char* name, int sync_dir) {
        if (int rc = check(FaultOp::remove)) return rc;
        return real->xDelete(real, name, sync_dir);
      };
      return v;
    }();
    disarm();
    reset_counts();
    s().real = real;
    sqlite3_vfs_register(&vfs, 1);
    s().vfs = &vfs;
  }
  ~FaultVfs() {
    disarm();
    sqlite3_vfs_unregister(s().vfs);
    sqlite3_vfs_register(s().real, 1);
    s().installed = false;
  }
  FaultVfs(const FaultVfs&) = delete;
  FaultVfs& operator=(const FaultVfs&) = delete;

  // Resets the counts and arms `fault`.
  void arm(const Fault& fault) {
    s().armed = false;
    reset_counts();
    s().fired = 0;
    s().fault = fault;
    s().armed = true;
  }
  void disarm() { s().armed = false; }
  void reset_counts() {
    for (auto& c : s().counts) c = 0;
  }
  std::int64_t count(FaultOp op) const { return s().counts[static_cast<int>(op)]; }
  std::int64_t fired() const { return s().fired; }
  static const char* name() { return "quorvi-fault"; }

 private:
  struct State {
    sqlite3_vfs* real = nullptr;
    sqlite3_vfs* vfs = nullptr;
    std::atomic<bool> installed{false}, armed{false};
    Fault fault;  // written only while disarmed
    std::array<std::atomic<std::int64_t>, 7> counts{};
    std::atomic<std::int64_t> fired{0};
  };
  static State& s() {
    static State state;
    return state;
  }

  // Counts one operation and tells whether it fails, with which code.
  static int check(FaultOp op) {
    const std::int64_t of_kind = ++s().counts[static_cast<int>(op)];
    const std::int64_t of_any = ++s().counts[static_cast<int>(FaultOp::any)];
    if (!s().armed) return SQLITE_OK;
    const Fault& f = s().fault;
    if (f.op != FaultOp::any && f.op != op) return SQLITE_OK;
    const std::int64_t n = f.op == FaultOp::any ? of_any : of_kind;
    if (f.persistent ? n < f.nth : n != f.nth) return SQLITE_OK;
    ++s().fired;
    return fault_code(op, f.error);
  }

  // The real file keeps its own state; only its method table is swapped for
  // a copy whose read, write, truncate and sync count first. The copy starts
  // with the table, so a file's methods lead back to the real ones.
  struct Patched {
    sqlite3_io_methods methods;
    const sqlite3_io_methods* real;
  };
  static const sqlite3_io_methods* real_of(sqlite3_file* f) { return reinterpret_cast<const Patched*>(f->pMethods)->real; }
  static const sqlite3_io_methods* patched(const sqlite3_io_methods* real) {
    static std::mutex mu;
    static std::map<const sqlite3_io_methods*, std::unique_ptr<Patched>> tables;
    std::lock_guard lock(mu);
    auto& p = tables[real];
    if (!p) {
      p = std::make_unique<Patched>(Patched{*real, real});
      p->methods.xRead = [](sqlite3_file* f, void* buf, int n, sqlite3_int64 at) {
        const int rc = check(FaultOp::read);
        return rc ? rc : real_of(f)->xRead(f, buf, n, at);
      };
      // A failed write writes nothing: the disk refused it.
      p->methods.xWrite = [](sqlite3_file* f, const void* buf, int n, sqlite3_int64 at) {
        const int rc = check(FaultOp::write);
        return rc ? rc : real_of(f)->xWrite(f, buf, n, at);
      };
      p->methods.xTruncate = [](sqlite3_file* f, sqlite3_int64 size) {
        const int rc = check(FaultOp::truncate);
        return rc ? rc : real_of(f)->xTruncate(f, size);
      };
      p->methods.xSync = [](sqlite3_file* f, int flags) {
        const int rc = check(FaultOp::sync);
        return rc ? rc : real_of(f)->xSync(f, flags);
      };
    }
    return &p->methods;
  }
};

}  // namespace marsk_quorvi::testing
