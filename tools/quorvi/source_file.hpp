// Reading a file's text for the index, or saying why it cannot be indexed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace marsk_quorvi::cli {

// The index_errors kinds this tool records.
inline constexpr char IO_ERROR[] = "io_error";
inline constexpr char BINARY_ERROR[] = "binary_file";
inline constexpr char TOO_LARGE_ERROR[] = "file_too_large";
inline constexpr char PARSE_ERROR[] = "parse_error";
// A symbolic link whose target lies outside the repository: never read.
inline constexpr char OUTSIDE_ERROR[] = "outside_repository";

// Files above this many bytes keep out of the index (generated code and
// data dumps, mostly): 1 MiB.
inline constexpr std::int64_t DEFAULT_MAX_FILE_BYTES = 1048576;

// How far into a file a NUL byte marks it as binary.
inline constexpr std::size_t BINARY_SNIFF_BYTES = 8000;

// An open file descriptor, closed with its owner.
class FileHandle {
 public:
  FileHandle() = default;
  explicit FileHandle(int fd) noexcept : fd_(fd) {}
  FileHandle(FileHandle&& o) noexcept : fd_(o.release()) {}
  FileHandle& operator=(FileHandle&& o) noexcept;
  ~FileHandle();
  int get() const noexcept { return fd_; }
  int release() noexcept;
  explicit operator bool() const noexcept { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// Opens `rel` ('/'-separated, relative) beneath the directory open as
// `root`, one segment at a time with O_NOFOLLOW: a symbolic link at any step
// fails the open with ELOOP, so what is opened lies inside `root` even when
// the tree changes meanwhile. `flags` are added for the last segment (the
// folders on the way are opened as O_DIRECTORY). Returns an invalid handle
// with errno set on failure.
FileHandle open_beneath(int root, std::string_view rel, int flags);

// The text for "cannot open: ..." of an errno from open_beneath.
std::string open_failure(int error_number);

struct SourceText {
  // Empty when the text was read; otherwise one of the kinds above.
  std::string error_type;
  std::string message;  // why, when error_type is set
  std::string text;
  std::int64_t size = 0;
  std::optional<double> mtime;  // of the file read, seconds since the epoch
  FileHandle file;              // the file read, when asked to keep it open

  bool ok() const noexcept { return error_type.empty(); }
};

// Reads `rel` beneath the directory open as `root` (see open_beneath: no
// symbolic link is followed). A file that cannot be opened or read, or that
// is not a regular file (checked on the open file, so a file replaced after
// the walk is judged as it is), gives IO_ERROR; one larger than `max_bytes`
// gives TOO_LARGE_ERROR without being read; one with a NUL byte in its first
// BINARY_SNIFF_BYTES gives BINARY_ERROR. Never raises for what the file
// system does. Opens without blocking, so a FIFO cannot hang it. With
// `keep_open` the file stays open in `file` once read.
SourceText read_source(int root, std::string_view rel, std::int64_t max_bytes = DEFAULT_MAX_FILE_BYTES,
                       bool keep_open = false);

// A 64-bit hash of the text as 16 hex digits: the content hash stored per
// file, at memory speed, so cheap enough for every file of a large tree.
std::string content_hash(std::string_view text);

// Lines in `text`: a last line without a newline counts; "" has 0.
std::int64_t count_lines(const std::string& text);

// Whether `text` is valid UTF-8 (what ctags can name in its JSON output).
bool valid_utf8(std::string_view text);

}  // namespace marsk_quorvi::cli
