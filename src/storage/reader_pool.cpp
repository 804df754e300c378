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
  if (pool_) pool_->give_back(std::move(conn_));
}

ReaderPool::Lease ReaderPool::lease() {
  std::unique_lock lk(mu_);
  if (!(closed_ || !idle_.empty() || open_ < count_)) {
    ++waiting_;
    cv_.wait(lk, [&] { return closed_ || !idle_.empty() || open_ < count_; });
    --waiting_;
  }
  if (closed_) throw ReaderUnavailable("the read pool is closed");
  if (!idle_.empty()) {
    auto conn = std::move(idle_.back());
    idle_.pop_back();
    ++leased_;
    return Lease(this, std::move(conn));
  }
  // Open outside the mutex: other leases should not wait for a file open.
  ++open_;
  ++leased_;
  lk.unlock();
  try {
    Connection::Options options;
    options.readonly = true;
    options.serialized = false;  // one thread at a time, by lease
    options.busy_timeout_ms = busy_timeout_ms_;
    auto conn = Connection::open(path_, options);
    if (configure_) configure_(*conn);
    return Lease(this, std::move(conn));
  } catch (...) {
    lk.lock();
    --open_;
    --leased_;
    lk.unlock();
    cv_.notify_all();
    throw;
  }
}

void ReaderPool::give_back(std::shared_ptr<Connection> conn) noexcept {
  {
    std::lock_guard lk(mu_);
    if (!closed_) {
      --leased_;
      idle_.push_back(std::move(conn));
      // Most leases come back to a pool nobody waits on: skip the broadcast.
      if (waiting_ == 0) return;
    }
  }
  if (conn) {
    // The pool closed meanwhile. The connection is closed before it counts
    // as returned, so that close() comes back only when none of this pool's
    // connections has the file open any more (a page rewrite relies on it).
    conn->close();
    std::lock_guard lk(mu_);
    --leased_;
    --open_;
  }
  cv_.notify_all();
}

void ReaderPool::close() {
  std::vector<std::shared_ptr<Connection>> idle;
  {
    std::unique_lock lk(mu_);
    closed_ = true;
    idle.swap(idle_);
    open_ -= static_cast<int>(idle.size());
    cv_.notify_all();
    // Queries still running on leased connections finish first.
    ++waiting_;
    cv_.wait(lk, [&] { return leased_ == 0; });
    --waiting_;
  }
  for (auto& c : idle) c->close();
}

bool ReaderPool::closed() const {
  std::lock_guard lk(mu_);
  return closed_;
}

int ReaderPool::open_connections() const {
  std::lock_guard lk(mu_);
  return open_;
}

}  // namespace marsk_quorvi::storage
