// SQL functions on repository-relative paths, registered on every connection
// of an index file (the writer and each read connection).
//
//   path_glob(path, pattern) -> 1 or 0: `*` and `?` match within one path
//       segment, `**` across segments (`src/**/*.cpp`), `[abc]` a class.
//   path_ext(path)  -> the extension of the last segment, lower-cased, without
//       the dot ('' when it has none; '.bashrc' has none).
//   path_dir(path)  -> everything before the last '/', or ''.
//   path_name(path) -> the last segment.
//
// All are deterministic; a NULL argument gives NULL.
#pragma once

#include <string_view>

#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::utils {

void register_path_functions(storage::Connection& connection);

// The matcher behind path_glob, for use outside SQL.
bool path_glob(std::string_view path, std::string_view pattern);

}  // namespace marsk_quorvi::utils
