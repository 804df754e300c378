#include "quorvi/source_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace marsk_quorvi::cli {

namespace {

SourceText failure(const char* type, std::string message, std::int64_t size = 0) {
  SourceText out;
  out.error_type = type;
  out.message = std::move(message);
  out.size = size;
  return out;
}

std::string kind_of(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a fifo";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
  return "a special file";
}

}  // namespace

SourceText read_source(const std::filesystem::path& path, std::int64_t max_bytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return failure(IO_ERROR, std::string("cannot open: ") + std::strerror(errno));
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0) return failure(IO_ERROR, std::string("cannot stat: ") + std::strerror(errno));
  if (!S_ISREG(st.st_mode)) return failure(IO_ERROR, "not a regular file: " + kind_of(st.st_mode));
  const auto size = static_cast<std::int64_t>(st.st_size);
  if (size > max_bytes) {
    return failure(TOO_LARGE_ERROR,
                   std::to_string(size) + " bytes, the limit is " + std::to_string(max_bytes) + " bytes", size);
  }
  SourceText out;
  out.text.resize(static_cast<std::size_t>(size));
  std::size_t done = 0;
  while (true) {
    if (done == out.text.size()) out.text.resize(done + 4096);  // the file grew meanwhile
    const ssize_t n = ::read(fd, out.text.data() + done, out.text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return failure(IO_ERROR, std::string("cannot read: ") + std::strerror(errno), size);
    }
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
    if (static_cast<std::int64_t>(done) > max_bytes) {
      return failure(TOO_LARGE_ERROR,
                     "more than " + std::to_string(max_bytes) + " bytes, the limit is " + std::to_string(max_bytes) +
                         " bytes",
                     static_cast<std::int64_t>(done));
    }
  }
  out.text.resize(done);
  out.size = static_cast<std::int64_t>(done);
  const auto sniff = std::min(done, BINARY_SNIFF_BYTES);
  const auto nul = out.text.find('\0');
  if (nul != std::string::npos && nul < sniff) {
    return failure(BINARY_ERROR, "binary content: a NUL byte at offset " + std::to_string(nul), out.size);
  }
  return out;
}

std::int64_t count_lines(const std::string& text) {
  if (text.empty()) return 0;
  const auto newlines = static_cast<std::int64_t>(std::count(text.begin(), text.end(), '\n'));
  return text.back() == '\n' ? newlines : newlines + 1;
}

}  // namespace marsk_quorvi::cli
