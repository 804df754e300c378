// Shared test fixtures: a fresh temporary directory per test, a capturing
// sink on the module logger, environment overrides and a second process.
#pragma once

#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"
#include "storage/database_impl.hpp"

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

// Runs the peer helper binary with `args`; returns its exit status and
// captures its standard output.
struct PeerResult {
  int status;
  std::string output;
};
PeerResult run_peer(const std::vector<std::string>& args);

// The peer helper running in the background (for example `hold DB SECONDS`):
// the constructor returns once the peer has printed its first line; the
// destructor kills it if it still runs and reaps it.
class BackgroundPeer {
 public:
  explicit BackgroundPeer(const std::vector<std::string>& args);
  ~BackgroundPeer();
  const std::string& first_line() const { return first_line_; }
  // The rest of the peer's output, read until the peer closes it.
  std::string read_rest();
  int wait();  // exit status

 private:
  int pid_ = -1;
  int fd_ = -1;
  std::string first_line_;
};

}  // namespace marsk_quorvi::testing
