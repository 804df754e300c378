// Index files with exact page counts for the space tests, a way to patch
// their headers, and a trace of the statements a connection runs.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"
#include "support/test_support.hpp"

namespace marsk_quorvi::testing {

inline constexpr std::int64_t kPageSize = 8192;

// Pages in a file of `pages` pages that hold auto-vacuum pointer maps: page 2
// and every (8192 / 5 + 1)th page after it.
inline std::int64_t pointer_map_pages(std::int64_t pages) {
  const std::int64_t per_map = kPageSize / 5;
  return pages < 2 ? 0 : (pages - 2) / (per_map + 1) + 1;
}

// Builds a database file of exactly `pages` pages of 8192 bytes, `free` of them
// on the free list, in auto-vacuum mode `mode` (0 none, 2 incremental). The
// data sits in one blob of table `bulk`; the free pages are the overflow
// chain of a deleted blob of table `spare`. Written without a journal: it is
// a fixture, not a database under test.
inline void make_page_file(const std::filesystem::path& path, std::int64_t pages, std::int64_t free,
                           std::int64_t mode) {
  namespace mq = marsk_quorvi::storage;
  const std::int64_t overflow = kPageSize - 4;  // payload bytes per overflow page
  const std::int64_t maps = mode == 0 ? 0 : pointer_map_pages(pages);
  const std::int64_t data = pages - 3 - free - maps;  // page 1 and the two roots
  ASSERT_GT(data, 0) << "no room for data in " << pages << " pages";
  std::filesystem::remove(path);
  auto conn = mq::Connection::open(path.string());
  conn->execute("PRAGMA page_size=8192");
  conn->execute("PRAGMA auto_vacuum=" + std::to_string(mode));
  conn->execute("PRAGMA journal_mode=OFF");
  conn->execute("PRAGMA synchronous=OFF");
  conn->executescript("CREATE TABLE bulk (b BLOB); CREATE TABLE spare (b BLOB);");
  conn->execute("INSERT INTO bulk VALUES (zeroblob(?))", {data * overflow});
  if (free > 0) {
    conn->execute("INSERT INTO spare VALUES (zeroblob(?))", {free * overflow});
    conn->execute("DELETE FROM spare");
  }
  ASSERT_EQ((*conn->execute("PRAGMA page_count").fetchone())[0].as_int(), pages);
  ASSERT_EQ((*conn->execute("PRAGMA freelist_count").fetchone())[0].as_int(), free);
  conn->close();
}

// Writes a big-endian 32-bit value into the file at `offset` (header fields).
inline void patch_u32(const std::filesystem::path& path, std::int64_t offset, std::uint32_t value) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  f.seekp(offset);
  const char bytes[] = {static_cast<char>(value >> 24), static_cast<char>(value >> 16), static_cast<char>(value >> 8),
                        static_cast<char>(value)};
  f.write(bytes, 4);
}

// Records, in order, the statements a connection starts ("SQL") and the value
// of every "PRAGMA freelist_count" it reads ("free N"). `on_statement` runs on
// the thread executing the statement, inside whatever lock that thread holds.
class PageTrace {
 public:
  explicit PageTrace(std::shared_ptr<marsk_quorvi::storage::Connection> connection,
                          std::function<void(const std::string&)> on_statement = {})
      : connection_(std::move(connection)), on_statement_(std::move(on_statement)) {
    sqlite3_trace_v2(connection_->handle(), SQLITE_TRACE_STMT | SQLITE_TRACE_ROW, &PageTrace::callback, this);
  }
  ~PageTrace() { stop(); }
  PageTrace(const PageTrace&) = delete;
  PageTrace& operator=(const PageTrace&) = delete;

  // Harmless once the connection is closed: nothing is traced any more.
  void stop() {
    if (connection_ && connection_->handle()) sqlite3_trace_v2(connection_->handle(), 0, nullptr, nullptr);
    connection_.reset();
  }
  std::vector<std::string> events() const {
    std::lock_guard lock(mu_);
    return events_;
  }
  std::int64_t count(const std::string& event) const {
    std::int64_t n = 0;
    for (const auto& e : events()) n += e == event;
    return n;
  }
  // Pages each run of `step_sql` took off the free list: the difference of
  // the free-list readings around it.
  std::vector<std::int64_t> steps(const std::string& step_sql) const {
    std::vector<std::int64_t> out;
    std::int64_t last = -1;
    bool stepped = false;
    for (const auto& e : events()) {
      if (e == step_sql) stepped = true;
      if (e.rfind("free ", 0) != 0) continue;
      const std::int64_t free = std::stoll(e.substr(5));
      if (stepped) out.push_back(last - free);
      last = free;
      stepped = false;
    }
    return out;
  }

 private:
  static int callback(unsigned type, void* ctx, void* p, void* x) {
    auto* self = static_cast<PageTrace*>(ctx);
    if (type == SQLITE_TRACE_STMT) {
      const std::string sql = static_cast<const char*>(x);
      if (sql.rfind("--", 0) == 0) return 0;  // trigger bodies
      {
        std::lock_guard lock(self->mu_);
        self->events_.push_back(sql);
      }
      if (self->on_statement_) self->on_statement_(sql);
    } else if (type == SQLITE_TRACE_ROW) {
      auto* stmt = static_cast<sqlite3_stmt*>(p);
      const char* sql = sqlite3_sql(stmt);
      if (sql && std::string(sql) == "PRAGMA freelist_count") {
        std::lock_guard lock(self->mu_);
        self->events_.push_back("free " + std::to_string(sqlite3_column_int64(stmt, 0)));
      }
    }
    return 0;
  }

  std::shared_ptr<marsk_quorvi::storage::Connection> connection_;
  std::function<void(const std::string&)> on_statement_;
  mutable std::mutex mu_;
  std::vector<std::string> events_;
};

// Reaches the internals of the handle by name.
using SpaceDb = TestDb;

inline std::int64_t pragma(SpaceDb& db, const std::string& name) {
  std::lock_guard lock(db.impl()._lock);
  return (*db.connection()->execute("PRAGMA " + name).fetchone())[0].as_int();
}

}  // namespace marsk_quorvi::testing
