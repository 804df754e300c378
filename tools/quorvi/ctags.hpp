// Symbol extraction with Universal Ctags, run as a child process with JSON
// output.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace marsk_quorvi::cli {

// One tag: a symbol ctags found in a file.
struct Tag {
  std::string path;  // as passed to ctags
  std::string name;
  std::string kind;  // full kind name ("function", "class", "member")
  std::int64_t line = 0;
  std::optional<std::int64_t> end_line;
  std::optional<std::string> signature;
  std::optional<std::string> scope;       // enclosing symbol's name
  std::optional<std::string> scope_kind;  // and its kind
  bool operator==(const Tag&) const = default;
};

// One line of `ctags --output-format=json`: a tag, or none for pseudo-tags,
// blank lines and anything else that is not a tag.
std::optional<Tag> parse_tag_line(std::string_view line);

// "Universal Ctags 5.9.0(...)" -> 50900: major * 10000 + minor * 100 +
// patch, the extractor version recorded for every parsed language. None
// for text that names no Universal Ctags version.
std::optional<std::int64_t> parse_ctags_version(std::string_view version_text);

class Ctags {
 public:
  // `program` is looked up on PATH. Raises marsk_quorvi::RuntimeError with
  // a clear message when it is missing or is not Universal Ctags with JSON
  // output.
  explicit Ctags(std::string program = "ctags");

  std::int64_t version() const noexcept { return version_; }
  const std::string& program() const noexcept { return program_; }

  // Extracts the tags of `files` in one run. Give absolute paths: ctags has
  // no end-of-options marker, so a relative name that begins with '-' would
  // be taken for an option.
  // `on_tag` gets each tag as it is read. Returns false with `error`
  // set when ctags failed (exit status or signal); tags handed over before
  // the failure stay handed over.
  bool run(const std::vector<std::string>& files, const std::function<void(Tag&&)>& on_tag,
           std::string& error) const;

  // The ctags argument list for `files`, without the program name.
  static std::vector<std::string> arguments(const std::vector<std::string>& files);

 private:
  std::string program_;
  std::int64_t version_ = 0;
};

}  // namespace marsk_quorvi::cli
