// The SQL path functions, called through SQL on a real connection.
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

TEST_F(PathFilter, Glob) {
  const struct {
    const char* path;
    const char* pattern;
    bool match;
  } cases[] = {
      {"main.py", "*.py", true},
      {"src/main.py", "*.py", false},  // '*' stays within one segment
      {"src/main.py", "src/*.py", true},
      {"src/pkg/main.py", "src/*.py", false},
      {"src/main.py", "src/**/*.py", true},  // '**/' may match no directory
      {"src/a/b/c/main.py", "src/**/*.py", true},
      {"lib/a/main.py", "src/**/*.py", false},
      {"main.py", "**/*.py", true},
      {"a/b/main.py", "**/*.py", true},
      {"a/b/main.pyc", "**/*.py", false},
      {"src/anything/at/all", "src/**", true},
      {"src", "src/**", false},
      {"src/a.c", "src/?.c", true},
      {"src/ab.c", "src/?.c", false},
      {"src/a/c", "src?a/c", false},  // '?' never matches '/'
      {"a.c", "[abc].c", true},
      {"d.c", "[abc].c", false},
      {"d.c", "[!abc].c", true},
      {"b.c", "[a-c].c", true},
      {"x.c", "[a-c].c", false},
      {"a/c", "a[/]c", false},  // a class never matches '/'
      {"[.c", "[.c", true},      // an unclosed '[' is literal
      {"Main.PY", "*.py", false},  // case matters
      {"", "", true},
      {"", "*", true},
      {"a", "", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(mu::path_glob(c.path, c.pattern), c.match) << c.path << " ~ " << c.pattern;
    EXPECT_EQ(call("SELECT path_glob(?, ?)", {c.path, c.pattern}).as_int(), c.match ? 1 : 0)
        << c.path << " ~ " << c.pattern;
  }
}

TEST_F(PathFilter, ExtDirName) {
  const struct {
    const char* path;
    const char* ext;
    const char* dir;
    const char* name;
  } cases[] = {
      {"src/pkg/Mod.PY", "py", "src/pkg", "Mod.PY"},
      {"archive.tar.gz", "gz", "", "archive.tar.gz"},
      {"home/.bashrc", "", "home", ".bashrc"},
      {"Makefile", "", "", "Makefile"},
      {"dir.d/file", "", "dir.d", "file"},
      {"trailing.", "", "", "trailing."},
      {"a/b/", "", "a/b", ""},
      {"", "", "", ""},
  };
  for (const auto& c : cases) {
    auto row = conn->execute("SELECT path_ext(?), path_dir(?), path_name(?)", {c.path, c.path, c.path}).fetchone();
    ASSERT_TRUE(row);
    EXPECT_EQ((*row)[0].as_text(), c.ext) << c.path;
    EXPECT_EQ((*row)[1].as_text(), c.dir) << c.path;
    EXPECT_EQ((*row)[2].as_text(), c.name) << c.path;
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
