// Shared test fixtures: a fresh temporary directory per test, handles opened
// as a service opens them, a snapshot of a file's whole content, a capturing
// sink on the module logger, environment overrides and the peer process.
#pragma once

#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"
#include "storage/database_impl.hpp"
#include "support/peer_process.hpp"

namespace marsk_quorvi::testing {

// A handle whose internals a test reaches by name: `db.impl()._readers`.
struct TestDb : storage::Database {
  using Database::Database;
  storage::detail::DatabaseImpl& impl() { return storage::detail::internals(*this); }
};

struct LogRecord {
  spdlog::level::level_enum level;
  std::string text;
  bool operator==(const LogRecord&) const = default;
};

// Collects the module logger's records while it lives; restores the
// logger's sinks and level afterwards.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::vector<LogRecord> records() const;
  // Records whose text contains `fragment`.
  std::vector<LogRecord> matching(const std::string& fragment) const;
  void clear();

 private:
  class Sink;
  std::shared_ptr<Sink> sink_;
  std::vector<spdlog::sink_ptr> saved_sinks_;
  spdlog::level::level_enum saved_level_;
};

// Sets (or unsets, with nullopt) an environment variable for its lifetime.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value);
  ~ScopedEnv();

 private:
  std::string name_;
  std::optional<std::string> saved_;
};

class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  std::filesystem::path path(const std::string& name) const { return dir_ / name; }
  std::filesystem::path dir_;
};

// The whole content of a database file, as text: every table (the index
// tables, schema_info, tables of other parts of the service, the full-text
// table with its rowids and its shadow tables) row by row, sorted, under the
// table's name; "schema" the schema entries and "generation" the user
// version. Equal snapshots mean equal content; the page layout may differ.
using State = std::map<std::string, std::vector<std::string>>;
State snapshot(storage::Database& db);
// The same, read through a read-only connection of its own.
State snapshot(const std::filesystem::path& file);
// Only the index tables, code_chunks, schema_info and the generation.
State index_content(const State& state);

// A file's whole content; empty when there is none (or it is no regular file).
std::string file_bytes(const std::filesystem::path& p);
// Writes `text` to `p`, making its folders; `executable` for a script. Returns `p`.
std::filesystem::path write(const std::filesystem::path& p, const std::string& text, bool executable = false);
// A row as the peer prints it, its columns joined by '|'.
std::string joined(const storage::Row& row);
// The rows of `sql` on `file`, joined, one line each.
std::string rows_of(const std::filesystem::path& file, const std::string& sql);

// A fresh temporary directory per test, and handles opened the way a service
// process opens them (connect, create_schema, migrate_schema).
class IndexTest : public TempDirTest {
 protected:
  std::unique_ptr<TestDb> open(const std::filesystem::path& file);
  std::unique_ptr<TestDb> open(const std::string& name = "index.db") { return open(path(name)); }
};

}  // namespace marsk_quorvi::testing
