// The peer program as a child process that a test reads line by line, with a
// deadline, and may kill with SIGKILL at a moment of its choosing.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace marsk_quorvi::testing {

class PeerProcess {
 public:
  using Clock = std::chrono::steady_clock;

  // Starts the peer with `args`; its standard output comes to this object,
  // its standard error goes where the test's goes.
  explicit PeerProcess(const std::vector<std::string>& args);
  // Kills the peer if it still runs, and reaps it.
  ~PeerProcess();
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  // The next whole line of output (without its newline), or none when the
  // output has ended or `deadline` passes first.
  std::optional<std::string> read_line(Clock::time_point deadline);
  // Everything the peer still writes, until it closes its output.
  std::vector<std::string> read_rest();
  // SIGKILL, then reap. Harmless once the peer has been reaped.
  void kill();
  // Waits for the peer to end: its exit status, or 128 + the signal that
  // ended it.
  int wait();
  bool output_ended() const { return ended_; }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  int status_ = -1;
  bool ended_ = false;
  std::string pending_;  // output read but not yet a whole line
};

}  // namespace marsk_quorvi::testing
