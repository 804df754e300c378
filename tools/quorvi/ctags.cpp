#include "quorvi/ctags.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <regex>

#include "marsk_quorvi/errors.hpp"
#include "quorvi/language.hpp"
#include "quorvi/subprocess.hpp"

namespace marsk_quorvi::cli {

namespace {

using namespace std::literals;

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

namespace {

// A JSON string from `at` (just past its opening quote) into `out`; the
// position past its closing quote, or npos for what only the full parser
// should judge (a control character, a bad escape).
std::size_t read_string(std::string_view s, std::size_t at, std::string& out) {
  out.clear();
  while (at < s.size()) {
    // The plain run up to the next quote, backslash or control character,
    // appended at once.
    std::size_t end = at;
    while (end < s.size() && s[end] != '"' && s[end] != '\\' && static_cast<unsigned char>(s[end]) >= 0x20) ++end;
    out.append(s.data() + at, end - at);
    at = end;
    if (at >= s.size()) break;
    const char c = s[at++];
    if (c == '"') return at;
    if (c != '\\') return std::string_view::npos;  // a control character
    if (at >= s.size()) break;
    switch (const char e = s[at++]) {
      case '"': case '\\': case '/': out += e; break;
      case 'b': out += '\b'; break;
      case 'f': out += '\f'; break;
      case 'n': out += '\n'; break;
      case 'r': out += '\r'; break;
      case 't': out += '\t'; break;
      default: return std::string_view::npos;  // \u and anything else
    }
  }
  return std::string_view::npos;
}

std::size_t skip_blanks(std::string_view s, std::size_t at) {
  while (at < s.size() && (s[at] == ' ' || s[at] == '\t' || s[at] == '\r' || s[at] == '\n')) ++at;
  return at;
}

// The string members of a tag line and the field each fills: a text, or an
// optional text (the other pointer null).
struct StringMember {
  std::string_view key;
  std::string Tag::*text;
  std::optional<std::string> Tag::*optional;
};
constexpr StringMember kStringMembers[] = {
    {"name", &Tag::name, nullptr},           {"path", &Tag::path, nullptr},
    {"kind", &Tag::kind, nullptr},           {"roles", &Tag::roles, nullptr},
    {"signature", nullptr, &Tag::signature}, {"scope", nullptr, &Tag::scope},
    {"scopeKind", nullptr, &Tag::scope_kind}, {"nameref", nullptr, &Tag::nameref}};

// What the quick reader made of a line.
enum class Flat { tag, other, unreadable };

// Every field empty, keeping the buffers that a field holds.
void clear(Tag& tag) {
  tag.path.clear();
  tag.name.clear();
  tag.kind.clear();
  tag.line = 0;
  tag.end_line.reset();
  tag.signature.reset();
  tag.scope.reset();
  tag.scope_kind.reset();
  tag.roles.clear();
  tag.nameref.reset();
}

// The flat objects ctags writes, read without building a document: strings,
// integers, true, false and null values, ASCII only. Unreadable when the
// line holds anything else, which the full parser then reads.
Flat parse_flat(std::string_view s, Tag& tag) {
  if (std::any_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; })) {
    return Flat::unreadable;
  }
  clear(tag);
  bool is_tag = false, has_name = false, has_path = false, has_line = false;
  std::string key, other;
  std::size_t at = skip_blanks(s, 1), close = std::string_view::npos;
  if (at < s.size() && s[at] == '}') close = at;
  while (close == std::string_view::npos) {
    if (at >= s.size() || s[at] != '"' || (at = read_string(s, at + 1, key)) == std::string_view::npos) {
      return Flat::unreadable;
    }
    at = skip_blanks(s, at);
    if (at >= s.size() || s[at] != ':') return Flat::unreadable;
    at = skip_blanks(s, at + 1);
    if (at >= s.size()) return Flat::unreadable;
    // A string value is read straight into the field of its key (keys are
    // told apart by their length before their bytes), so that a field keeps
    // its buffer from one line to the next; later members win, as in the
    // full parser.
    const std::string_view k = key;
    std::string* field = &other;
    std::optional<std::string>* optional = nullptr;
    for (const auto& m : kStringMembers) {
      if (k != m.key) continue;
      if (m.text) field = &(tag.*m.text);
      else optional = &(tag.*m.optional);
      break;
    }
    bool str = false;
    std::optional<std::int64_t> num;
    if (s[at] == '"') {
      if (optional) field = &optional->emplace();
      if ((at = read_string(s, at + 1, *field)) == std::string_view::npos) return Flat::unreadable;
      str = true;
    } else {
      field->clear();
      if (optional) optional->reset();
      if (s[at] == '-' || (s[at] >= '0' && s[at] <= '9')) {
        std::int64_t v = 0;
        const auto [end, ec] = std::from_chars(s.data() + at, s.data() + s.size(), v);
        const bool leading_zero = s.substr(at).starts_with("0") && end - (s.data() + at) > 1;
        if (ec != std::errc() || leading_zero || (end < s.data() + s.size() && std::strchr(".eE", *end))) {
          return Flat::unreadable;
        }
        at = static_cast<std::size_t>(end - s.data());
        num = v;
      } else {
        bool literal = false;
        for (std::string_view word : {"true", "false", "null"}) literal = literal || s.substr(at).starts_with(word);
        if (!literal) return Flat::unreadable;
        at += s[at] == 'f' ? 5 : 4;
      }
    }
    if (k == "_type"sv) {
      is_tag = str && other == "tag"sv;
    } else if (k == "name"sv) {
      has_name = str;
    } else if (k == "path"sv) {
      has_path = str;
    } else if (k == "line"sv) {
      has_line = num.has_value();
      tag.line = num.value_or(0);
    } else if (k == "end"sv) {
      tag.end_line = num;
    }
    at = skip_blanks(s, at);
    if (at < s.size() && s[at] == ',') {
      at = skip_blanks(s, at + 1);
    } else if (at < s.size() && s[at] == '}') {
      close = at;
    } else {
      return Flat::unreadable;
    }
  }
  if (skip_blanks(s, close + 1) != s.size()) return Flat::unreadable;
  return is_tag && has_name && has_path && has_line ? Flat::tag : Flat::other;
}

}  // namespace

bool parse_tag_line(std::string_view line, Tag& tag) {
  if (line.empty() || line.front() != '{') return false;
  // Every line of a run goes through here: the common case is read without
  // building a JSON document, the rest by the full parser.
  if (const auto flat = parse_flat(line, tag); flat != Flat::unreadable) return flat == Flat::tag;
  auto j = nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (!j.is_object()) return false;
  auto type = text_member(j, "_type");
  if (!type || *type != "tag") return false;
  auto name = text_member(j, "name");
  auto path = text_member(j, "path");
  auto line_no = int_member(j, "line");
  if (!name || !path || !line_no) return false;
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
  return true;
}

std::optional<Tag> parse_tag_line(std::string_view line) {
  Tag tag;
  if (!parse_tag_line(line, tag)) return std::nullopt;
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
      // One tag, filled line after line: what on_tag leaves in it (the
      // path, say) keeps its buffer for the next.
      [&, tag = Tag()](std::string_view line) mutable {
        if (parse_tag_line(line, tag)) on_tag(std::move(tag));
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
