#include "quorvi/source_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

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

FileHandle& FileHandle::operator=(FileHandle&& o) noexcept {
  if (this != &o) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = o.release();
  }
  return *this;
}

FileHandle::~FileHandle() {
  if (fd_ >= 0) ::close(fd_);
}

int FileHandle::release() noexcept { return std::exchange(fd_, -1); }

FileHandle open_beneath(int root, std::string_view rel, int flags) {
  FileHandle dir;
  int at = root;
  while (true) {
    const auto slash = rel.find('/');
    const std::string segment(rel.substr(0, slash));
    if (segment.empty() || segment == "." || segment == "..") {
      errno = EINVAL;
      return {};
    }
    const bool last = slash == std::string_view::npos;
    FileHandle next(::openat(at, segment.c_str(),
                             O_NOFOLLOW | O_CLOEXEC | (last ? flags : O_RDONLY | O_DIRECTORY | O_NONBLOCK)));
    if (!next || last) return next;
    dir = std::move(next);
    at = dir.get();
    rel.remove_prefix(slash + 1);
  }
}

std::string open_failure(int error_number) {
  // O_NOFOLLOW's ELOOP means a link was met where the walk saw none.
  if (error_number == ELOOP) return "cannot open: a symbolic link, not followed";
  return std::string("cannot open: ") + std::strerror(error_number);
}

SourceText read_source(int root, std::string_view rel, std::int64_t max_bytes, bool keep_open) {
  FileHandle file = open_beneath(root, rel, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file) return failure(IO_ERROR, open_failure(errno));
  struct stat st {};
  if (::fstat(file.get(), &st) != 0) return failure(IO_ERROR, std::string("cannot stat: ") + std::strerror(errno));
  if (!S_ISREG(st.st_mode)) return failure(IO_ERROR, "not a regular file: " + kind_of(st.st_mode));
  const auto size = static_cast<std::int64_t>(st.st_size);
  if (size > max_bytes) {
    return failure(TOO_LARGE_ERROR,
                   std::to_string(size) + " bytes, the limit is " + std::to_string(max_bytes) + " bytes", size);
  }
  SourceText out;
  out.mtime = static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) / 1e9;
  out.text.resize(static_cast<std::size_t>(size));
  std::size_t done = 0;
  while (true) {
    if (done == out.text.size()) out.text.resize(done + 4096);  // the file grew meanwhile
    const ssize_t n = ::read(file.get(), out.text.data() + done, out.text.size() - done);
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
  if (keep_open) out.file = std::move(file);
  return out;
}

namespace {

// The 64-bit hash of four independent lanes over 32-byte stripes, each
// lane's step a multiply, add and rotate: the lanes keep the multiplier
// busy where a byte-at-a-time hash waits on its one product per byte.
constexpr std::uint64_t kP1 = 0x9E3779B185EBCA87ull, kP2 = 0xC2B2AE3D27D4EB4Full, kP3 = 0x165667B19E3779F9ull,
                        kP4 = 0x85EBCA77C2B2AE63ull, kP5 = 0x27D4EB2F165667C5ull;

std::uint64_t word(const unsigned char* p) {
  std::uint64_t w;
  std::memcpy(&w, p, sizeof w);
  return w;  // little-endian hosts: the bytes in order
}

std::uint64_t lane(std::uint64_t acc, std::uint64_t w) { return std::rotl(acc + w * kP2, 31) * kP1; }

std::uint64_t merge(std::uint64_t h, std::uint64_t acc) { return (h ^ lane(0, acc)) * kP1 + kP4; }

std::uint64_t hash64(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = p + text.size();
  std::uint64_t h;
  if (text.size() >= 32) {
    std::uint64_t a = kP1 + kP2, b = kP2, c = 0, d = 0 - kP1;
    for (; end - p >= 32; p += 32) {
      a = lane(a, word(p));
      b = lane(b, word(p + 8));
      c = lane(c, word(p + 16));
      d = lane(d, word(p + 24));
    }
    h = std::rotl(a, 1) + std::rotl(b, 7) + std::rotl(c, 12) + std::rotl(d, 18);
    h = merge(merge(merge(merge(h, a), b), c), d);
  } else {
    h = kP5;
  }
  h += text.size();
  for (; end - p >= 8; p += 8) h = std::rotl(h ^ lane(0, word(p)), 27) * kP1 + kP4;
  for (; p < end; ++p) h = std::rotl(h ^ (*p * kP5), 11) * kP1;
  h ^= h >> 33;
  h *= kP2;
  h ^= h >> 29;
  h *= kP3;
  return h ^ (h >> 32);
}

}  // namespace

std::string content_hash(std::string_view text) {
  char buf[17];
  std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(hash64(text)));
  return buf;
}

std::int64_t count_lines(const std::string& text) {
  if (text.empty()) return 0;
  const auto newlines = static_cast<std::int64_t>(std::count(text.begin(), text.end(), '\n'));
  return text.back() == '\n' ? newlines : newlines + 1;
}

bool valid_utf8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto c = static_cast<unsigned char>(text[i]);
    std::size_t n = 0;
    unsigned min = 0;
    if (c < 0x80) {
      ++i;
      continue;
    }
    if ((c & 0xe0) == 0xc0) {
      n = 1, min = 0x80;
    } else if ((c & 0xf0) == 0xe0) {
      n = 2, min = 0x800;
    } else if ((c & 0xf8) == 0xf0) {
      n = 3, min = 0x10000;
    } else {
      return false;
    }
    if (i + n >= text.size()) return false;
    unsigned code = c & (0x3f >> n);
    for (std::size_t k = 1; k <= n; ++k) {
      const auto d = static_cast<unsigned char>(text[i + k]);
      if ((d & 0xc0) != 0x80) return false;
      code = (code << 6) | (d & 0x3f);
    }
    // Overlong forms, UTF-16 surrogates and code points past U+10FFFF are
    // not UTF-8 either.
    if (code < min || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff)) return false;
    i += n + 1;
  }
  return true;
}

}  // namespace marsk_quorvi::cli
