// Records the text of every statement SQLite starts on one connection, so a
// test can tell which connection ran a query and count BEGIN/COMMIT/ROLLBACK.
#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::testing {

class StatementTrace {
 public:
  // Keeps the connection object alive; the connection may be closed first.
  explicit StatementTrace(std::shared_ptr<storage::Connection> connection) : connection_(std::move(connection)) {
    sqlite3_trace_v2(connection_->handle(), SQLITE_TRACE_STMT, &StatementTrace::on_statement, this);
  }
  ~StatementTrace() {
    if (sqlite3* db = connection_->handle()) sqlite3_trace_v2(db, 0, nullptr, nullptr);
  }
  StatementTrace(const StatementTrace&) = delete;
  StatementTrace& operator=(const StatementTrace&) = delete;

  std::vector<std::string> statements() const {
    std::lock_guard lk(mu_);
    return statements_;
  }
  // How many statements whose text is exactly `sql` ran.
  long count(std::string_view sql) const {
    std::lock_guard lk(mu_);
    return std::count(statements_.begin(), statements_.end(), sql);
  }
  void clear() {
    std::lock_guard lk(mu_);
    statements_.clear();
  }

 private:
  static int on_statement(unsigned, void* self, void*, void* text) {
    auto* trace = static_cast<StatementTrace*>(self);
    const char* sql = static_cast<const char*>(text);
    // Statements run by triggers arrive as "-- comment" lines: not ours.
    if (sql && !std::string_view(sql).starts_with("--")) {
      std::lock_guard lk(trace->mu_);
      trace->statements_.emplace_back(sql);
    }
    return 0;
  }

  std::shared_ptr<storage::Connection> connection_;
  mutable std::mutex mu_;
  std::vector<std::string> statements_;
};

}  // namespace marsk_quorvi::testing
