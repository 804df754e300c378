#include "quorvi/language.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace marsk_quorvi::cli {

namespace {

struct Parsed {
  const char* language;
  const char* parser;  // ctags' name
};

// Languages whose symbols are worth extracting. Markup and data formats are
// left out on purpose: headings and JSON keys would drown the real symbols.
constexpr std::array<Parsed, 19> kParsed{{
    {"c", "C"},         {"cmake", "CMake"}, {"cpp", "C++"},     {"csharp", "C#"},       {"go", "Go"},
    {"java", "Java"},   {"javascript", "JavaScript"},           {"kotlin", "Kotlin"},   {"lua", "Lua"},
    {"make", "Make"},   {"perl", "Perl"},   {"php", "PHP"},     {"protobuf", "Protobuf"}, {"python", "Python"},
    {"ruby", "Ruby"},   {"rust", "Rust"},   {"shell", "Sh"},    {"sql", "SQL"},         {"typescript", "TypeScript"},
}};

constexpr std::pair<const char*, const char*> kNames[] = {
    {"CMakeLists.txt", "cmake"}, {"Makefile", "make"}, {"makefile", "make"}, {"GNUmakefile", "make"},
    {"Dockerfile", "dockerfile"},
};

// Extension (without the dot) -> language. Looked up as written first, then
// lower-cased, so `.C`/`.H` keep their C++ meaning while `.PY` still counts.
constexpr std::pair<const char*, const char*> kExtensions[] = {
    {"c", "c"},          {"h", "cpp"},         {"C", "cpp"},        {"H", "cpp"},       {"cc", "cpp"},
    {"cpp", "cpp"},      {"cxx", "cpp"},       {"c++", "cpp"},      {"cp", "cpp"},      {"hh", "cpp"},
    {"hpp", "cpp"},      {"hxx", "cpp"},       {"h++", "cpp"},      {"hp", "cpp"},      {"inl", "cpp"},
    {"ipp", "cpp"},      {"tcc", "cpp"},       {"cs", "csharp"},    {"go", "go"},       {"java", "java"},
    {"js", "javascript"}, {"jsx", "javascript"}, {"mjs", "javascript"}, {"ts", "typescript"}, {"kt", "kotlin"},
    {"kts", "kotlin"},   {"lua", "lua"},       {"mk", "make"},      {"mak", "make"},    {"pl", "perl"},
    {"pm", "perl"},      {"php", "php"},       {"py", "python"},    {"pyi", "python"},  {"pyx", "python"},
    {"rb", "ruby"},      {"rs", "rust"},       {"scala", "scala"},  {"sh", "shell"},    {"bash", "shell"},
    {"zsh", "shell"},    {"ksh", "shell"},     {"sql", "sql"},      {"swift", "swift"}, {"proto", "protobuf"},
    {"cmake", "cmake"},  {"md", "markdown"},   {"markdown", "markdown"}, {"rst", "rst"}, {"json", "json"},
    {"yml", "yaml"},     {"yaml", "yaml"},     {"toml", "toml"},    {"ini", "ini"},     {"cfg", "ini"},
    {"xml", "xml"},      {"html", "html"},     {"htm", "html"},     {"css", "css"},     {"txt", "text"},
};

std::string lower(std::string_view s) {
  std::string out(s);
  for (auto& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::optional<std::string> by_extension(std::string_view ext) {
  for (const auto& [e, lang] : kExtensions) {
    if (ext == e) return lang;
  }
  return std::nullopt;
}

}  // namespace

std::string language_for(std::string_view file_name) {
  for (const auto& [name, lang] : kNames) {
    if (file_name == name) return lang;
  }
  const auto dot = file_name.rfind('.');
  // A leading dot alone (".bashrc") is a hidden name, not an extension.
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == file_name.size()) return TEXT_LANGUAGE;
  const auto ext = file_name.substr(dot + 1);
  if (auto lang = by_extension(ext)) return *lang;
  if (auto lang = by_extension(lower(ext))) return *lang;
  return TEXT_LANGUAGE;
}

std::optional<std::string> ctags_parser(std::string_view language) {
  for (const auto& p : kParsed) {
    if (language == p.language) return p.parser;
  }
  return std::nullopt;
}

std::vector<std::pair<std::string, std::string>> parsed_extensions() {
  std::vector<std::pair<std::string, std::string>> out;
  for (const auto& [ext, lang] : kExtensions) {
    if (auto parser = ctags_parser(lang)) out.emplace_back(*parser, ext);
  }
  return out;
}

std::vector<std::string> parsed_languages() {
  std::vector<std::string> out;
  for (const auto& p : kParsed) out.emplace_back(p.language);
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace marsk_quorvi::cli
