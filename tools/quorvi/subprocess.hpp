// Running a program as a child process, without a shell.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace marsk_quorvi::cli {

struct ProcessResult {
  int exit_code = -1;  // the exit status, or -1 when it died of a signal
  int signal = 0;      // the signal that ended it, 0 when it exited
  std::string err;     // what it wrote on standard error
};

// Runs `argv` (argv[0] looked up on PATH) with standard input from /dev/null,
// hands each line of its standard output (without the newline) to `on_line`
// as it arrives, and collects standard error. Arguments go to the program as
// they are: no shell sees them. The descriptors in `inherit` stay open in the
// child under the same numbers; every other descriptor of this process is
// closed on exec. The child gets SIGKILL when the thread that started it
// ends, so a tool that dies leaves no child behind, and it runs with no
// signal blocked. Raises OSError when the program cannot be started; an
// exception from `on_line` ends the child and propagates.
ProcessResult run_process(const std::vector<std::string>& argv,
                          const std::function<void(std::string_view)>& on_line,
                          const std::vector<int>& inherit = {});

// Sends SIGTERM to every child run_process has started and not yet reaped,
// also one being forked at that moment, and makes every later run_process
// raise OSError instead of starting one. Async-signal-safe: meant for the
// tool's SIGINT and SIGTERM handler.
void terminate_children() noexcept;

}  // namespace marsk_quorvi::cli
