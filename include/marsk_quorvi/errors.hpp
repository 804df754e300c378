// Every exception the library throws derives from `QuorviError`, so a caller
// catches the library's failures in one clause and still tells the kinds
// apart by type when it needs to.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace marsk_quorvi {

// The common base. `kind()` is the class's own name ("OSError", ...), which
// log lines print in front of the message.
class QuorviError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  [[nodiscard]] virtual const char* kind() const noexcept = 0;
};

// A handle used without a writer connection ("Database is closed.", "Database
// not connected. Call connect() first.").
class RuntimeError : public QuorviError {
 public:
  using QuorviError::QuorviError;
  [[nodiscard]] const char* kind() const noexcept override { return "RuntimeError"; }
};

// A failing operating-system call (file status, free space, making the index
// directory). `error_number()` is the errno it reported (0 when none) and
// `path()` the file it concerned (empty when none).
class OSError : public QuorviError {
 public:
  explicit OSError(const std::string& message, int error_number = 0, std::filesystem::path path = {})
      : QuorviError(message), errno_(error_number), path_(std::move(path)) {}
  [[nodiscard]] int error_number() const noexcept { return errno_; }
  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
  [[nodiscard]] const char* kind() const noexcept override { return "OSError"; }

 private:
  int errno_;
  std::filesystem::path path_;
};

class FileNotFoundError : public OSError {
 public:
  using OSError::OSError;
  [[nodiscard]] const char* kind() const noexcept override { return "FileNotFoundError"; }
};

// "[Errno 2] No such file or directory: '/x'": the errno, its text and the
// path. Raises FileNotFoundError for ENOENT, OSError otherwise.
[[noreturn]] void raise_os_error(int error_number, const std::filesystem::path& path);

namespace storage {

// A file that holds no index: an empty file, or a database without the
// index's own tables. Raised only where opening must not change the file.
class NotAnIndexError : public QuorviError {
 public:
  using QuorviError::QuorviError;
  [[nodiscard]] const char* kind() const noexcept override { return "NotAnIndexError"; }
};

// Every SQLite failure. The message is SQLite's own text; `code()` is the
// (extended) result code that SQLite returned and `system_errno()` the errno
// of the file operation behind it (0 when none). The predicates sort the codes
// into what a caller acts on, so that no caller needs SQLite's numbers.
class Error : public QuorviError {
 public:
  explicit Error(const std::string& message, int code = 1, int system_errno = 0)
      : QuorviError(message), code_(code), errno_(system_errno) {}
  [[nodiscard]] int code() const noexcept { return code_; }
  [[nodiscard]] int system_errno() const noexcept { return errno_; }
  [[nodiscard]] bool busy() const noexcept;               // another connection holds a lock
  [[nodiscard]] bool damaged() const noexcept;            // a corrupt file, or not a database
  [[nodiscard]] bool cannot_open() const noexcept;        // the file could not be opened
  [[nodiscard]] bool permission_denied() const noexcept;  // no right to read or write it
  [[nodiscard]] const char* kind() const noexcept override { return "Error"; }

 private:
  int code_;
  int errno_;
};

// Failures of the database's operation rather than of the statement's data:
// a statement that cannot be prepared (missing table, syntax), a busy or
// locked file, a read-only database, a file that cannot be opened, I/O
// errors, a full disk.
class OperationalError : public Error {
 public:
  using Error::Error;
  [[nodiscard]] const char* kind() const noexcept override { return "OperationalError"; }
};

// The read pool cannot hand out a connection (it is closed); the query then
// runs on the writer connection instead, so callers of `Database` never see it.
class ReaderUnavailable : public QuorviError {
 public:
  using QuorviError::QuorviError;
  [[nodiscard]] const char* kind() const noexcept override { return "ReaderUnavailable"; }
};

namespace migrations {

// A failed migration step; the file keeps the version before that step.
class SchemaMigrationError : public QuorviError {
 public:
  using QuorviError::QuorviError;
  [[nodiscard]] const char* kind() const noexcept override { return "SchemaMigrationError"; }
};

}  // namespace migrations
}  // namespace storage
}  // namespace marsk_quorvi
