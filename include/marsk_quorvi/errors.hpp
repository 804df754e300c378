// Errors of the library that are not SQLite's own (those are storage::Error
// and storage::OperationalError in storage/sqlite.hpp).
#pragma once

#include <stdexcept>
#include <string>

namespace marsk_quorvi {

// A handle used without a writer connection ("Database is closed.", "Database
// not connected. Call connect() first.").
class RuntimeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A failing operating-system call (file status, free space). `error_number()`
// is the errno the call reported, 0 when there was none.
class OSError : public std::runtime_error {
 public:
  explicit OSError(const std::string& message, int error_number = 0)
      : std::runtime_error(message), errno_(error_number) {}
  int error_number() const noexcept { return errno_; }

 private:
  int errno_;
};

class FileNotFoundError : public OSError {
 public:
  using OSError::OSError;
};

}  // namespace marsk_quorvi
