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
  return tag;
}

std::optional<std::int64_t> parse_ctags_version(std::string_view version_text) {
  static const std::regex pattern(R"(Universal Ctags (\d+)\.(\d+)(?:\.(\d+))?)");
  std::cmatch m;
  if (!std::regex_search(version_text.begin(), version_text.end(), m, pattern)) return std::nullopt;
  auto num = [&](int i) -> std::int64_t { return m[i].matched ? std::stoll(m[i].str()) : 0; };
  return num(1) * 10000 + num(2) * 100 + num(3);
}

Ctags::Ctags(std::string program) : program_(std::move(program)) {
  std::string out;
  ProcessResult r;
  try {
    r = run_process({program_, "--version"}, [&](std::string_view l) {
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
  std::vector<std::string> args{"--output-format=json", "--fields=+neKS", "--sort=no", "-f", "-"};
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

bool Ctags::run(const std::vector<std::string>& files, const std::function<void(Tag&&)>& on_tag,
                std::string& error) const {
  if (files.empty()) return true;
  auto args = arguments(files);
  args.insert(args.begin(), program_);
  const auto r = run_process(args, [&](std::string_view line) {
    if (auto tag = parse_tag_line(line)) on_tag(std::move(*tag));
  });
  if (r.exit_code == 0) return true;
  error = r.signal ? "ctags died of signal " + std::to_string(r.signal)
                   : "ctags exited with status " + std::to_string(r.exit_code);
  if (!r.err.empty()) {
    auto text = r.err;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    error += ": " + text;
  }
  return false;
}

}  // namespace marsk_quorvi::cli
