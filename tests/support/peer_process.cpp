#include "support/peer_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <utility>

namespace marsk_quorvi::testing {

PeerProcess::PeerProcess(const std::vector<std::string>& args) {
  int fds[2];
  // Close-on-exec: a peer started later must not hold this one's pipe open,
  // or its end of output would never come.
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  std::vector<std::string> argv_store{QUORVI_TEST_PEER};
  argv_store.insert(argv_store.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : argv_store) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ < 0) {
    ::close(fds[0]);
    ::close(fds[1]);
    throw std::runtime_error("fork failed");
  }
  if (pid_ == 0) {
    ::dup2(fds[1], 1);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(fds[1]);
  fd_ = fds[0];
}

PeerResult PeerProcess::run(const std::vector<std::string>& args) {
  PeerProcess peer(args);
  PeerResult result{0, ""};
  for (const auto& line : peer.read_rest()) result.output += line + "\n";
  result.status = peer.wait();
  return result;
}

PeerProcess::~PeerProcess() {
  kill();
  if (fd_ >= 0) ::close(fd_);
}

std::optional<std::string> PeerProcess::read_line(Clock::time_point deadline) {
  for (;;) {
    if (const auto nl = pending_.find('\n'); nl != std::string::npos) {
      std::string line = pending_.substr(0, nl);
      pending_.erase(0, nl + 1);
      return line;
    }
    if (ended_) {
      if (pending_.empty()) return std::nullopt;
      return std::exchange(pending_, std::string());
    }
    // A deadline already past still takes what is ready now. Waits are
    // sliced to a minute at most: a far deadline does not fit poll's int.
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd p{fd_, POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(std::clamp<long long>(left, 0, 60000)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return std::nullopt;
    if (ready == 0) {
      if (left <= 0) return std::nullopt;
      continue;
    }
    char buf[4096];
    const ssize_t n = ::read(fd_, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ended_ = true;
    } else {
      pending_.append(buf, static_cast<std::size_t>(n));
    }
  }
}

std::vector<std::string> PeerProcess::read_rest() {
  std::vector<std::string> lines;
  while (auto line = read_line(Clock::time_point::max())) lines.push_back(std::move(*line));
  return lines;
}

void PeerProcess::kill() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    wait();
  }
}

int PeerProcess::wait() {
  if (pid_ > 0) {
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
  }
  return status_;
}

}  // namespace marsk_quorvi::testing
