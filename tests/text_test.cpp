// Rules on text, on their own: the size of the read pool, which statements a
// read connection may run, the glob engine in both its syntaxes and the SQL
// path functions, and the quoted form that "%r" log arguments take.
#include <gtest/gtest.h>

#include "marsk_quorvi/utils/path_filter.hpp"
#include "storage/log.hpp"
#include "support/access_checks.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
namespace mu = marsk_quorvi::utils;
using marsk_quorvi::testing::raised;
using marsk_quorvi::testing::ScopedEnv;

namespace {

TEST(Classification, ReaderCountReadStatementsAndWhatAReaderCannotServe) {
  const std::pair<std::optional<std::string>, int> counts[] = {
      {std::nullopt, 6}, {"", 6},   {"   ", 6},  {"abc", 6},   {"4.5", 6},  {"+5", 5},       {"-1", 0},
      {"0", 0},          {"32", 32}, {"33", 32}, {" 7 ", 7},   {"100", 32}, {"0x10", 6},     {"8 readers", 6},
      {"\t12\n", 12},    {"+", 6},   {"--1", 6}, {"99999999999999999999999", 32}};
  for (const auto& [value, expected] : counts) {
    ScopedEnv env(mq::detail::kReadersEnv, value);
    EXPECT_EQ(mq::reader_count(), expected) << value.value_or("<unset>");
  }
  for (const char* sql : {"  select * from files", "With t AS (SELECT 1) SELECT * FROM t", "WITHOUT", "SELECTED",
                          "\n\tSELECT 1", "pragma user_version", " PRAGMA user_version ;; ", "PRAGMA user_version;"}) {
    EXPECT_TRUE(mq::detail::_is_read_statement(sql)) << "'" << sql << "'";
  }
  for (const char* sql : {"PRAGMA user_version=5", "PRAGMA user_version = 5", "PRAGMA user_version; ;",
                          "PRAGMA  user_version", "PRAGMA main.user_version", "INSERT INTO files (path) VALUES ('a')",
                          "-- note\nSELECT 1", "(SELECT 1)", "EXPLAIN SELECT 1", "VALUES (1)", "PRAGMA page_count", "",
                          "   ", "SELEC"}) {
    EXPECT_FALSE(mq::detail::_is_read_statement(sql)) << "'" << sql << "'";
  }
  for (const auto& [message, expected] :
       {std::pair{"attempt to write a readonly database", true}, {"UNABLE TO OPEN DATABASE FILE", true},
        {"Attempt To Write A ReadOnly Database", true}, {"database is locked", false}, {"", false}}) {
    EXPECT_EQ(mq::detail::_reader_cannot_serve(mq::OperationalError(message)), expected) << message;
  }
}

// The rows of `query` on a connection with the path functions ("a|b;" per row), or its error.
std::string run(const std::string& query, const mq::Params& params = {}) {
  static const auto conn = [] {
    auto c = mq::Connection::open(":memory:");
    mu::register_path_functions(*c);
    return c;
  }();
  return marsk_quorvi::testing::rows_or_error([&] { return conn->execute(query, params).fetchall(); });
}

TEST(PathFilter, GlobInBothSyntaxes) {
  const auto rep = [](const std::string& s, int n) { std::string r; while (n-- > 0) r += s; return r; };
  const std::tuple<std::string, std::string, bool, bool> cases[] = {
      // pattern, path, matched in the path syntax, matched as a .gitignore line
      {"*.py", "main.py", 1, 1}, {"*.py", "src/main.py", 0, 0}, {"*.py", "Main.PY", 0, 0},
      {"src/*.py", "src/main.py", 1, 1}, {"src/*.py", "src/pkg/main.py", 0, 0}, {"src/**/*.py", "src/main.py", 1, 1},
      {"src/**/*.py", "src/a/b/c/main.py", 1, 1}, {"src/**/*.py", "lib/a/main.py", 0, 0}, {"**/*.py", "main.py", 1, 1},
      {"**/*.py", "a/b/main.py", 1, 1}, {"**/*.py", "a/b/main.pyc", 0, 0}, {"src/**", "src/anything/at/all", 1, 1},
      {"src/**", "src", 0, 0}, {"src/**", "src/", 1, 1}, {"src/?.c", "src/a.c", 1, 1}, {"src/?.c", "src/ab.c", 0, 0},
      {"src?a/c", "src/a/c", 0, 0}, {"[abc].c", "a.c", 1, 1}, {"[abc].c", "d.c", 0, 0}, {"[!abc].c", "d.c", 1, 1},
      {"[^a]x", "bx", 1, 1}, {"[a-c].c", "b.c", 1, 1}, {"[a-c].c", "x.c", 0, 0}, {"[]]", "]", 1, 1},
      {"[a-]", "-", 1, 1}, {"", "", 1, 1}, {"*", "", 1, 1}, {"", "a", 0, 0},
      // A class never matches '/', nor in .gitignore lines reaches past one; an unclosed '[' is literal.
      {"a[/]c", "a/c", 0, 0}, {"a[/]c", "a[/]c", 0, 1}, {"[.c", "[.c", 1, 1}, {"[a-", "[a-", 1, 0},
      // Runs of stars fold to the meaning of the whole run; in .gitignore lines only a segment `**` crosses '/'.
      {"a/**/**/**/b", "a/b", 1, 1}, {"a/**/**/**/b", "a/x/y/b", 1, 1}, {"***/b", "b", 0, 0},
      {"***/b", "x/y/b", 1, 0}, {"****/b", "xb", 1, 0}, {"a**b", "ax/yb", 1, 0}, {"a**b", "axyb", 1, 1},
      {"**/b", "ab", 0, 0},
      // Escapes, named sets and unsigned byte ranges are for .gitignore lines.
      {"a\\*", "a*", 0, 1}, {"a\\*", "a\\x", 1, 0}, {"a\\", "a\\", 1, 0}, {"a\\/b", "a\\/b", 1, 0},
      {"[\\]]", "]", 0, 1}, {"[[:digit:]]x", "7x", 0, 1}, {"[[:digit:]]x", "d]x", 1, 0},
      {"[[:nope:]]", "n]", 1, 0}, {"[a-\xff]", "b", 0, 1},
      // Backtracking would take years over these.
      {rep("**a", 10) + "b", rep("a", 80), 0, 0}, {rep("**a", 10) + "b", rep("a", 80) + "b", 1, 1},
      {rep("**/a/", 10) + "b", rep("a/", 40) + "c", 0, 0}, {rep("**/a/", 10) + "b", rep("a/", 40) + "b", 1, 1},
      {rep("**/", 300) + "x", rep("d/", 40) + "x", 1, 1}, {rep("*a", 150), rep("a", 150), 1, 1},
      {rep("*a", 150), rep("a", 149), 0, 0},
  };
  for (const auto& [pattern, path, in_path_syntax, as_gitignore] : cases) {
    const std::string what = "'" + pattern + "' ~ '" + path + "'";
    EXPECT_EQ(mu::path_glob(path, pattern), in_path_syntax) << what;
    EXPECT_EQ(run("SELECT path_glob(?, ?)", {path, pattern}), in_path_syntax ? "1;" : "0;") << what;
    EXPECT_EQ(mu::Glob(pattern, mu::GlobSyntax::gitignore).matches(path), as_gitignore) << what;
  }
}

TEST(PathFilter, PathFunctionsThroughSqlOnTheConnectionsThatRegisteredThem) {
  const std::pair<mq::Value, const char*> parts[] = {
      {"src/pkg/Mod.PY", "py|src/pkg|Mod.PY;"}, {"archive.tar.gz", "gz||archive.tar.gz;"}, {"Makefile", "||Makefile;"},
      {"home/.bashrc", "|home|.bashrc;"}, {"dir.d/file", "|dir.d|file;"}, {"trailing.", "||trailing.;"},
      {"a/b/", "|a/b|;"}, {"", "||;"}, {mq::Value(), "NULL|NULL|NULL;"}};
  for (const auto& [p, want] : parts) EXPECT_EQ(run("SELECT path_ext(?), path_dir(?), path_name(?)", {p, p, p}), want);
  EXPECT_EQ(run("SELECT path_glob(NULL, '*'), path_glob('a', NULL)"), "NULL|NULL;");
  // A pattern that changes from row to row is not taken for the one before.
  EXPECT_EQ(run("SELECT sum(path_glob(column1, column2)) FROM (VALUES ('a.c', '*.c'), ('a.c', '*.h'), ('b.h', '*.h'))"),
            "2;");
  auto bare = mq::Connection::open(":memory:");
  EXPECT_EQ(raised([&] { bare->execute("SELECT path_ext('a.b')"); }), "OperationalError: no such function: path_ext");
  bare->close();
  EXPECT_EQ(raised([&] { mu::register_path_functions(*bare); }), "Error: Cannot operate on a closed database.");
}

TEST(QuotedRepr, FormsAsPythonsRepr) {
  const std::pair<std::string, std::string> cases[] = {
      {"[1, 2]", "'[1, 2]'"}, {"", "''"}, {"it's", R"("it's")"}, {R"(say "hi")", R"('say "hi"')"},
      {R"(a'b"c)", R"('a\'b"c')"}, {"back\\slash", R"('back\\slash')"}, {"a\nb\tc\rd", R"('a\nb\tc\rd')"},
      {std::string("\x00\x01\x1f\x7f", 4), R"('\x00\x01\x1f\x7f')"},
      // Printable beyond ASCII: a letter, an emoji, the last variation selector. Then controls, separators and
      // format characters; unassigned code points, a noncharacter, private use and the last code point.
      {"caf\xc3\xa9 \xf0\x9f\x98\x80 \xf3\xa0\x87\xaf", "'caf\xc3\xa9 \xf0\x9f\x98\x80 \xf3\xa0\x87\xaf'"},
      {"\xc2\x85\xc2\xa0\xc2\xad", R"('\x85\xa0\xad')"},
      {"\xe2\x80\xae\xe2\x81\xa6\xe2\x81\xa0", R"('\u202e\u2066\u2060')"},
      {"\xe2\x80\x83\xe3\x80\x80\xe2\x80\xa8\xef\xbb\xbf\xf3\xa0\x80\x81", R"('\u2003\u3000\u2028\ufeff\U000e0001')"},
      {"\xcd\xb7\xcd\xb8\xcd\xb9\xcd\xba", "'\xcd\xb7\\u0378\\u0379\xcd\xba'"},
      {"\xef\xbf\xbf\xee\x80\x80\xf3\xb0\x80\x80\xf4\x8f\xbf\xbf", R"('\uffff\ue000\U000f0000\U0010ffff')"},
      // Bytes that are not UTF-8 (a stray continuation byte, a lead byte cut short, an overlong form and an encoded
      // surrogate) read apart from the control character of the same number.
      {"\x85", R"('\udc85')"}, {"\xf0\x9f\x98", R"('\udcf0\udc9f\udc98')"}, {"\xc0\xaf", R"('\udcc0\udcaf')"},
      {"\xed\xa0\x80!", R"('\udced\udca0\udc80!')"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(mq::detail::quoted_repr(text), expected) << expected;
}

}  // namespace
