// Symbol extraction with Universal Ctags, run as a child process with JSON
// output.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
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
  // For a reference tag (an include, an import): its roles, comma-separated
  // ("system", "imported"). Empty, or "def", for a definition.
  std::string roles;
  // "kind:name" of what a definition stands for (an import's alias).
  std::optional<std::string> nameref;
  bool operator==(const Tag&) const = default;
  bool is_reference() const noexcept { return !roles.empty() && roles != "def"; }
};

// One line of `ctags --output-format=json`: a tag, or none for pseudo-tags,
// blank lines and anything else that is not a tag.
std::optional<Tag> parse_tag_line(std::string_view line);
// The same into `tag`, whose fields keep their buffers where they can: true
// for a tag; otherwise `tag` holds nothing of use.
bool parse_tag_line(std::string_view line, Tag& tag);

// A ctags release. It prints as people write it ("5.9.0") and converts to
// the number recorded as the extractor version of every parsed language:
// major * 10000 + minor * 100 + patch (50900), which grows with each release.
struct CtagsVersion {
  std::int64_t major = 0, minor = 0, patch = 0;
  std::int64_t number() const noexcept { return major * 10000 + minor * 100 + patch; }
  operator std::int64_t() const noexcept { return number(); }
  std::string text() const;
};
std::ostream& operator<<(std::ostream& out, const CtagsVersion& v);

// "Universal Ctags 5.9.0(...)" -> 5.9.0; a missing patch level is 0. None
// for text that names no Universal Ctags version.
std::optional<CtagsVersion> parse_ctags_version(std::string_view version_text);

class Ctags {
 public:
  // `program` is looked up on PATH. Raises marsk_quorvi::RuntimeError with
  // a clear message when it is missing or is not Universal Ctags with JSON
  // output.
  explicit Ctags(std::string program = "ctags");

  const CtagsVersion& version() const noexcept { return version_; }
  const std::string& program() const noexcept { return program_; }

  // Extracts the tags of `files` in one run. Give absolute paths: ctags has
  // no end-of-options marker, so a relative name that begins with '-' would
  // be taken for an option. ctags reads no option files (--options=NONE), so
  // neither the working directory's nor the home directory's .ctags.d
  // changes what it extracts. The descriptors in `inherit` stay open in it.
  // `on_tag` gets each tag as it is read. Returns false with `error`
  // set when ctags failed (exit status or signal) or could not open one of
  // the files; tags handed over before the failure stay handed over.
  bool run(const std::vector<std::string>& files, const std::function<void(Tag&&)>& on_tag, std::string& error,
           const std::vector<int>& inherit = {}) const;

  // The ctags argument list for `files`, without the program name and the
  // leading --options=NONE: JSON with line, end, scope kind, signature and
  // roles; C and C++ prototypes and extern variables; reference tags, from
  // which includes and imports are taken.
  static std::vector<std::string> arguments(const std::vector<std::string>& files);

 private:
  std::string program_;
  CtagsVersion version_;
};

}  // namespace marsk_quorvi::cli
