// The tool's parts on their own: the command line, .gitignore rules, the
// language table, ctags' output and the process runner.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quorvi/args.hpp"
#include "quorvi/ctags.hpp"
#include "quorvi/gitignore.hpp"
#include "quorvi/language.hpp"
#include "quorvi/subprocess.hpp"

using namespace marsk_quorvi::cli;

namespace {

// An invocation in one line, or the refusal with the command it concerns.
std::string parsed(const std::vector<std::string>& args) {
  try {
    const auto inv = parse_args(args);
    std::string out = inv.command + (inv.help ? " (help)" : "");
    for (const auto& [name, value] : inv.values) out += " " + name + "=" + value;
    for (const auto& name : inv.flags) out += " " + name;
    for (const auto& operand : inv.operands) out += " '" + operand + "'";
    return out;
  } catch (const UsageError& e) {
    return "refused (" + e.command() + "): " + e.what();
  }
}

}  // namespace

TEST(Args, ParsesOptionsAnywhereOrRefusesWithAClearMessage) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"--db", "/x/index.db", "search", "--limit=5", "foo", "bar", "-v"},
       "search --db=/x/index.db --limit=5 --verbose 'foo' 'bar'"},
      {{"--limit", "3", "errors"}, "errors --limit=3"},  // a command option before its command
      {{"search", "--", "-leading", "--db"}, "search '-leading' '--db'"},
      {{"index", "-"}, "index '-'"},
      {{"swap", "--help"}, "swap (help) --help"},  // --help wins over a missing operand
      {{"-h"}, " (help) --help"},
      {{}, "refused (): no command given"},
      {{"frobnicate"}, "refused (): unknown command 'frobnicate'"},
      {{"--bogus", "stats"}, "refused (): unknown option --bogus"},
      {{"stats", "--bogus"}, "refused (stats): unknown option --bogus"},
      {{"--limit", "3", "stats"}, "refused (stats): unknown option --limit for stats"},
      {{"index", "a", "b"}, "refused (index): too many operands for index: 'b'"},
      {{"swap"}, "refused (swap): swap needs STAGING"},
      {{"stats", "--db"}, "refused (stats): --db needs a value (PATH)"},
      {{"stats", "--verbose=yes"}, "refused (stats): --verbose takes no value"},
  };
  for (const auto& [args, expected] : cases) EXPECT_EQ(parsed(args), expected);
  for (const char* text : {"0", "10", "5x", ""}) {
    EXPECT_THAT([&] { parse_args({"search", "--limit", text, "q"}).int_value("--limit", 20, 1, 9); },
                ::testing::ThrowsMessage<UsageError>("--limit needs a whole number from 1 to 9, not '" +
                                                     std::string(text) + "'"));
  }
  EXPECT_EQ(parse_args({"search", "--limit=1", "q"}).int_value("--limit", 20, 1, 9), 1);
  EXPECT_EQ(parse_args({"search", "--limit=9", "q"}).int_value("--limit", 20, 1, 9), 9);
  EXPECT_EQ(parse_args({"search", "q"}).int_value("--limit", 20, 1, 9), 20);
}

TEST(IgnoreRules, MatchesLikeGit) {
  // Rules, path (a trailing '/' asks about a directory), whether it is ignored.
  const std::tuple<const char*, std::string_view, bool> cases[] = {
      {"*.o", "a.o", true}, {"*.o", "src/deep/a.o", true}, {"*.o", "a.oo", false}, {"build/", "build/", true},
      {"build/", "build", false}, {"build/", "src/build/", true}, {"/build", "build", true},
      {"/build", "src/build/", false}, {"doc/*.txt", "doc/a.txt", true}, {"doc/*.txt", "doc/sub/a.txt", false},
      {"doc/*.txt", "x/doc/a.txt", false}, {"**/gen", "gen/", true}, {"**/gen", "a/b/gen/", true},
      {"a/**/z", "a/z", true}, {"a/**/z", "a/b/c/z", true}, {"out/**", "out/", false}, {"out/**", "out/x", true},
      {"*.log\n!keep.log", "keep.log", false}, {"*.log\n!keep.log", "other.log", true},
      {"!keep.log\n*.log", "keep.log", true}, {"# comment\n\n  \n", "# comment", false}, {"\\#lit", "#lit", true},
      {"\\!bang", "!bang", true}, {"trail   ", "trail", true}, {"sp\\ ", "sp ", true}, {"crlf.txt\r\n", "crlf.txt", true},
      {"file[0-9].c", "file7.c", true}, {"file[!0-9].c", "file7.c", false}, {"?.c", "ab.c", false},
  };
  for (const auto& [rules, path, ignored] : cases) {
    const bool is_dir = path.ends_with('/');
    EXPECT_EQ(IgnoreRules(rules).ignored(path.substr(0, path.size() - is_dir), is_dir), ignored) << rules << " " << path;
  }
}

TEST(Language, ByNameAndExtension) {
  const std::pair<const char*, const char*> cases[] = {
      {"a.h", "cpp"},      {"a.C", "cpp"},    {"a.PY", "python"},    {"CMakeLists.txt", "cmake"}, {"Makefile", "make"},
      {".bashrc", "text"}, {"noext", "text"}, {"trailing.", "text"}, {"a.tar.gz", "text"},        {"x.mk", "make"},
  };
  for (const auto& [name, lang] : cases) EXPECT_EQ(language_for(name), lang) << name;
  EXPECT_EQ(ctags_parser("cpp"), "C++");
  EXPECT_EQ(ctags_parser("markdown"), std::nullopt);
  // ctags is told to read a .h file as C++, the language the index gives it.
  const auto mapped = parsed_extensions();
  EXPECT_NE(std::find(mapped.begin(), mapped.end(), std::pair<std::string, std::string>("C++", "h")), mapped.end());
}

TEST(CtagsOutput, ParsesTagLinesAndVersions) {
  EXPECT_EQ(parse_tag_line(R"({"_type": "tag", "name": "X", "path": "a.c", "line": 7, "end": "9", "scope": 1})"),
            (Tag{"a.c", "X", "", 7, std::nullopt, std::nullopt, std::nullopt, std::nullopt}));
  for (const char* other : {"", "not json", "{\"_type\": \"ptag\", \"name\": \"JSON_OUTPUT_VERSION\", \"path\": \"a\", "
                            "\"line\": 1}", "{\"_type\": \"tag\", \"name\": \"x\", \"path\": \"a.c\"}", "{broken"}) {
    EXPECT_EQ(parse_tag_line(other), std::nullopt) << other;
  }
  EXPECT_EQ(parse_ctags_version("Universal Ctags 6.1.2(v6.1.2), Copyright"), 60102);
  EXPECT_EQ(parse_ctags_version("Universal Ctags 5.9(p5.9.20220828.0)"), 50900);
  EXPECT_EQ(parse_ctags_version("Exuberant Ctags 5.8, Copyright"), std::nullopt);
}

TEST(Subprocess, ReportsTheSignalAndEndsTheChildWhenTheLineHandlerThrows) {
  std::vector<std::string> lines;
  const auto r = run_process({"sh", "-c", "printf '$HOME\\none'; kill -9 $$"}, [&](std::string_view l) {
    lines.emplace_back(l);
  });
  EXPECT_EQ(lines, (std::vector<std::string>{"$HOME", "one"}));  // the last line without its newline too
  EXPECT_EQ(r.signal, 9);
  EXPECT_EQ(r.exit_code, -1);
  EXPECT_THROW(run_process({"yes"}, [](std::string_view) { throw std::runtime_error("enough"); }), std::runtime_error);
}
