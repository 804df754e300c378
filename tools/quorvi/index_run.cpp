#include "quorvi/index_run.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <thread>

#include "marsk_quorvi/errors.hpp"
#include "quorvi/staging.hpp"
#include "quorvi/subprocess.hpp"

namespace marsk_quorvi::cli {

namespace fs = std::filesystem;

namespace {

// What the signal handler removes, prepared beforehand: it may not allocate.
char g_staging[PATH_MAX];
struct sigaction g_saved_int, g_saved_term;

extern "C" void on_signal(int sig) {
  if (g_staging[0]) ::unlink(g_staging);
  terminate_children();
  constexpr char msg[] = "quorvi-db: index: interrupted; its staging file is removed\n";
  [[maybe_unused]] auto n = ::write(STDERR_FILENO, msg, sizeof msg - 1);
  ::_exit(128 + sig);
}

bool alive(pid_t pid) { return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM); }

// The number at the start of `text`.
std::optional<int> leading_int(std::string_view text) {
  int n = 0;
  const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), n);
  if (ec != std::errc() || ptr == text.data()) return std::nullopt;
  return n;
}

std::string read_all(int fd) {
  char buf[64];
  const ssize_t n = ::pread(fd, buf, sizeof buf - 1, 0);
  return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

}  // namespace

std::chrono::milliseconds lock_wait() {
  if (const char* text = std::getenv("QUORVI_DB_LOCK_WAIT_MS")) {
    const std::string_view t(text);
    int ms = 0;
    const auto [ptr, ec] = std::from_chars(t.data(), t.data() + t.size(), ms);
    if (ec == std::errc() && ptr == t.data() + t.size() && !t.empty() && ms >= 0) return std::chrono::milliseconds(ms);
  }
  return std::chrono::milliseconds(5000);
}

IndexRun::IndexRun(const fs::path& db_path, std::chrono::milliseconds wait) {
  fs::path lock_path = db_path;
  lock_path += ".lock";
  // No link is followed: a planted one would have the pid written elsewhere.
  fd_ = ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd_ < 0) raise_os_error(errno, lock_path);
  const auto deadline = std::chrono::steady_clock::now() + wait;
  while (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      const int e = errno;
      ::close(fd_);
      raise_os_error(e, lock_path);
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      std::string holder = read_all(fd_);
      ::close(fd_);
      if (auto pid = leading_int(holder)) holder = "pid " + std::to_string(*pid);
      else holder = "pid unknown";
      throw IndexLocked("another `quorvi-db index` run (" + holder + ") is writing " + db_path.string() +
                        "; waited " + std::to_string(wait.count()) + " ms for it (lock file " + lock_path.string() + ")");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const auto pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd_, 0) != 0 || ::pwrite(fd_, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    const int e = errno;
    ::close(fd_);
    raise_os_error(e, lock_path);
  }

  // With the lock held no other run is writing: a staging file of a pid that
  // is gone was left by a killed run.
  const std::string prefix = db_path.filename().string() + ".staging-";
  std::error_code ec;
  for (fs::directory_iterator it(db_path.parent_path().empty() ? "." : db_path.parent_path(), ec), end;
       !ec && it != end; it.increment(ec)) {
    const auto name = it->path().filename().string();
    if (!name.starts_with(prefix)) continue;
    const auto pid = leading_int(std::string_view(name).substr(prefix.size()));
    if (pid && !alive(*pid) && fs::remove(it->path(), ec)) ++leftovers_;
  }

  std::random_device random;
  char tag[16];
  std::snprintf(tag, sizeof tag, "%08x", random());
  staging_ = db_path;
  staging_ += ".staging-" + std::to_string(::getpid()) + "-" + tag;
  // Reserved with O_EXCL, so that nothing planted under the name is written through.
  const int sfd = ::open(staging_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (sfd < 0) {
    const int e = errno;
    ::close(fd_);
    raise_os_error(e, staging_);
  }
  ::close(sfd);

  if (staging_.native().size() < sizeof g_staging) std::memcpy(g_staging, staging_.c_str(), staging_.native().size() + 1);
  struct sigaction action {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, &g_saved_int);
  ::sigaction(SIGTERM, &action, &g_saved_term);
}

IndexRun::~IndexRun() {
  ::sigaction(SIGINT, &g_saved_int, nullptr);
  ::sigaction(SIGTERM, &g_saved_term, nullptr);
  g_staging[0] = '\0';
  remove_database_files(staging_);
  ::close(fd_);
}

}  // namespace marsk_quorvi::cli
