// SQL functions on repository-relative paths, registered on every connection
// of an index file (the writer and each read connection).
//
//   path_glob(path, pattern) -> 1 or 0: `*` and `?` match within one path
//       segment, `**` across segments (`src/**/*.cpp`), `[abc]` a class; the
//       full syntax is GlobSyntax::path below.
//   path_ext(path)  -> the extension of the last segment, lower-cased, without
//       the dot ('' when it has none; '.bashrc' has none).
//   path_dir(path)  -> everything before the last '/', or ''.
//   path_name(path) -> the last segment.
//
// All are deterministic; a NULL argument gives NULL.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::utils {

enum class GlobSyntax {
  // `*` matches any run of characters within one segment and `?` one
  // character other than '/'. `**` matches any run of characters, '/'
  // included, and `**/` also matches nothing at all, so `src/**/*.py` takes
  // `src/a.py` as well as `src/x/y/a.py`. `[abc]`, `[a-c]` and the negated
  // `[!a-c]` or `[^a-c]` match one character and never '/'; a ']' right
  // after the opening (or after its '!' or '^') is a member, and a '[' with
  // no closing ']' is an ordinary character. Everything else, backslash
  // included, matches itself.
  path,
  // The syntax of .gitignore lines, read one '/'-separated segment at a
  // time: as `path` within a segment, except that a backslash takes the
  // next character literally (inside a class too) and a class may hold
  // named sets such as `[:digit:]` or `[:alpha:]`. `**` crosses segments
  // only as a whole segment: `**/x` is x at any depth, `a/**/b` is b
  // anywhere below a, `a/**` everything below a; anywhere else it is a
  // plain `*`. Neither a class nor an escape reaches past a '/'. A pattern
  // with a segment that ends in a lone backslash, or that names an unknown
  // set, matches nothing.
  gitignore,
};

// A pattern compiled once and matched against any number of paths. A match
// walks the path once, keeping the set of pattern positions reached so far,
// so it costs at most the pattern's length times the path's length whatever
// the pattern holds; runs such as `**/**/` are folded into one `**/` when
// compiling. Immutable after construction; safe to share between threads.
class Glob {
 public:
  explicit Glob(std::string_view pattern, GlobSyntax syntax = GlobSyntax::path);
  bool matches(std::string_view path) const;

 private:
  // `**/` is three pieces: skip (to the `**` or past the '/'), globstar, '/'.
  enum class Op : std::uint8_t { literal, any, set, star, globstar, skip };
  struct Token {
    Op op;
    char c = 0;             // literal
    std::uint32_t set = 0;  // index into sets_
  };
  using ByteSet = std::array<std::uint64_t, 4>;

  void push_star();
  void push_globstar(bool with_slash);
  bool ends_with(Op op) const;
  bool ends_with_globstar_slash() const;
  void close(std::uint64_t* states) const;

  std::vector<Token> tokens_;
  std::vector<ByteSet> sets_;
  bool never_ = false;
};

void register_path_functions(storage::Connection& connection);

// The matcher behind path_glob, for use outside SQL.
bool path_glob(std::string_view path, std::string_view pattern);

}  // namespace marsk_quorvi::utils
