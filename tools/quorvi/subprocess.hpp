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
// they are: no shell sees them. Raises OSError when the program cannot be
// started; an exception from `on_line` ends the child and propagates.
ProcessResult run_process(const std::vector<std::string>& argv,
                          const std::function<void(std::string_view)>& on_line);

}  // namespace marsk_quorvi::cli
