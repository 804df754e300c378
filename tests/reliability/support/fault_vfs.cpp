#include "reliability/support/fault_vfs.hpp"

#include <sqlite3.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace marsk_quorvi::testing {

namespace {

constexpr const char* kName = "quorvi-fault";

constexpr std::size_t index_of(FaultOp op) { return static_cast<std::size_t>(op); }

// Process-wide, like SQLite's list of VFSes: a connection opened through the
// wrapper keeps pointing at it after the wrapper stops being the default.
struct State {
  sqlite3_vfs* real = nullptr;
  std::atomic<bool> installed{false};
  std::atomic<bool> armed{false};
  std::atomic<int> op{0};
  std::atomic<std::int64_t> nth{0};
  std::atomic<int> error{0};
  std::atomic<bool> persistent{false};
  std::array<std::atomic<std::int64_t>, 5> counts{};  // by FaultOp, `any` last
  std::atomic<std::int64_t> fired{0};
};

State& state() {
  static State s;
  return s;
}

// Counts one operation of `op` and tells whether it has to fail, and with
// which code.
int count_and_check(FaultOp op) {
  State& s = state();
  const std::int64_t of_kind = s.counts[index_of(op)].fetch_add(1) + 1;
  const std::int64_t of_any = s.counts[index_of(FaultOp::any)].fetch_add(1) + 1;
  if (!s.armed.load()) return SQLITE_OK;
  const auto target = static_cast<FaultOp>(s.op.load());
  if (target != FaultOp::any && target != op) return SQLITE_OK;
  const std::int64_t n = target == FaultOp::any ? of_any : of_kind;
  const std::int64_t nth = s.nth.load();
  if (s.persistent.load() ? n < nth : n != nth) return SQLITE_OK;
  s.fired.fetch_add(1);
  return fault_code(op, static_cast<FaultError>(s.error.load()));
}

// ------------------------------------------------------------------ files

// The wrapper's file: SQLite allocates szOsFile bytes, the wrapper's part
// first and the real VFS's file right behind it.
struct FaultFile {
  sqlite3_file base;
  sqlite3_file* real;
};

sqlite3_file* real_of(sqlite3_file* f) { return reinterpret_cast<FaultFile*>(f)->real; }
const sqlite3_io_methods* methods_of(sqlite3_file* f) { return real_of(f)->pMethods; }

int f_close(sqlite3_file* f) {
  sqlite3_file* r = real_of(f);
  return r->pMethods ? r->pMethods->xClose(r) : SQLITE_OK;
}

int f_read(sqlite3_file* f, void* buf, int amount, sqlite3_int64 offset) {
  return methods_of(f)->xRead(real_of(f), buf, amount, offset);
}

int f_write(sqlite3_file* f, const void* buf, int amount, sqlite3_int64 offset) {
  // A failed write writes nothing: the disk refused it.
  if (int rc = count_and_check(FaultOp::write)) return rc;
  return methods_of(f)->xWrite(real_of(f), buf, amount, offset);
}

int f_truncate(sqlite3_file* f, sqlite3_int64 size) {
  if (int rc = count_and_check(FaultOp::truncate)) return rc;
  return methods_of(f)->xTruncate(real_of(f), size);
}

int f_sync(sqlite3_file* f, int flags) {
  if (int rc = count_and_check(FaultOp::sync)) return rc;
  return methods_of(f)->xSync(real_of(f), flags);
}

int f_file_size(sqlite3_file* f, sqlite3_int64* size) { return methods_of(f)->xFileSize(real_of(f), size); }
int f_lock(sqlite3_file* f, int level) { return methods_of(f)->xLock(real_of(f), level); }
int f_unlock(sqlite3_file* f, int level) { return methods_of(f)->xUnlock(real_of(f), level); }
int f_check_reserved_lock(sqlite3_file* f, int* out) { return methods_of(f)->xCheckReservedLock(real_of(f), out); }
int f_file_control(sqlite3_file* f, int op, void* arg) { return methods_of(f)->xFileControl(real_of(f), op, arg); }
int f_sector_size(sqlite3_file* f) { return methods_of(f)->xSectorSize(real_of(f)); }
int f_device_characteristics(sqlite3_file* f) { return methods_of(f)->xDeviceCharacteristics(real_of(f)); }

int f_shm_map(sqlite3_file* f, int region, int size, int extend, void volatile** out) {
  if (methods_of(f)->iVersion < 2) return SQLITE_IOERR_SHMMAP;
  return methods_of(f)->xShmMap(real_of(f), region, size, extend, out);
}
int f_shm_lock(sqlite3_file* f, int offset, int n, int flags) {
  if (methods_of(f)->iVersion < 2) return SQLITE_IOERR_SHMLOCK;
  return methods_of(f)->xShmLock(real_of(f), offset, n, flags);
}
void f_shm_barrier(sqlite3_file* f) {
  if (methods_of(f)->iVersion >= 2) methods_of(f)->xShmBarrier(real_of(f));
}
int f_shm_unmap(sqlite3_file* f, int delete_flag) {
  if (methods_of(f)->iVersion < 2) return SQLITE_OK;
  return methods_of(f)->xShmUnmap(real_of(f), delete_flag);
}
int f_fetch(sqlite3_file* f, sqlite3_int64 offset, int amount, void** out) {
  if (methods_of(f)->iVersion < 3) {
    *out = nullptr;
    return SQLITE_OK;
  }
  return methods_of(f)->xFetch(real_of(f), offset, amount, out);
}
int f_unfetch(sqlite3_file* f, sqlite3_int64 offset, void* p) {
  if (methods_of(f)->iVersion < 3) return SQLITE_OK;
  return methods_of(f)->xUnfetch(real_of(f), offset, p);
}

const sqlite3_io_methods kFileMethods = {
    3,
    f_close,
    f_read,
    f_write,
    f_truncate,
    f_sync,
    f_file_size,
    f_lock,
    f_unlock,
    f_check_reserved_lock,
    f_file_control,
    f_sector_size,
    f_device_characteristics,
    f_shm_map,
    f_shm_lock,
    f_shm_barrier,
    f_shm_unmap,
    f_fetch,
    f_unfetch,
};

// ------------------------------------------------------------------ the VFS

sqlite3_vfs* real_vfs() { return state().real; }

int v_open(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* out_flags) {
  auto* wrapper = reinterpret_cast<FaultFile*>(file);
  wrapper->base.pMethods = nullptr;
  wrapper->real = reinterpret_cast<sqlite3_file*>(wrapper + 1);
  wrapper->real->pMethods = nullptr;
  // A refused open leaves pMethods null, so SQLite does not close it.
  if (int rc = count_and_check(FaultOp::open)) return rc;
  const int rc = real_vfs()->xOpen(real_vfs(), name, wrapper->real, flags, out_flags);
  // The real VFS may set its methods even when it fails; SQLite then closes
  // the file through the wrapper, which passes the close on.
  if (wrapper->real->pMethods != nullptr) wrapper->base.pMethods = &kFileMethods;
  return rc;
}

int v_delete(sqlite3_vfs*, const char* name, int sync_dir) { return real_vfs()->xDelete(real_vfs(), name, sync_dir); }
int v_access(sqlite3_vfs*, const char* name, int flags, int* out) {
  return real_vfs()->xAccess(real_vfs(), name, flags, out);
}
int v_full_pathname(sqlite3_vfs*, const char* name, int n, char* out) {
  return real_vfs()->xFullPathname(real_vfs(), name, n, out);
}
void* v_dl_open(sqlite3_vfs*, const char* name) { return real_vfs()->xDlOpen(real_vfs(), name); }
void v_dl_error(sqlite3_vfs*, int n, char* out) { real_vfs()->xDlError(real_vfs(), n, out); }
void (*v_dl_sym(sqlite3_vfs*, void* handle, const char* symbol))(void) {
  return real_vfs()->xDlSym(real_vfs(), handle, symbol);
}
void v_dl_close(sqlite3_vfs*, void* handle) { real_vfs()->xDlClose(real_vfs(), handle); }
int v_randomness(sqlite3_vfs*, int n, char* out) { return real_vfs()->xRandomness(real_vfs(), n, out); }
int v_sleep(sqlite3_vfs*, int micros) { return real_vfs()->xSleep(real_vfs(), micros); }
int v_current_time(sqlite3_vfs*, double* out) { return real_vfs()->xCurrentTime(real_vfs(), out); }
int v_get_last_error(sqlite3_vfs*, int n, char* out) {
  return real_vfs()->xGetLastError ? real_vfs()->xGetLastError(real_vfs(), n, out) : 0;
}
int v_current_time_int64(sqlite3_vfs*, sqlite3_int64* out) {
  return real_vfs()->xCurrentTimeInt64(real_vfs(), out);
}
int v_set_system_call(sqlite3_vfs*, const char* name, sqlite3_syscall_ptr call) {
  return real_vfs()->xSetSystemCall(real_vfs(), name, call);
}
sqlite3_syscall_ptr v_get_system_call(sqlite3_vfs*, const char* name) {
  return real_vfs()->xGetSystemCall(real_vfs(), name);
}
const char* v_next_system_call(sqlite3_vfs*, const char* name) {
  return real_vfs()->xNextSystemCall(real_vfs(), name);
}

sqlite3_vfs& wrapper_vfs() {
  static sqlite3_vfs vfs = [] {
    sqlite3_vfs v{};
    v.iVersion = 3;
    v.szOsFile = static_cast<int>(sizeof(FaultFile)) + real_vfs()->szOsFile;
    v.mxPathname = real_vfs()->mxPathname;
    v.zName = kName;
    v.xOpen = v_open;
    v.xDelete = v_delete;
    v.xAccess = v_access;
    v.xFullPathname = v_full_pathname;
    v.xDlOpen = v_dl_open;
    v.xDlError = v_dl_error;
    v.xDlSym = v_dl_sym;
    v.xDlClose = v_dl_close;
    v.xRandomness = v_randomness;
    v.xSleep = v_sleep;
    v.xCurrentTime = v_current_time;
    v.xGetLastError = v_get_last_error;
    v.xCurrentTimeInt64 = v_current_time_int64;
    v.xSetSystemCall = v_set_system_call;
    v.xGetSystemCall = v_get_system_call;
    v.xNextSystemCall = v_next_system_call;
    return v;
  }();
  return vfs;
}

}  // namespace

std::string to_string(FaultOp op) {
  switch (op) {
    case FaultOp::write:
      return "write";
    case FaultOp::sync:
      return "sync";
    case FaultOp::truncate:
      return "truncate";
    case FaultOp::open:
      return "open";
    case FaultOp::any:
      return "any";
  }
  return "?";
}

std::string to_string(const Fault& fault) {
  return to_string(fault.op) + " #" + std::to_string(fault.nth) +
         (fault.error == FaultError::full ? " disk full" : " I/O error") +
         (fault.persistent ? " from then on" : " once");
}

int fault_code(FaultOp op, FaultError error) {
  if (error == FaultError::full) return SQLITE_FULL;
  switch (op) {
    case FaultOp::write:
      return SQLITE_IOERR_WRITE;
    case FaultOp::sync:
      return SQLITE_IOERR_FSYNC;
    case FaultOp::truncate:
      return SQLITE_IOERR_TRUNCATE;
    case FaultOp::open:
      return SQLITE_CANTOPEN;
    case FaultOp::any:
      break;
  }
  return SQLITE_IOERR;
}

FaultVfs::FaultVfs() {
  State& s = state();
  if (s.installed.exchange(true)) throw std::logic_error("a FaultVfs is installed already");
  sqlite3_initialize();
  sqlite3_vfs* current = sqlite3_vfs_find(nullptr);
  // The first install picks the VFS to wrap; later ones wrap the same.
  if (s.real == nullptr) s.real = current;
  disarm();
  reset_counts();
  sqlite3_vfs_register(&wrapper_vfs(), 1);
}

FaultVfs::~FaultVfs() {
  State& s = state();
  disarm();
  sqlite3_vfs_unregister(&wrapper_vfs());
  sqlite3_vfs_register(s.real, 1);
  s.installed.store(false);
}

void FaultVfs::arm(const Fault& fault) {
  State& s = state();
  s.armed.store(false);
  reset_counts();
  s.fired.store(0);
  s.op.store(static_cast<int>(fault.op));
  s.nth.store(fault.nth);
  s.error.store(static_cast<int>(fault.error));
  s.persistent.store(fault.persistent);
  s.armed.store(true);
}

void FaultVfs::disarm() { state().armed.store(false); }

void FaultVfs::reset_counts() {
  for (auto& c : state().counts) c.store(0);
}

std::int64_t FaultVfs::count(FaultOp op) const { return state().counts[index_of(op)].load(); }

std::int64_t FaultVfs::fired() const { return state().fired.load(); }

const char* FaultVfs::name() { return kName; }

}  // namespace marsk_quorvi::testing
