// A SQLite VFS over the default one that fails a chosen operation. While a
// `FaultVfs` lives it is the default, so every file opened meanwhile (journals,
// logs and temporary files too) goes through it: it counts the operations of
// each kind and, once armed, fails the Nth of a kind (or of any kind) with the
// error SQLite's own VFS would report for it, or with a full disk, once or
// from then on. The counters are atomics, for connections on several threads.
#pragma once

#include <sqlite3.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
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

class FaultVfs {
 public:
  FaultVfs() {
    // Connections opened through it keep using it after it stops being the
    // default, so it lives as long as the process.
    static sqlite3_vfs* const real = sqlite3_vfs_find(nullptr);
    static sqlite3_vfs vfs = [] {
      sqlite3_vfs v = *real;
      v.zName = "quorvi-fault";
      v.pNext = nullptr;
      v.xOpen = [](sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* out) {
        file->pMethods = nullptr;  // a refused open is not closed
        if (const int rc = check(FaultOp::open)) return rc;
        const int rc = real->xOpen(real, name, file, flags, out);
        if (file->pMethods != nullptr) file->pMethods = patched(file->pMethods);
        return rc;
      };
      v.xDelete = [](sqlite3_vfs*, const char* name, int sync_dir) {
        const int rc = check(FaultOp::remove);
        return rc ? rc : real->xDelete(real, name, sync_dir);
      };
      return v;
    }();
    real_ = real;
    sqlite3_vfs_register(&vfs, 1);
  }
  ~FaultVfs() {
    disarm();
    sqlite3_vfs_unregister(sqlite3_vfs_find("quorvi-fault"));
    sqlite3_vfs_register(real_, 1);
  }
  FaultVfs(const FaultVfs&) = delete;
  FaultVfs& operator=(const FaultVfs&) = delete;

  // Resets the counts and arms `fault`.
  void arm(const Fault& fault) {
    disarm();
    for (auto& c : counts_) c = 0;
    fired_ = 0;
    fault_ = fault;
    armed_ = true;
  }
  void disarm() { armed_ = false; }
  // Operations of `op` since the last arm, and those failed.
  std::int64_t count(FaultOp op) const { return counts_[static_cast<int>(op)]; }
  std::int64_t fired() const { return fired_; }

 private:
  static inline sqlite3_vfs* real_ = nullptr;
  static inline std::atomic<bool> armed_{false};
  static inline Fault fault_;  // written only while disarmed
  static inline std::array<std::atomic<std::int64_t>, 7> counts_{};
  static inline std::atomic<std::int64_t> fired_{0};

  static int check(FaultOp op) {
    const std::int64_t of_kind = ++counts_[static_cast<int>(op)];
    const std::int64_t of_any = ++counts_[static_cast<int>(FaultOp::any)];
    if (!armed_ || (fault_.op != FaultOp::any && fault_.op != op)) return SQLITE_OK;
    const std::int64_t n = fault_.op == FaultOp::any ? of_any : of_kind;
    if (fault_.persistent ? n < fault_.nth : n != fault_.nth) return SQLITE_OK;
    ++fired_;
    static const int codes[] = {SQLITE_IOERR_WRITE, SQLITE_IOERR_FSYNC, SQLITE_IOERR_TRUNCATE, SQLITE_CANTOPEN,
                                SQLITE_IOERR_READ,  SQLITE_IOERR_DELETE, SQLITE_IOERR};
    return fault_.error == FaultError::full ? SQLITE_FULL : codes[static_cast<int>(op)];
  }

  // A file keeps the real VFS's state; only its method table is swapped for a
  // copy whose read, write, truncate and sync count first (a failed write
  // writes nothing). The copy leads with the table, so a file's methods lead
  // back to the real ones.
  struct Patched {
    sqlite3_io_methods methods;
    const sqlite3_io_methods* real;
  };
  template <FaultOp Op, auto Method, class... Args>
  static int counted(sqlite3_file* f, Args... args) {
    const int rc = check(Op);
    return rc ? rc : (reinterpret_cast<const Patched*>(f->pMethods)->real->*Method)(f, args...);
  }
  static const sqlite3_io_methods* patched(const sqlite3_io_methods* real) {
    static std::mutex mu;
    static std::map<const sqlite3_io_methods*, std::unique_ptr<Patched>> tables;
    std::lock_guard lock(mu);
    auto& p = tables[real];
    if (!p) {
      p = std::make_unique<Patched>(Patched{*real, real});
      p->methods.xRead = counted<FaultOp::read, &sqlite3_io_methods::xRead, void*, int, sqlite3_int64>;
      p->methods.xWrite = counted<FaultOp::write, &sqlite3_io_methods::xWrite, const void*, int, sqlite3_int64>;
      p->methods.xTruncate = counted<FaultOp::truncate, &sqlite3_io_methods::xTruncate, sqlite3_int64>;
      p->methods.xSync = counted<FaultOp::sync, &sqlite3_io_methods::xSync, int>;
    }
    return &p->methods;
  }
};

}  // namespace marsk_quorvi::testing
