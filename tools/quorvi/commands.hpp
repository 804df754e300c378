// quorvi-db's commands.
#pragma once

#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

namespace marsk_quorvi::cli {

// The index file of a repository, where the service keeps it.
std::filesystem::path default_index_path(const std::filesystem::path& repo);

// Runs quorvi-db with `args` (without the program name), writing results to
// `out` and messages to `err`; returns the exit code (ExitCode). `self` is
// the running executable, from which `bench` finds the build's bench/ folder.
// Sets up the module logger for the tool (warnings on standard error, the
// debug lines too with --verbose).
int run_tool(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
             const std::filesystem::path& self);

}  // namespace marsk_quorvi::cli
