// Reading a file's text for the index, or saying why it cannot be indexed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace marsk_quorvi::cli {

// The index_errors kinds this tool records.
inline constexpr const char* IO_ERROR = "io_error";
inline constexpr const char* BINARY_ERROR = "binary_file";
inline constexpr const char* TOO_LARGE_ERROR = "file_too_large";
inline constexpr const char* PARSE_ERROR = "parse_error";

// Files above this many bytes keep out of the index (generated code and
// data dumps, mostly): 1 MiB.
inline constexpr std::int64_t DEFAULT_MAX_FILE_BYTES = 1048576;

// How far into a file a NUL byte marks it as binary.
inline constexpr std::size_t BINARY_SNIFF_BYTES = 8000;

struct SourceText {
  // Empty when the text was read; otherwise one of the kinds above.
  std::string error_type;
  std::string message;  // why, when error_type is set
  std::string text;
  std::int64_t size = 0;

  bool ok() const noexcept { return error_type.empty(); }
};

// Reads `path` (following a symbolic link). A file that cannot be opened or
// read, or that is not a regular file, gives IO_ERROR; one larger than
// `max_bytes` gives TOO_LARGE_ERROR without being read; one with a NUL byte
// in its first BINARY_SNIFF_BYTES gives BINARY_ERROR. Never raises for what
// the file system does. Opens without blocking, so a FIFO cannot hang it.
SourceText read_source(const std::filesystem::path& path, std::int64_t max_bytes = DEFAULT_MAX_FILE_BYTES);

// Lines in `text`: a last line without a newline counts; "" has 0.
std::int64_t count_lines(const std::string& text);

}  // namespace marsk_quorvi::cli
