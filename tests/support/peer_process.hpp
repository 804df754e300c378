// The one launcher of the peer program (tests/support/peer_main.cpp): a child
// process that a test reads line by line, with a deadline, and may kill with
// SIGKILL at a moment of its choosing.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace marsk_quorvi::testing {

// What a peer run to its end printed, and how it ended.
struct PeerResult {
  int status;          // exit status, or 128 + the signal that ended it
  std::string output;  // every line, each with its newline
};

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

  // Runs the peer to its end.
  static PeerResult run(const std::vector<std::string>& args);

  // The next whole line of output (without its newline), or none when the
  // output has ended or `deadline` (a minute by default) passes first.
  std::optional<std::string> read_line(Clock::time_point deadline);
  std::optional<std::string> read_line() { return read_line(Clock::now() + std::chrono::seconds(60)); }
  // Everything the peer still writes, until it closes its output.
  std::vector<std::string> read_rest();
  // SIGKILL, then reap. Harmless once the peer has been reaped.
  void kill();
  // Waits for the peer to end: its exit status, or 128 + the signal that
  // ended it.
  int wait();
  bool output_ended() const { return ended_; }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  int status_ = -1;
  bool ended_ = false;
  std::string pending_;  // output read but not yet a whole line
};

}  // namespace marsk_quorvi::testing
