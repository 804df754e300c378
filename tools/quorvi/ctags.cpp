#include "quorvi/ctags.hpp"

#include <nlohmann/json.hpp>

#include <regex>

#include "marsk_quorvi/errors.hpp"
#include "quorvi/language.hpp"
#include "quorvi/subprocess.hpp"

namespace marsk_quorvi::cli {

namespace {

std::optional<std::string> text_member(const nlohmann::json& j, const char* key) {
  auto it = j.find(key);
  if (it == j.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

std::optional<std::int64_t> int_member(const nlohmann::json& j, const char* key) {
  auto it = j.find(key);
  if (it == j.end() || !it->is_number_integer()) return std::nullopt;
  return it->get<std::int64_t>();
}

// Keeps ctags from reading .ctags.d in the working and the home directory;
// it must come before every other option.
constexpr const char* kNoOptionFiles = "--options=NONE";

// What ctags says on standard error when it reads no option files.
constexpr std::string_view kNoOptionsNotice = "ctags: Notice: No options will be read";

// ctags only warns, and exits 0, when it cannot open an input file; the
// reason follows this marker on the same line.
constexpr std::string_view kCannotOpen = "cannot open input file \"";

// ctags' standard error without the notice that every run prints.
std::string complaints(const std::string& err) {
  std::string out;
  std::size_t start = 0;
  while (start < err.size()) {
    auto end = err.find('\n', start);
    if (end == std::string::npos) end = err.size();
    auto line = std::string_view(err).substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.empty() && !line.starts_with(kNoOptionsNotice)) (out += out.empty() ? "" : "\n") += line;
    start = end + 1;
  }
  return out;
}

}  // namespace

std::optional<Tag> parse_tag_line(std::string_view line) {
  if (line.empty() || line.front() != '{') return std::nullopt;
  auto j = nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (!j.is_object()) return std::nullopt;
  auto type = text_member(j, "_type");
  if (!type || *type != "tag") return std::nullopt;
  auto name = text_member(j, "name");
  auto path = text_member(j, "path");
  auto line_no = int_member(j, "line");
  if (!name || !path || !line_no) return std::nullopt;
  Tag tag;
  tag.path = std::move(*path);
  tag.name = std::move(*name);
  tag.kind = text_member(j, "kind").value_or("");
  tag.line = *line_no;
  tag.end_line = int_member(j, "end");
  tag.signature = text_member(j, "signature");
  tag.scope = text_member(j, "scope");
  tag.scope_kind = text_member(j, "scopeKind");
  tag.roles = text_member(j, "roles").value_or("");
  tag.nameref = text_member(j, "nameref");
  return tag;
}

std::string CtagsVersion::text() const {
  return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

std::ostream& operator<<(std::ostream& out, const CtagsVersion& v) { return out << v.text(); }

std::optional<CtagsVersion> parse_ctags_version(std::string_view version_text) {
  // Two digits at most per part: the stamp number gives each part two.
  static const std::regex pattern(R"(Universal Ctags (\d{1,2})\.(\d{1,2})(?:\.(\d{1,2}))?(?!\d))");
  std::cmatch m;
  if (!std::regex_search(version_text.begin(), version_text.end(), m, pattern)) return std::nullopt;
  auto num = [&](int i) -> std::int64_t { return m[i].matched ? std::stoll(m[i].str()) : 0; };
  return CtagsVersion{num(1), num(2), num(3)};
}

Ctags::Ctags(std::string program) : program_(std::move(program)) {
  std::string out;
  ProcessResult r;
  try {
    r = run_process({program_, kNoOptionFiles, "--version"}, [&](std::string_view l) {
      out.append(l);
      out.push_back('\n');
    });
  } catch (const OSError& e) {
    throw RuntimeError("Universal Ctags is needed to extract symbols (" + std::string(e.what()) +
                       "); install the Debian package universal-ctags");
  }
  auto v = parse_ctags_version(out);
  if (r.exit_code != 0 || !v) {
    throw RuntimeError("'" + program_ + "' is not Universal Ctags; install the Debian package universal-ctags");
  }
  if (out.find("+json") == std::string::npos) {
    throw RuntimeError("'" + program_ + "' was built without JSON output; install the Debian package universal-ctags");
  }
  version_ = *v;
}

std::vector<std::string> Ctags::arguments(const std::vector<std::string>& files) {
  std::vector<std::string> args{"--output-format=json", "--fields=+neKSr-Pft", "--sort=no", "-f",
                                "-",  "--extras=+r",         "--kinds-C=+px", "--kinds-C++=+px"};
  std::string languages = "--languages=";
  for (const auto& lang : parsed_languages()) {
    if (languages.back() != '=') languages += ',';
    languages += *ctags_parser(lang);
  }
  args.push_back(languages);
  // Read every file as the index names its language, whatever ctags' own
  // extension map would have picked.
  for (const auto& [parser, ext] : parsed_extensions()) args.push_back("--map-" + parser + "=+." + ext);
  args.insert(args.end(), files.begin(), files.end());
  return args;
}

bool Ctags::run(const std::vector<std::string>& files, const std::function<void(Tag&&)>& on_tag, std::string& error,
                const std::vector<int>& inherit) const {
  if (files.empty()) return true;
  auto args = arguments(files);
  args.insert(args.begin(), {program_, kNoOptionFiles});
  const auto r = run_process(
      args,
      [&](std::string_view line) {
        if (auto tag = parse_tag_line(line)) on_tag(std::move(*tag));
      },
      inherit);
  const auto text = complaints(r.err);
  if (r.exit_code == 0) {
    // The names given are the caller's own, so only the reason is told.
    const auto at = text.find(kCannotOpen);
    if (at == std::string::npos) return true;
    const auto end = text.find('\n', at);
    const auto line = std::string_view(text).substr(at, end == std::string::npos ? end : end - at);
    const auto reason = line.rfind("\" : ");
    error = "ctags cannot open the file";
    if (reason != std::string_view::npos) error += ": " + std::string(line.substr(reason + 4));
    return false;
  }
  error = r.signal ? "ctags died of signal " + std::to_string(r.signal)
                   : "ctags exited with status " + std::to_string(r.exit_code);
  if (!text.empty()) error += ": " + text;
  return false;
}

}  // namespace marsk_quorvi::cli
