#include "quorvi/subprocess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "marsk_quorvi/errors.hpp"

extern char** environ;

namespace marsk_quorvi::cli {

namespace {

struct Fd {
  int fd = -1;
  ~Fd() { reset(); }
  void reset() {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
};

void make_pipe(Fd& read_end, Fd& write_end) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw OSError(std::string("pipe: ") + std::strerror(errno), errno);
  read_end.fd = fds[0];
  write_end.fd = fds[1];
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& argv,
                          const std::function<void(std::string_view)>& on_line) {
  if (argv.empty()) throw OSError("run_process: no program given", EINVAL);
  Fd out_r, out_w, err_r, err_w;
  make_pipe(out_r, out_w);
  make_pipe(err_r, err_w);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out_w.fd, 1);
  posix_spawn_file_actions_adddup2(&actions, err_w.fd, 2);

  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  pid_t pid = 0;
  const int rc = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw OSError("cannot run " + argv[0] + ": " + std::strerror(rc), rc);
  out_w.reset();
  err_w.reset();

  ProcessResult result;
  std::string pending;
  auto reap = [&] {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
      result.exit_code = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
      result.signal = WTERMSIG(status);
    }
  };

  try {
    std::array<char, 65536> buf{};
    // Both pipes are drained together: a child that fills its error pipe
    // while we wait on its output would otherwise stall for good.
    while (out_r.fd >= 0 || err_r.fd >= 0) {
      pollfd fds[2] = {{out_r.fd, POLLIN, 0}, {err_r.fd, POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0) {
        if (errno == EINTR) continue;
        throw OSError(std::string("poll: ") + std::strerror(errno), errno);
      }
      for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || fds[i].revents == 0) continue;
        const ssize_t n = ::read(fds[i].fd, buf.data(), buf.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
          (i == 0 ? out_r : err_r).reset();
          continue;
        }
        if (i == 1) {
          result.err.append(buf.data(), static_cast<std::size_t>(n));
          continue;
        }
        pending.append(buf.data(), static_cast<std::size_t>(n));
        std::size_t start = 0;
        for (std::size_t nl; (nl = pending.find('\n', start)) != std::string::npos; start = nl + 1) {
          on_line(std::string_view(pending).substr(start, nl - start));
        }
        pending.erase(0, start);
      }
    }
    if (!pending.empty()) on_line(pending);
  } catch (...) {
    ::kill(pid, SIGKILL);
    reap();
    throw;
  }
  reap();
  return result;
}

}  // namespace marsk_quorvi::cli
