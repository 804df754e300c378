#include "quorvi/args.hpp"

#include <algorithm>
#include <charconv>

namespace marsk_quorvi::cli {

namespace {

constexpr const char* kExitCodes =
    "Exit status:\n"
    "  0  success\n"
    "  1  check: the index failed the integrity check\n"
    "  2  bad argument: unknown command or option, a missing or extra operand,\n"
    "     a bad number, a malformed search query\n"
    "  3  missing file: no index file (commands that only read or maintain an\n"
    "     index never create one), repository, staging file or benchmark folder\n"
    "  4  locked file: another process kept the index locked past the 5 s wait\n"
    "  5  corrupt file: the index (or staging file) is not a database or is damaged\n"
    "  6  any other failure (I/O, Universal Ctags missing or failing, a benchmark\n"
    "     that failed)\n";

std::string option_line(const OptionSpec& o) {
  std::string head = "  " + o.name + (o.value_name.empty() ? "" : " " + o.value_name);
  if (head.size() < 24) head.resize(24, ' ');
  else head += "  ";
  return head + o.help + "\n";
}

}  // namespace

const std::vector<OptionSpec>& global_options() {
  static const std::vector<OptionSpec> options{
      {"--db", "PATH",
       "the index file (default: memory/codebase-index/index.db under the repository, "
       "the current directory unless `index` names one)"},
      {"--verbose", "", "show the storage layer's log lines on standard error"},
      {"--help", "", "show help and exit"},
  };
  return options;
}

const std::vector<CommandSpec>& command_specs() {
  static const std::vector<CommandSpec> specs{
      {"index", "[REPO]", 0, 1, "index a repository from scratch and swap the new index in",
       "Walks REPO (default: the current directory), leaving out .git, the memory/\n"
       "folder, build output and what the top-level .gitignore excludes; builds a\n"
       "complete staging index next to the index file (files, components from the\n"
       "top-level folders, symbols from Universal Ctags, the text of every file for\n"
       "search, an error row for each file that cannot be read, is binary or is too\n"
       "large); swaps it in atomically and removes it. Prints the row counts, the new\n"
       "generation and what compaction did.",
       {{"--max-file-size", "BYTES", "files larger than this get an error row instead (default 1048576)"},
        {"--jobs", "N", "extraction threads (default: one per core)"}}},
      {"stats", "", 0, 0, "counts of files, symbols, edges, components and errors",
       "Prints the counts of the index, its generation and the size of its file.", {}},
      {"check", "", 0, 0, "run SQLite's integrity check (exit 1 when it fails)",
       "Runs the integrity check on the index file; exit status 1 when it fails.", {}},
      {"compact", "", 0, 0, "give free pages back to the file system",
       "Releases the free pages of the index file in short steps and prints what was\n"
       "done, or why nothing was.",
       {}},
      {"generation", "", 0, 0, "print the index generation",
       "Prints the index generation: it goes up by one with every swap.", {}},
      {"errors", "", 0, 0, "list the files that could not be indexed",
       "Lists the index_errors rows (path, kind, line, message) and the number of\n"
       "files that have one.",
       {{"--limit", "N", "list at most N rows (default: all)"}}},
      {"clear", "", 0, 0, "empty the index", "Deletes every row of the index tables in one transaction.", {}},
      {"swap", "STAGING", 1, 1, "replace the index with a staging index file",
       "Replaces the live index with the contents of the staging index file STAGING\n"
       "in one transaction (the generation goes up by one), then compacts. The\n"
       "staging file is left as it is.",
       {}},
      {"search", "TEXT...", 1, static_cast<std::size_t>(-1), "full-text search over the indexed text",
       "Searches the text of the indexed files (FTS5 query syntax: words, \"phrases\",\n"
       "prefix*, AND/OR/NOT, NEAR(...)); prints the path and the line range of each\n"
       "hit, best first. Several operands are joined with blanks.",
       {{"--limit", "N", "print at most N hits (default 20)"}}},
      {"bench", "", 0, 0, "run the benchmarks and print one table",
       "Runs every *_bench program of the build's bench/ folder and an indexing\n"
       "benchmark of its own (walk + extract, staging build, swap), and prints one\n"
       "table: each figure, its peer measured in the same run, the ratio and the\n"
       "target.",
       {{"--bench-dir", "DIR", "where the *_bench programs are (default: bench/ of this build)"},
        {"--tree", "PATH", "the tree the indexing benchmark indexes (default /usr/include)"},
        {"--no-index", "", "leave out the indexing benchmark"}}},
  };
  return specs;
}

const CommandSpec* find_command(const std::string& name) {
  for (const auto& cmd_spec : command_specs()) {
    if (cmd_spec.name == name) return &cmd_spec;
  }
  return nullptr;
}

std::optional<std::string> Invocation::value(const std::string& name) const {
  auto it = values.find(name);
  if (it == values.end()) return std::nullopt;
  return it->second;
}

std::int64_t Invocation::int_value(const std::string& name, std::int64_t fallback, std::int64_t min,
                                   std::int64_t max) const {
  auto text = value(name);
  if (!text) return fallback;
  std::int64_t v = 0;
  const auto* end = text->data() + text->size();
  auto [ptr, ec] = std::from_chars(text->data(), end, v);
  if (ec != std::errc() || ptr != end || text->empty() || v < min || v > max) {
    std::string range = "from " + std::to_string(min);
    if (max != std::numeric_limits<std::int64_t>::max()) range += " to " + std::to_string(max);
    throw UsageError(name + " needs a whole number " + range + ", not '" + *text + "'", command);
  }
  return v;
}

Invocation parse_args(const std::vector<std::string>& args) {
  Invocation inv;
  const CommandSpec* cmd_spec = nullptr;
  // Options seen before the command is known are checked once it is.
  std::vector<std::string> early;
  auto lookup = [&](const std::string& name) -> const OptionSpec* {
    for (const auto& o : global_options()) {
      if (o.name == name) return &o;
    }
    if (cmd_spec) {
      for (const auto& o : cmd_spec->options) {
        if (o.name == name) return &o;
      }
    }
    return nullptr;
  };
  bool options_done = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (!options_done && arg == "--") {
      options_done = true;
      continue;
    }
    if (!options_done && arg.size() > 1 && arg[0] == '-') {
      std::string name = arg;
      std::optional<std::string> inline_value;
      if (name == "-h") name = "--help";
      if (name == "-v") name = "--verbose";
      if (auto eq = name.find('='); name.starts_with("--") && eq != std::string::npos) {
        inline_value = name.substr(eq + 1);
        name.resize(eq);
      }
      const OptionSpec* opt = lookup(name);
      if (!opt && !cmd_spec) {
        // Possibly an option of a command still to come: it takes a value
        // when any command's option of that name does.
        for (const auto& s : command_specs()) {
          for (const auto& o : s.options) {
            if (o.name == name) opt = &o;
          }
        }
        if (opt) early.push_back(name);
      }
      if (!opt) throw UsageError("unknown option " + name, cmd_spec ? cmd_spec->name : "");
      if (opt->value_name.empty()) {
        if (inline_value) throw UsageError(name + " takes no value", cmd_spec ? cmd_spec->name : "");
        if (name == "--help") inv.help = true;
        inv.flags.insert(name);
        continue;
      }
      if (!inline_value) {
        if (i + 1 >= args.size()) throw UsageError(name + " needs a value (" + opt->value_name + ")", cmd_spec ? cmd_spec->name : "");
        inline_value = args[++i];
      }
      inv.values[name] = *inline_value;
      continue;
    }
    if (!cmd_spec) {
      cmd_spec = find_command(arg);
      if (!cmd_spec) throw UsageError("unknown command '" + arg + "'");
      inv.command = cmd_spec->name;
      continue;
    }
    inv.operands.push_back(arg);
  }
  if (!cmd_spec) {
    if (inv.help) return inv;
    throw UsageError("no command given");
  }
  for (const auto& name : early) {
    if (!std::any_of(cmd_spec->options.begin(), cmd_spec->options.end(), [&](const OptionSpec& o) { return o.name == name; })) {
      throw UsageError("unknown option " + name + " for " + cmd_spec->name, cmd_spec->name);
    }
  }
  if (inv.help) return inv;
  if (inv.operands.size() < cmd_spec->min_operands) {
    throw UsageError(cmd_spec->name + " needs " + cmd_spec->operands, cmd_spec->name);
  }
  if (inv.operands.size() > cmd_spec->max_operands) {
    throw UsageError("too many operands for " + cmd_spec->name + ": '" + inv.operands[cmd_spec->max_operands] + "'",
                     cmd_spec->name);
  }
  return inv;
}

std::string tool_help() {
  std::string out =
      "Usage: quorvi-db [OPTIONS] COMMAND [ARGS]\n"
      "\n"
      "Builds, inspects and maintains the code index of one repository\n"
      "(REPO/memory/codebase-index/index.db), the file the indexing service keeps.\n"
      "Every command opens the index the way the service does and so brings an\n"
      "index made by an older build up to date.\n"
      "\n"
      "Commands:\n";
  for (const auto& cmd_spec : command_specs()) {
    std::string head = "  " + cmd_spec.name + (cmd_spec.operands.empty() ? "" : " " + cmd_spec.operands);
    if (head.size() < 24) head.resize(24, ' ');
    else head += "  ";
    out += head + cmd_spec.summary + "\n";
  }
  out += "\nOptions:\n";
  for (const auto& o : global_options()) out += option_line(o);
  out += "\n`quorvi-db COMMAND --help` describes a command.\n\n";
  out += kExitCodes;
  return out;
}

std::string command_help(const CommandSpec& cmd_spec) {
  std::string out = "Usage: quorvi-db " + cmd_spec.name + (cmd_spec.options.empty() ? "" : " [OPTIONS]") +
                    (cmd_spec.operands.empty() ? "" : " " + cmd_spec.operands) + "\n\n" + cmd_spec.description + "\n\nOptions:\n";
  for (const auto& o : cmd_spec.options) out += option_line(o);
  for (const auto& o : global_options()) out += option_line(o);
  out += "\n";
  out += kExitCodes;
  return out;
}

}  // namespace marsk_quorvi::cli
