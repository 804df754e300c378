// The command line of quorvi-db: exit codes, the shape of the command table
// and its parsing. The table itself (with each command's handler) lives with
// the commands; parsing, help and dispatch all come from it.
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

// Exit codes, each documented in the tool's help (exit_code_help).
enum ExitCode : int {
  EXIT_OK = 0,
  EXIT_CHECK_FAILED = 1,  // the integrity check failed
  EXIT_BAD_ARGUMENT = 2,  // usage errors, a malformed or oversized search query
  EXIT_MISSING = 3,       // a file or folder that must exist does not
  EXIT_LOCKED = 4,        // another process holds the index past the wait
  EXIT_CORRUPT = 5,       // not a database, or a damaged one
  EXIT_FAILED = 6,        // anything else (I/O, ctags, a failing benchmark)
  EXIT_NOT_INDEX = 7,     // a database without the index's tables
  EXIT_PERMISSION = 8,    // the operating system refused access
};

// The "Exit status:" part of every help text.
std::string exit_code_help();

// What a command may do to the index file; the help groups commands by it.
enum class Access { reads, writes, none };

struct OptionSpec {
  std::string name;        // "--db"
  std::string value_name;  // "PATH"; empty for a flag
  std::string help;
};

struct Context;  // a running command's invocation and streams (commands.cpp)

struct CommandSpec {
  std::string name;
  std::string operands;  // usage text of the operands: "[REPO]", "TEXT...", "STAGING"
  std::size_t min_operands = 0;
  std::size_t max_operands = 0;
  std::string summary;      // one line for the tool's help
  std::string description;  // the command's own help
  std::vector<OptionSpec> options;
  Access access = Access::none;
  int (*run)(Context&) = nullptr;
};

// Options every command takes, before or after its name.
const std::vector<OptionSpec>& global_options();

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
  const CommandSpec* command = nullptr;  // none with --help and no command
  std::string help;                      // the help text asked for with --help
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

// Parses `args` (without the program name) against `commands`. Global
// options go anywhere; a command's options after its name (or before it,
// when that command has them); `--` ends the options. Raises UsageError for
// an unknown command or option, a missing value, an empty --db, or too few
// or too many operands. With --help, returns with `help` set instead.
Invocation parse_args(const std::vector<CommandSpec>& commands, const std::vector<std::string>& args);

}  // namespace marsk_quorvi::cli
