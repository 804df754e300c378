// Checks on the access layer: the library error an operation raises, as one
// comparable text, and the statements SQLite starts on one connection.
#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::testing {

// "Kind: message" of the library error that `f` raises, the message alone of
// another exception, or "" when it raises none.
template <class F>
std::string raised(F&& f) {
  try {
    f();
  } catch (const QuorviError& e) {
    return std::string(e.kind()) + ": " + e.what();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

// The rows `f` returns, columns joined by '|' and each row ended by ';', or
// "Kind: message" when it raises.
template <class F>
std::string rows_or_error(F&& f) {
  std::string out;
  const auto error = raised([&] {
    for (const storage::Row& row : f()) {
      for (std::size_t i = 0; i < row.size(); ++i) out += (i ? "|" : "") + row[i].to_text();
      out += ";";
    }
  });
  return error.empty() ? out : error;
}

// Records the text of every statement a connection starts, so that a test can
// tell which connection ran a query and see BEGIN/COMMIT/ROLLBACK. SQLite calls
// it under the connection's own mutex, which orders the threads that record.
struct StatementTrace {
  explicit StatementTrace(std::shared_ptr<storage::Connection> c) : connection(std::move(c)) {
    sqlite3_trace_v2(connection->handle(), SQLITE_TRACE_STMT, &StatementTrace::on_statement, this);
  }
  ~StatementTrace() {
    if (sqlite3* db = connection->handle()) sqlite3_trace_v2(db, 0, nullptr, nullptr);
  }
  StatementTrace(const StatementTrace&) = delete;
  long count(const std::string& sql) const { return std::count(statements.begin(), statements.end(), sql); }
  // " BEGIN COMMIT": the transaction control in the order it ran.
  std::string control() const {
    std::string out;
    for (const auto& s : statements) out += s == "BEGIN" || s == "COMMIT" || s == "ROLLBACK" ? " " + s : "";
    return out;
  }
  static int on_statement(unsigned, void* self, void*, void* text) {
    static_cast<StatementTrace*>(self)->statements.emplace_back(static_cast<const char*>(text));
    return 0;
  }

  std::shared_ptr<storage::Connection> connection;  // kept alive: it may be closed first
  std::vector<std::string> statements;
};

}  // namespace marsk_quorvi::testing
