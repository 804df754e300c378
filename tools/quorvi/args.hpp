// The command line of quorvi-db: its commands, their options, the help
// texts and the exit codes.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace marsk_quorvi::cli {

// Exit codes, each documented in the tool's help.
enum ExitCode : int {
  EXIT_OK = 0,
  EXIT_CHECK_FAILED = 1,  // the integrity check failed
  EXIT_BAD_ARGUMENT = 2,  // usage errors, a malformed search query
  EXIT_MISSING = 3,       // a file or folder that must exist does not
  EXIT_LOCKED = 4,        // another process holds the index past the wait
  EXIT_CORRUPT = 5,       // not a database, or a damaged one
  EXIT_FAILED = 6,        // anything else (I/O, ctags, a failing benchmark)
};

struct OptionSpec {
  std::string name;        // "--db"
  std::string value_name;  // "PATH"; empty for a flag
  std::string help;
};

struct CommandSpec {
  std::string name;
  std::string operands;  // usage text of the operands: "[REPO]", "TEXT..."
  std::size_t min_operands = 0;
  std::size_t max_operands = 0;
  std::string summary;      // one line for the tool's help
  std::string description;  // the command's own help
  std::vector<OptionSpec> options;
};

// Options every command takes.
const std::vector<OptionSpec>& global_options();
const std::vector<CommandSpec>& command_specs();
const CommandSpec* find_command(const std::string& name);

// A bad command line. `command` is the command it concerns, empty when none
// was recognised; the message says what is wrong.
class UsageError : public std::runtime_error {
 public:
  UsageError(const std::string& message, std::string command = {})
      : std::runtime_error(message), command_(std::move(command)) {}
  const std::string& command() const noexcept { return command_; }

 private:
  std::string command_;
};

struct Invocation {
  std::string command;  // empty with --help and no command
  bool help = false;
  std::map<std::string, std::string> values;  // options with a value
  std::set<std::string> flags;
  std::vector<std::string> operands;

  bool flag(const std::string& name) const { return flags.count(name) > 0; }
  std::optional<std::string> value(const std::string& name) const;
  // An integer option: `fallback` when absent; UsageError when it is not a
  // whole number from `min` to `max`.
  std::int64_t int_value(const std::string& name, std::int64_t fallback, std::int64_t min = 0,
                         std::int64_t max = std::numeric_limits<std::int64_t>::max()) const;
};

// Global options and the command's options may come before or after the
// command, as `--name VALUE` or `--name=VALUE`; `--` ends the options.
// Raises UsageError for an unknown command or option, a missing value, or
// too few or too many operands (not with --help).
Invocation parse_args(const std::vector<std::string>& args);

std::string tool_help();
std::string command_help(const CommandSpec& cmd_spec);

}  // namespace marsk_quorvi::cli
