// A pool of read-only connections to one WAL database file, so that queries
// run beside a write in progress instead of waiting for it.
//
// Thread safety: every member may be called from any thread. A leased
// connection belongs to the lease's thread alone until the lease ends.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "marsk_quorvi/errors.hpp"
#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::storage {

class ReaderPool {
 public:
  // Applied to each read connection when it is opened (the SQL path functions).
  using Configure = std::function<void(Connection&)>;

  // `count`, 1 to 32, bounds the connections open at once. Connections are
  // opened on first need, read-only, each with `configure` applied; nothing is
  // opened here.
  // `busy_timeout_ms` is how long a read connection waits for a lock.
  ReaderPool(std::string path, int count, Configure configure = {}, int busy_timeout_ms = 5000);
  ~ReaderPool();
  ReaderPool(const ReaderPool&) = delete;
  ReaderPool& operator=(const ReaderPool&) = delete;

  // One leased connection; it goes back to the pool when the lease ends, also
  // when it ends by an exception.
  class Lease {
   public:
    Lease(Lease&& other) noexcept : pool_(other.pool_), conn_(other.conn_) { other.pool_ = nullptr; }
    Lease& operator=(Lease&&) = delete;
    ~Lease();
    Connection& connection() const noexcept { return *conn_; }

   private:
    friend class ReaderPool;
    Lease(ReaderPool* pool, Connection* conn) : pool_(pool), conn_(conn) {}
    ReaderPool* pool_;
    Connection* conn_;  // owned by the pool
  };

  // Hands out an idle connection, opening a new one while fewer than `count`
  // are open. When all `count` are leased it waits for one to come back:
  // leases last one query, and a query that waited here is still faster than
  // one sent to the writer connection behind a long write. Raises
  // ReaderUnavailable once the pool is closed, and the OperationalError of a
  // connection that cannot be opened.
  Lease lease();
  // Refuses new leases, waits for the leased connections to come back and
  // closes every connection. May be called more than once.
  void close();
  bool closed() const;
  int size() const noexcept { return count_; }
  // Connections open now (idle or leased).
  int open_connections() const;

 private:
  void give_back(Connection* conn) noexcept;
  // After close(): closes a connection that came back and counts it gone.
  void close_returned(Connection* conn) noexcept;
  Lease open_one(std::unique_lock<std::mutex>& lk);

  const std::string path_;
  const int count_;
  const Configure configure_;
  const int busy_timeout_ms_;
  mutable std::mutex mu_;
  std::condition_variable cv_;
  // The connection given back last. Most leases take it again, and give it
  // back, without the mutex. A connection here counts as idle.
  std::atomic<Connection*> hot_{nullptr};
  std::vector<std::shared_ptr<Connection>> owned_;  // every connection opened; guarded by mu_
  std::vector<Connection*> idle_;                   // guarded by mu_
  int open_ = 0;                                    // not yet closed, leased or idle; guarded by mu_
  // Written under mu_; read without it by the paths that skip the mutex.
  // Each pairs with hot_: a thread stores one and then loads the other, so
  // that of two racing threads at least one sees what the other did.
  std::atomic<int> waiting_{0};  // threads blocked in lease() or close()
  std::atomic<bool> closed_{false};
};

}  // namespace marsk_quorvi::storage
