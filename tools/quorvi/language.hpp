// The language of a file, told by its name the way the indexer and Universal
// Ctags tell it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace marsk_quorvi::cli {

// The language stored for a file that no rule names: its text is still
// indexed for search, but no symbols are extracted from it.
inline constexpr const char* TEXT_LANGUAGE = "text";

// The language of a file from its name (the last path segment): by whole
// name first (`CMakeLists.txt`, `Makefile`), then by extension, compared
// as ctags compares it (case matters where ctags says it does: `.C` is C++,
// `.R` is R). TEXT_LANGUAGE when nothing matches.
std::string language_for(std::string_view file_name);

// Whether the text of the file at `rel_path` ('/'-separated) can decide its
// language: a name without an extension that no rule names.
bool text_may_decide_language(std::string_view rel_path);

// The language of the file at `rel_path` whose text begins with `head`: as
// language_for tells it, except that a name without an extension is C++
// when an editor mode line in its first lines says so (`-*- C++ -*-`) or
// when it looks like a standard library header (lower-case letters, digits
// and '_', as `vector` or `string_view`) in a folder below one named
// `include` or `c++`.
std::string language_of(std::string_view rel_path, std::string_view head);

// An extension that ctags reads as `language` (the first the table gives
// it), for a file whose own name would not tell ctags.
std::optional<std::string> extension_for(std::string_view language);

// The Universal Ctags parser name of a language whose symbols are extracted
// ("C++" for "cpp"), none for a language that only contributes text.
std::optional<std::string> ctags_parser(std::string_view language);

// (ctags parser, extension) for every extension this table gives a parsed
// language, so that ctags can be told to read each file as the index does.
std::vector<std::pair<std::string, std::string>> parsed_extensions();

// Every language with a ctags parser, sorted: the keys of the extractor stamp.
std::vector<std::string> parsed_languages();

}  // namespace marsk_quorvi::cli
