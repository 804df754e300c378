// The glob engine in both its syntaxes, and the SQL path functions called
// through SQL on a real connection.
#include <gtest/gtest.h>

#include "marsk_quorvi/utils/path_filter.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
namespace mu = marsk_quorvi::utils;
using marsk_quorvi::testing::TempDirTest;

namespace {

class PathFilter : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    conn = mq::Connection::open(path("a.db").string());
    mu::register_path_functions(*conn);
  }
  mq::Value call(const std::string& sql, const mq::Params& params) {
    return conn->execute(sql, params).fetchone().value()[0];
  }
  std::shared_ptr<mq::Connection> conn;
};

TEST_F(PathFilter, GlobInBothSyntaxes) {
  struct Case {
    std::string pattern, path;
    bool path_syntax, gitignore;
  };
  const auto rep = [](const std::string& s, int n) { std::string r; while (n-- > 0) r += s; return r; };
  const std::vector<Case> cases = {
      {"*.py", "main.py", 1, 1}, {"*.py", "src/main.py", 0, 0}, {"*.py", "Main.PY", 0, 0},
      {"src/*.py", "src/main.py", 1, 1}, {"src/*.py", "src/pkg/main.py", 0, 0}, {"src/**/*.py", "src/main.py", 1, 1},
      {"src/**/*.py", "src/a/b/c/main.py", 1, 1}, {"src/**/*.py", "lib/a/main.py", 0, 0}, {"**/*.py", "main.py", 1, 1},
      {"**/*.py", "a/b/main.py", 1, 1}, {"**/*.py", "a/b/main.pyc", 0, 0}, {"src/**", "src/anything/at/all", 1, 1},
      {"src/**", "src", 0, 0}, {"src/**", "src/", 1, 1}, {"src/?.c", "src/a.c", 1, 1}, {"src/?.c", "src/ab.c", 0, 0},
      {"src?a/c", "src/a/c", 0, 0}, {"[abc].c", "a.c", 1, 1}, {"[abc].c", "d.c", 0, 0}, {"[!abc].c", "d.c", 1, 1},
      {"[^a]x", "bx", 1, 1}, {"[a-c].c", "b.c", 1, 1}, {"[a-c].c", "x.c", 0, 0}, {"[]]", "]", 1, 1},
      {"[a-]", "-", 1, 1}, {"", "", 1, 1}, {"*", "", 1, 1}, {"", "a", 0, 0},
      // A class never matches '/', nor in .gitignore lines reaches past one;
      // an unclosed '[' is literal, unless a range is cut off there.
      {"a[/]c", "a/c", 0, 0}, {"a[/]c", "a[/]c", 0, 1}, {"[.c", "[.c", 1, 1}, {"[a-", "[a-", 1, 0},
      // Runs of stars fold with the exact meaning of the whole run; only a
      // whole segment `**` crosses segments in .gitignore lines.
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
  for (const auto& c : cases) {
    const std::string what = "'" + c.pattern + "' ~ '" + c.path + "'";
    EXPECT_EQ(mu::path_glob(c.path, c.pattern), c.path_syntax) << what;
    EXPECT_EQ(call("SELECT path_glob(?, ?)", {c.path, c.pattern}).as_int(), c.path_syntax ? 1 : 0) << what;
    EXPECT_EQ(mu::Glob(c.pattern, mu::GlobSyntax::gitignore).matches(c.path), c.gitignore) << what;
  }
}

TEST_F(PathFilter, ExtDirName) {
  const std::pair<const char*, const char*> cases[] = {
      {"src/pkg/Mod.PY", "py|src/pkg|Mod.PY"}, {"archive.tar.gz", "gz||archive.tar.gz"}, {"Makefile", "||Makefile"},
      {"home/.bashrc", "|home|.bashrc"}, {"dir.d/file", "|dir.d|file"}, {"trailing.", "||trailing."},
      {"a/b/", "|a/b|"}, {"", "||"}};
  for (const auto& [p, want] : cases) {
    EXPECT_EQ(call("SELECT path_ext(?) || '|' || path_dir(?) || '|' || path_name(?)", {p, p, p}).as_text(), want) << p;
  }
}

TEST_F(PathFilter, NullInNullOut) {
  const char* calls[] = {"SELECT path_glob(NULL, '*')", "SELECT path_glob('a', NULL)", "SELECT path_ext(NULL)",
                         "SELECT path_dir(NULL)", "SELECT path_name(NULL)"};
  for (const char* sql : calls) EXPECT_TRUE(call(sql, {}).is_null()) << sql;
}

TEST_F(PathFilter, UsableInQueriesAndOnlyWhereRegistered) {
  conn->execute("CREATE TABLE files (path TEXT)");
  conn->executemany("INSERT INTO files (path) VALUES (?)",
                    {{"src/a.py"}, {"src/b.cpp"}, {"src/x/c.py"}, {"tests/d.py"}, {"README"}});
  auto rows = conn->execute("SELECT path FROM files WHERE path_glob(path, ?) ORDER BY path", {"src/**/*.py"}).fetchall();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0][0].as_text(), "src/a.py");
  EXPECT_EQ(rows[1][0].as_text(), "src/x/c.py");
  EXPECT_EQ(call("SELECT count(*) FROM files WHERE path_ext(path) = 'py'", {}).as_int(), 3);
  // A pattern that changes from row to row is not taken for the one before.
  EXPECT_EQ(call("SELECT sum(path_glob(column1, column2)) FROM (VALUES ('a.c', '*.c'), ('a.c', '*.h'), ('b.h', '*.h'))",
                 {}).as_int(), 2);

  auto bare = mq::Connection::open(path("a.db").string());
  try {
    bare->execute("SELECT path_ext('a.b')");
    ADD_FAILURE() << "path functions on a connection that never registered them";
  } catch (const mq::OperationalError& e) {
    EXPECT_STREQ(e.what(), "no such function: path_ext");
  }
  mq::Connection::Options ro;
  ro.readonly = true;
  auto reader = mq::Connection::open(path("a.db").string(), ro);
  mu::register_path_functions(*reader);
  EXPECT_EQ(reader->execute("SELECT path_name('x/y.z')").fetchone().value()[0].as_text(), "y.z");
  reader->close();
  EXPECT_THROW(mu::register_path_functions(*reader), mq::Error);
}

}  // namespace
