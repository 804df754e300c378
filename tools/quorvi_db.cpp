// quorvi-db: builds, inspects, checks, compacts and replaces the index file of
// a repository through the storage layer. See `quorvi-db --help`.
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "quorvi/commands.hpp"

namespace {

// The running executable, from which `bench` finds the build's bench/ folder.
std::filesystem::path self_path(const char* argv0) {
  char buf[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n > 0) return std::filesystem::path(std::string(buf, static_cast<std::size_t>(n)));
  return std::filesystem::absolute(argv0);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  return marsk_quorvi::cli::run_tool(args, std::cout, std::cerr, self_path(argv[0]), ::isatty(STDOUT_FILENO) == 1);
}
