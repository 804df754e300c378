#include "support/test_support.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
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

PeerResult run_peer(const std::vector<std::string>& args) {
  std::string cmd = std::string("'") + QUORVI_TEST_PEER + "'";
  for (const auto& a : args) {
    std::string quoted = "'";
    for (char c : a) {
      if (c == '\'') {
        quoted += "'\\''";
      } else {
        quoted += c;
      }
    }
    cmd += " " + quoted + "'";
  }
  PeerResult result{-1, ""};
  FILE* pipe = ::popen(cmd.c_str(), "r");
  if (!pipe) return result;
  std::array<char, 4096> buf{};
  std::size_t n;
  while ((n = std::fread(buf.data(), 1, buf.size(), pipe)) > 0) result.output.append(buf.data(), n);
  int status = ::pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

BackgroundPeer::BackgroundPeer(const std::vector<std::string>& args) {
  int fds[2];
  if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
  std::vector<std::string> argv_store{QUORVI_TEST_PEER};
  argv_store.insert(argv_store.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : argv_store) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(fds[1], 1);
    ::close(fds[0]);
    ::close(fds[1]);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(fds[1]);
  fd_ = fds[0];
  char c;
  while (::read(fd_, &c, 1) == 1 && c != '\n') first_line_.push_back(c);
}

std::string BackgroundPeer::read_rest() {
  std::string out;
  char buf[4096];
  ssize_t n;
  while (fd_ >= 0 && (n = ::read(fd_, buf, sizeof buf)) > 0) out.append(buf, static_cast<std::size_t>(n));
  return out;
}

int BackgroundPeer::wait() {
  if (pid_ <= 0) return -1;
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

BackgroundPeer::~BackgroundPeer() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    wait();
  }
  if (fd_ >= 0) ::close(fd_);
}

}  // namespace marsk_quorvi::testing
