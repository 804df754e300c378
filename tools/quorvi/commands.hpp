// quorvi-db's commands.
#pragma once

#include <filesystem>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "quorvi/args.hpp"

namespace marsk_quorvi::cli {

// The index file of a repository, where the service keeps it.
std::filesystem::path default_index_path(const std::filesystem::path& repo);

// `text` with what a terminal would act on made visible as \xNN: control
// characters (but tab), DEL, the C1 controls and bytes that are not UTF-8.
std::string escape_unprintable(std::string_view text);

// The command table: parsing, help and dispatch all come from it.
const std::vector<CommandSpec>& command_specs();

// Runs quorvi-db with `args` (without the program name), writing results to
// `out` and messages to `err`; returns the exit code (ExitCode). `self` is
// the running executable, from which `bench` finds the build's bench/ folder;
// `terminal` says that `out` is a terminal, which gets paths and snippets
// with escape_unprintable. Sets up the module logger for the tool (warnings
// on standard error, the debug lines too with --verbose).
int run_tool(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
             const std::filesystem::path& self, bool terminal);

}  // namespace marsk_quorvi::cli
