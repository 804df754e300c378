#include "support/test_support.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>

#include "marsk_quorvi/storage/logging.hpp"

namespace marsk_quorvi::testing {

class LogCapture::Sink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<LogRecord> records() {
    std::lock_guard lk(mutex_);
    return records_;
  }
  void clear() {
    std::lock_guard lk(mutex_);
    records_.clear();
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    records_.push_back({msg.level, std::string(msg.payload.data(), msg.payload.size())});
  }
  void flush_() override {}

 private:
  std::vector<LogRecord> records_;
};

LogCapture::LogCapture() : sink_(std::make_shared<Sink>()) {
  auto logger = storage::database_logger();
  saved_sinks_ = logger->sinks();
  saved_level_ = logger->level();
  logger->sinks() = {sink_};
  logger->set_level(spdlog::level::trace);
}

LogCapture::~LogCapture() {
  auto logger = storage::database_logger();
  logger->sinks() = saved_sinks_;
  logger->set_level(saved_level_);
}

std::vector<LogRecord> LogCapture::records() const { return sink_->records(); }

std::vector<LogRecord> LogCapture::matching(const std::string& fragment) const {
  std::vector<LogRecord> out;
  for (auto& r : sink_->records()) {
    if (r.text.find(fragment) != std::string::npos) out.push_back(r);
  }
  return out;
}

void LogCapture::clear() { sink_->clear(); }

ScopedEnv::ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
  if (const char* old = std::getenv(name)) saved_ = old;
  if (value) {
    ::setenv(name, value->c_str(), 1);
  } else {
    ::unsetenv(name);
  }
}

ScopedEnv::~ScopedEnv() {
  if (saved_) {
    ::setenv(name_.c_str(), saved_->c_str(), 1);
  } else {
    ::unsetenv(name_.c_str());
  }
}

void TempDirTest::SetUp() {
  std::random_device rd;
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  dir_ = std::filesystem::temp_directory_path() /
         ("mq-" + std::string(info->test_suite_name()) + "-" + std::to_string(rd()));
  std::filesystem::create_directories(dir_);
}

void TempDirTest::TearDown() {
  std::error_code ec;
  std::filesystem::remove_all(dir_, ec);
}

namespace {

template <class FetchAll>
State state_of(FetchAll&& fetchall) {
  State out;
  auto lines = [&](const std::string& sql) {
    std::vector<std::string> rows;
    for (const storage::Row& row : fetchall(sql)) {
      std::string line;
      for (std::size_t i = 0; i < row.size(); ++i) line += (i ? "|" : "") + row[i].to_text();
      rows.push_back(std::move(line));
    }
    std::sort(rows.begin(), rows.end());
    return rows;
  };
  for (const auto& row : fetchall("SELECT name, sql LIKE 'CREATE VIRTUAL%' FROM sqlite_master WHERE type = 'table'")) {
    const std::string table = row[0].to_text();
    out[table] = lines(std::string(row[1].as_int() ? "SELECT rowid, * FROM \"" : "SELECT * FROM \"") + table + "\"");
  }
  out["schema"] = lines("SELECT type, name, tbl_name, sql FROM sqlite_master");
  out["generation"] = lines("PRAGMA user_version");
  return out;
}

}  // namespace

State snapshot(storage::Database& db) {
  return state_of([&](const std::string& sql) { return db.fetchall(sql); });
}

State snapshot(const std::filesystem::path& file) {
  storage::Connection::Options options;
  options.readonly = true;
  auto conn = storage::Connection::open(file.string(), options);
  return state_of([&](const std::string& sql) { return conn->execute(sql).fetchall(); });
}

State index_content(const State& state) {
  State out;
  for (const char* key : {"components", "files", "symbols", "edges", "external_imports", "index_errors", "code_chunks",
                          "schema_info", "generation"}) {
    if (auto it = state.find(key); it != state.end()) out.insert(*it);
  }
  return out;
}

std::unique_ptr<TestDb> IndexTest::open(const std::filesystem::path& file) {
  auto db = std::make_unique<TestDb>(file);
  db->connect();
  db->create_schema();
  db->migrate_schema();
  return db;
}

std::string file_bytes(const std::filesystem::path& p) {
  if (!std::filesystem::is_regular_file(p)) return {};  // a FIFO would block the open
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::filesystem::path write(const std::filesystem::path& p, const std::string& text, bool executable) {
  std::filesystem::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << text;
  if (executable) std::filesystem::permissions(p, std::filesystem::perms::owner_all);
  return p;
}

std::string joined(const storage::Row& row) {
  std::string line;
  for (std::size_t i = 0; i < row.size(); ++i) line += (i ? "|" : "") + row[i].to_text();
  return line;
}

std::string rows_of(const std::filesystem::path& file, const std::string& sql) {
  auto conn = storage::Connection::open(file.string());
  std::string out;
  for (const auto& row : conn->execute(sql).fetchall()) out += joined(row) + "\n";
  conn->close();
  return out;
}

}  // namespace marsk_quorvi::testing
