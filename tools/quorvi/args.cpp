#include "quorvi/args.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <sstream>

namespace marsk_quorvi::cli {

namespace {

constexpr const char* kToolDescription =
    "Builds, inspects and maintains the code index of one repository\n"
    "(REPO/memory/codebase-index/index.db), the file the indexing service keeps.\n"
    "Commands that only read open the file read-only: they never change it, work\n"
    "for a user who may only read it, and answer while another process writes.\n"
    "Commands that write open it as the service does, which also brings an index\n"
    "made by an older build up to date. Only `index` creates an index file.\n";

const std::pair<int, const char*> kExitCodes[] = {
    {EXIT_OK, "success"},
    {EXIT_CHECK_FAILED, "check: the index failed the integrity check"},
    {EXIT_BAD_ARGUMENT,
     "bad argument: unknown command or option, a missing or extra operand, a bad number, an empty --db, "
     "a malformed search query or one of more than 64 terms or 4 KiB"},
    {EXIT_MISSING,
     "missing file: no index file (only `index` creates one), repository, staging file or benchmark folder"},
    {EXIT_LOCKED,
     "locked: another process kept the index, or another `index` run its lock file, past the 5 s wait"},
    {EXIT_CORRUPT,
     "corrupt file: the index (or staging file) is not a database or is damaged; `index` moves a damaged "
     "index aside and builds a new one"},
    {EXIT_FAILED,
     "any other failure (I/O, Universal Ctags missing or failing, an index of an older build that only "
     "`index` can upgrade, a default index path that leads out of the repository, a failed benchmark)"},
    {EXIT_NOT_INDEX, "not an index: a database (or an empty file) without the index's tables; nothing changes it"},
    {EXIT_PERMISSION, "permission denied: the system refused to read or write a file or folder"},
    {128, "+N: `index` ended by signal N (SIGINT, SIGTERM), its staging file removed"},
};

// `text` in lines of at most `width` columns, each after `indent` blanks.
std::string wrap(const std::string& text, std::size_t indent, std::size_t width = 79) {
  std::istringstream words(text);
  std::string out, line, word;
  while (words >> word) {
    if (!line.empty() && indent + line.size() + 1 + word.size() > width) {
      out += line + "\n" + std::string(indent, ' ');
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
  }
  return out + line + "\n";
}

// Help text for the column right of the names.
std::string narrow(const std::string& text) {
  auto out = wrap(text, 0, 79 - 24);
  out.pop_back();
  return out;
}

// Lists each command with its one-line summary; the command's own help
// shows its longer description.
class Formatter : public CLI::Formatter {
 public:
  explicit Formatter(const std::vector<CommandSpec>& commands) : commands_(commands) { column_width(24); }
  // Usage first, then what the command does, its options and the exit codes.
  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override {
    if (mode == CLI::AppFormatMode::Sub) return make_expanded(app);
    std::string operands = " COMMAND [ARGS]";
    for (const auto& c : commands_) {
      if (app->get_parent() && c.name == app->get_name()) operands = c.operands.empty() ? "" : " " + c.operands;
    }
    auto out = "Usage: " + name + " [OPTIONS]" + operands + "\n\n" + app->get_description() + make_groups(app, mode) +
               make_subcommands(app, mode) + "\n" + make_footer(app);
    for (std::size_t at; (at = out.find("\n\n\n")) != std::string::npos;) out.erase(at, 1);
    return out;
  }
  std::string make_subcommand(const CLI::App* sub) const override {
    std::stringstream out;
    for (const auto& c : commands_) {
      if (c.name == sub->get_name()) CLI::detail::format_help(out, c.name + " " + c.operands, narrow(c.summary), column_width_);
    }
    return out.str();
  }

 private:
  const std::vector<CommandSpec>& commands_;
};

const char* group_of(Access access) {
  switch (access) {
    case Access::reads:
      return "Commands that only read the index (it is opened read-only)";
    case Access::writes:
      return "Commands that write the index";
    default:
      return "Other commands";
  }
}

}  // namespace

std::string exit_code_help() {
  std::string out = "Exit status:\n";
  for (const auto& [code, text] : kExitCodes) {
    const auto head = "  " + std::to_string(code) + (code < 10 ? "  " : "");
    out += head + wrap(text, head.size());
  }
  return out;
}

const std::vector<OptionSpec>& global_options() {
  static const std::vector<OptionSpec> options{
      {"--db", "PATH",
       "the index file (default: memory/codebase-index/index.db under the repository, the current directory "
       "unless `index` names one; it must not lead out of the repository through a symbolic link)"},
      {"-v,--verbose", "", "show the storage layer's log lines on standard error"},
  };
  return options;
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
    throw UsageError(name + " needs a whole number " + range + ", not '" + *text + "'", command ? command->name : "");
  }
  return v;
}

Invocation parse_args(const std::vector<CommandSpec>& commands, const std::vector<std::string>& args) {
  Invocation inv;
  CLI::App app(kToolDescription, "quorvi-db");
  app.formatter(std::make_shared<Formatter>(commands));
  app.footer("`quorvi-db COMMAND --help` describes a command.\n\n" + exit_code_help());
  app.set_help_flag("-h,--help", "show help and exit");
  app.require_subcommand(0, 1);

  // Each option is bound to its own string, since a global option may appear
  // on both sides of the command.
  struct Bound {
    std::string name;
    CLI::Option* option;
    bool flag;
    const CommandSpec* command;  // the command it was given for; none for the top level
    std::string value;
  };
  std::vector<std::unique_ptr<Bound>> bound;
  auto add = [&](CLI::App& to, const OptionSpec& o, const CommandSpec* command, bool hidden) {
    auto b = std::make_unique<Bound>();
    b->name = o.name.substr(o.name.rfind(',') == std::string::npos ? 0 : o.name.rfind(',') + 1);
    b->command = command;
    b->flag = o.value_name.empty();
    if (b->flag) {
      b->option = to.add_flag(o.name)->description(narrow(o.help))->disable_flag_override();
    } else {
      b->option = to.add_option(o.name, b->value, narrow(o.help))->type_name(o.value_name);
      b->option->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    }
    if (hidden) b->option->group("");
    bound.push_back(std::move(b));
  };
  for (const auto& o : global_options()) add(app, o, nullptr, false);
  // A command's option may also come before the command's name; it is
  // checked against the command once that is known.
  std::set<std::string> early;
  for (const auto& c : commands) {
    for (const auto& o : c.options) {
      if (early.insert(o.name).second) add(app, o, nullptr, true);
    }
  }
  std::vector<std::pair<const CommandSpec*, CLI::App*>> subs;
  for (const auto& c : commands) {
    auto* sub = app.add_subcommand(c.name, c.description + "\n")->group(group_of(c.access));
    if (!c.operands.empty()) {
      std::string name = c.operands;
      std::erase_if(name, [](char ch) { return ch == '[' || ch == ']' || ch == '.'; });
      sub->add_option(name, inv.operands)->group("")->expected(0, 1 << 20);  // counted below
    }
    for (const auto& o : c.options) add(*sub, o, &c, false);
    for (const auto& o : global_options()) add(*sub, o, &c, false);
    subs.emplace_back(&c, sub);
  }

  // CLI11 hands a `--` inside a command back to the top level once the
  // command has an operand, so what follows it is taken here.
  const auto dashes = std::find(args.begin(), args.end(), "--");
  std::vector<std::string> reversed(args.begin(), dashes);
  std::reverse(reversed.begin(), reversed.end());
  auto chosen = [&]() -> const CommandSpec* {
    for (const auto& [c, sub] : subs) {
      if (sub->parsed()) return c;
    }
    return nullptr;
  };
  try {
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    inv.command = chosen();
    inv.help = app.help();
    return inv;
  } catch (const CLI::ParseError& e) {
    const auto* c = chosen();
    const auto rest = app.remaining();
    if (!c && !rest.empty() && !rest.front().starts_with("-")) {
      throw UsageError("unknown command '" + rest.front() + "'");
    }
    throw UsageError(e.what(), c ? c->name : "");
  }
  inv.command = chosen();
  if (!inv.command) throw UsageError("no command given");
  const auto& cmd = *inv.command;
  if (dashes != args.end()) inv.operands.insert(inv.operands.end(), dashes + 1, args.end());

  for (const auto& b : bound) {
    if (b->option->count() == 0 || (b->command && b->command != &cmd)) continue;
    const bool own = std::any_of(cmd.options.begin(), cmd.options.end(), [&](const OptionSpec& o) { return o.name == b->name; });
    const bool global = std::any_of(global_options().begin(), global_options().end(),
                                    [&](const OptionSpec& o) { return o.name.ends_with(b->name); });
    if (!own && !global) throw UsageError("unknown option " + b->name + " for " + cmd.name, cmd.name);
    // The top level's come first, so a value given after the command wins.
    if (b->flag) {
      inv.flags.insert(b->name);
    } else {
      inv.values[b->name] = b->value;
    }
  }
  if (auto db = inv.value("--db"); db && db->empty()) throw UsageError("--db needs a file name, not ''", cmd.name);
  if (inv.operands.size() < cmd.min_operands) throw UsageError(cmd.name + " needs " + cmd.operands, cmd.name);
  if (inv.operands.size() > cmd.max_operands) {
    throw UsageError("too many operands for " + cmd.name + ": '" + inv.operands[cmd.max_operands] + "'", cmd.name);
  }
  return inv;
}

}  // namespace marsk_quorvi::cli
