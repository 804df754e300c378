#include "reader_pool.hpp"

#include "log.hpp"

namespace marsk_quorvi::storage {

ReaderPool::ReaderPool(std::string path, int count, Configure configure, int busy_timeout_ms)
    : path_(std::move(path)),
      count_(count < 1 ? 1 : count),
      configure_(std::move(configure)),
      busy_timeout_ms_(busy_timeout_ms) {}

ReaderPool::~ReaderPool() {
  try {
    close();
  } catch (...) {
    detail::log_swallowed("closing the read pool");
  }
}

ReaderPool::Lease::~Lease() {
  if (pool_) pool_->give_back(conn_);
}

ReaderPool::Lease ReaderPool::lease() {
  if (Connection* conn = hot_.exchange(nullptr)) {
    if (!closed_.load()) return Lease(this, conn);
    give_back(conn);  // the pool closed meanwhile: it closes there
    throw ReaderUnavailable("the read pool is closed");
  }
  std::unique_lock lk(mu_);
  for (;;) {
    if (closed_.load()) throw ReaderUnavailable("the read pool is closed");
    if (Connection* conn = hot_.exchange(nullptr)) return Lease(this, conn);
    if (!idle_.empty()) {
      Connection* conn = idle_.back();
      idle_.pop_back();
      return Lease(this, conn);
    }
    if (open_ < count_) return open_one(lk);
    // Counted before the last look at hot_: a give_back that skips the mutex
    // then sees a waiter and wakes it.
    ++waiting_;
    if (hot_.load() == nullptr) cv_.wait(lk);
    --waiting_;
  }
}

ReaderPool::Lease ReaderPool::open_one(std::unique_lock<std::mutex>& lk) {
  // Opened outside the mutex: other leases should not wait for a file open.
  ++open_;
  lk.unlock();
  std::shared_ptr<Connection> conn;
  try {
    Connection::Options options;
    options.readonly = true;
    options.serialized = false;  // one thread at a time, by lease
    options.busy_timeout_ms = busy_timeout_ms_;
    conn = Connection::open(path_, options);
    if (configure_) configure_(*conn);
  } catch (...) {
    lk.lock();
    --open_;
    lk.unlock();
    cv_.notify_all();
    throw;
  }
  lk.lock();
  owned_.push_back(conn);
  return Lease(this, conn.get());
}

void ReaderPool::give_back(Connection* conn) noexcept {
  if (!closed_.load()) {
    Connection* empty = nullptr;
    if (hot_.compare_exchange_strong(empty, conn)) {
      if (waiting_.load() == 0 && !closed_.load()) return;
      // A lease or close() waits: it looks at hot_ again once woken. After
      // close(), whoever takes the connection out of hot_ closes it.
      if (closed_.load()) {
        if (Connection* mine = hot_.exchange(nullptr)) close_returned(mine);
      }
      { std::lock_guard lk(mu_); }
      cv_.notify_all();
      return;
    }
    std::lock_guard lk(mu_);
    if (!closed_.load()) {
      idle_.push_back(conn);
      // Most leases come back to a pool nobody waits on: skip the broadcast.
      if (waiting_.load() == 0) return;
      cv_.notify_all();
      return;
    }
  }
  close_returned(conn);
  { std::lock_guard lk(mu_); }
  cv_.notify_all();
}

void ReaderPool::close_returned(Connection* conn) noexcept {
  // Closed before it counts as gone, so that close() comes back only when
  // none of this pool's connections has the file open any more (a page
  // rewrite relies on it).
  conn->close();
  std::lock_guard lk(mu_);
  --open_;
}

void ReaderPool::close() {
  std::vector<Connection*> idle;
  {
    std::unique_lock lk(mu_);
    closed_.store(true);
    cv_.notify_all();
    idle.swap(idle_);
    open_ -= static_cast<int>(idle.size());
    // Queries still running on leased connections finish first; their
    // connections are closed as they come back.
    ++waiting_;
    cv_.wait(lk, [&] {
      if (Connection* conn = hot_.exchange(nullptr)) {
        idle.push_back(conn);
        --open_;
      }
      return open_ == 0;
    });
    --waiting_;
  }
  for (Connection* c : idle) c->close();
}

bool ReaderPool::closed() const { return closed_.load(); }

int ReaderPool::open_connections() const {
  std::lock_guard lk(mu_);
  return open_;
}

}  // namespace marsk_quorvi::storage
