#include "quorvi/language.hpp"

#include <algorithm>
#include <array>
#include <regex>
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

bool text_may_decide_language(std::string_view rel_path) {
  const auto name = rel_path.substr(rel_path.rfind('/') + 1);
  return name.find('.') == std::string_view::npos && language_for(name) == TEXT_LANGUAGE;
}

std::string language_of(std::string_view rel_path, std::string_view head) {
  const auto slash = rel_path.rfind('/');
  const auto name = rel_path.substr(slash + 1);
  if (!text_may_decide_language(rel_path)) return language_for(name);
  // Emacs reads its mode line from the first line, or the second after a
  // "#!" line; a few more lines allow for a licence banner's opening.
  std::size_t end = 0;
  for (int line = 0; line < 3 && end != std::string_view::npos; ++line) {
    end = head.find('\n', end);
    if (end != std::string_view::npos) ++end;
  }
  static const std::regex mode(R"(-\*-[^\n]*[^a-z]c\+\+[^\n]*-\*-)", std::regex::icase);
  const auto lines = head.substr(0, std::min(end, std::size_t{1024}));
  if (std::regex_search(lines.begin(), lines.end(), mode)) return "cpp";
  static const std::regex library_name("[a-z][a-z0-9_]*");
  if (slash == std::string_view::npos || !std::regex_match(name.begin(), name.end(), library_name)) {
    return TEXT_LANGUAGE;
  }
  const std::string folders = "/" + std::string(rel_path.substr(0, slash)) + "/";
  const bool include_tree = folders.find("/include/") != std::string::npos || folders.find("/c++/") != std::string::npos;
  return include_tree ? "cpp" : TEXT_LANGUAGE;
}

std::optional<std::string> extension_for(std::string_view language) {
  for (const auto& [ext, lang] : kExtensions) {
    if (language == lang) return ext;
  }
  return std::nullopt;
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
