#include "quorvi/subprocess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
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

// The live children, for terminate_children to reach from a signal handler:
// a fixed array of lock-free atomics, since a handler may neither lock nor
// allocate. A slot is 0 when free. More children than slots at once would
// only go unsignalled; they still die with the tool.
constexpr std::size_t kChildSlots = 1024;
std::array<std::atomic<pid_t>, kChildSlots> g_children{};
static_assert(std::atomic<pid_t>::is_always_lock_free);
// Set for good by terminate_children: a tool that is stopping starts no
// more children (a failed batch would otherwise be retried file by file).
std::atomic<bool> g_stopping{false};
static_assert(std::atomic<bool>::is_always_lock_free);

std::size_t track(pid_t pid) {
  for (std::size_t i = 0; i < kChildSlots; ++i) {
    pid_t expected = 0;
    if (g_children[i].compare_exchange_strong(expected, pid)) return i;
  }
  return kChildSlots;
}

// The program file execve is to run: looked up on PATH here, because the
// child of a threaded process may only make async-signal-safe calls, which
// execvp's search is not.
std::string find_program(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const char* path = std::getenv("PATH");
  std::string_view dirs = path && *path ? path : "/usr/local/bin:/usr/bin:/bin";
  while (true) {
    const auto colon = dirs.find(':');
    const auto dir = dirs.substr(0, colon);
    std::string candidate = (dir.empty() ? std::string(".") : std::string(dir)) + "/" + name;
    struct stat st {};
    if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
    if (colon == std::string_view::npos) break;
    dirs.remove_prefix(colon + 1);
  }
  throw OSError("cannot run " + name + ": " + std::strerror(ENOENT), ENOENT);
}

// The child's side, between fork and exec. Reports the errno of what failed
// on `report` and exits.
[[noreturn]] void become_child(pid_t parent, const char* program, char* const* args, int out_w, int err_w,
                               int report, const std::vector<int>& inherit) {
  // Dies with the thread that forked it; a parent gone already before the
  // request took hold is seen as a changed parent pid.
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) ::_exit(127);
  // Every signal is blocked here (see run_process): the parent's handlers,
  // which would run on the parent's memory, go before any may arrive.
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  for (int sig : {SIGPIPE, SIGINT, SIGTERM}) ::sigaction(sig, &dfl, nullptr);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  const int in = ::open("/dev/null", O_RDONLY);
  bool ok = in >= 0 && ::dup2(in, 0) == 0 && ::dup2(out_w, 1) == 1 && ::dup2(err_w, 2) == 2;
  for (std::size_t i = 0; ok && i < inherit.size(); ++i) ok = ::fcntl(inherit[i], F_SETFD, 0) == 0;
  if (ok) ::execve(program, args, environ);
  const int e = errno;
  [[maybe_unused]] const auto n = ::write(report, &e, sizeof e);
  ::_exit(127);
}

}  // namespace

void terminate_children() noexcept {
  g_stopping.store(true);
  for (auto& slot : g_children) {
    const pid_t pid = slot.load();
    if (pid > 0) ::kill(pid, SIGTERM);
  }
}

ProcessResult run_process(const std::vector<std::string>& argv,
                          const std::function<void(std::string_view)>& on_line, const std::vector<int>& inherit) {
  if (argv.empty()) throw OSError("run_process: no program given", EINVAL);
  if (g_stopping.load()) throw OSError("not running " + argv[0] + ": stopping", EINTR);
  const std::string program = find_program(argv[0]);
  Fd out_r, out_w, err_r, err_w, report_r, report_w;
  make_pipe(out_r, out_w);
  make_pipe(err_r, err_w);
  make_pipe(report_r, report_w);

  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  const pid_t parent = ::getpid();
  // vfork: the child borrows this process's memory until its exec instead
  // of copying its page tables, which costs in proportion to the memory an
  // index pass holds, once per ctags run. The child only makes
  // async-signal-safe calls, with every signal blocked until it has reset
  // the handlers it would otherwise share.
  sigset_t all, saved;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &saved);
  const pid_t pid = ::vfork();
  if (pid == 0) become_child(parent, program.c_str(), args.data(), out_w.fd, err_w.fd, report_w.fd, inherit);
  const int fork_errno = errno;
  ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  if (pid < 0) throw OSError("cannot run " + argv[0] + ": " + std::strerror(fork_errno), fork_errno);
  const std::size_t slot = track(pid);
  // Forked while terminate_children ran: it may have missed this slot, but
  // then its flag is seen here.
  if (g_stopping.load()) ::kill(pid, SIGTERM);
  out_w.reset();
  err_w.reset();
  report_w.reset();

  ProcessResult result;
  auto reap = [&] {
    // Waited for without reaping first: a zombie's pid cannot be handed to
    // another process, so terminate_children never signals a stranger.
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
    if (slot < kChildSlots) g_children[slot].store(0);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
      result.exit_code = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
      result.signal = WTERMSIG(status);
    }
  };

  int exec_errno = 0;
  ssize_t got = 0;
  while ((got = ::read(report_r.fd, &exec_errno, sizeof exec_errno)) < 0 && errno == EINTR) {
  }
  if (got == static_cast<ssize_t>(sizeof exec_errno)) {
    reap();
    throw OSError("cannot run " + argv[0] + ": " + std::strerror(exec_errno), exec_errno);
  }

  std::string pending;
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
