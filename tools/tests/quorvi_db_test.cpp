// quorvi-db's parts on their own (the command line, .gitignore rules, the
// language table, the process runner, a staging build from what a stand-in
// for ctags extracts) and the real executable on a repository made here.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <grp.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "marsk_quorvi/errors.hpp"
#include "marsk_quorvi/storage/core_schema.hpp"
#include "quorvi/gitignore.hpp"
#include "quorvi/index_pass.hpp"
#include "quorvi/language.hpp"
#include "quorvi/source_file.hpp"
#include "quorvi/staging.hpp"
#include "quorvi/subprocess.hpp"
#include "support/test_support.hpp"

namespace fs = std::filesystem;
namespace storage = marsk_quorvi::storage;
using namespace marsk_quorvi::cli;
using marsk_quorvi::testing::rows_of;
using marsk_quorvi::testing::write;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

class QuorviDb : public marsk_quorvi::testing::TempDirTest {};

}  // namespace

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
      {"\\!bang", "!bang", true}, {"trail   ", "trail", true}, {"sp\\ ", "sp ", true},
      {"crlf.txt\r\n", "crlf.txt", true}, {"file[0-9].c", "file7.c", true}, {"file[!0-9].c", "file7.c", false},
      {"?.c", "ab.c", false},
  };
  for (const auto& [rules, path, ignored] : cases) {
    const bool is_dir = path.ends_with('/');
    EXPECT_EQ(IgnoreRules(rules).ignored(path.substr(0, path.size() - is_dir), is_dir), ignored)
        << rules << " " << path;
  }
}

TEST(Language, ByNameAndExtension) {
  const std::pair<const char*, const char*> cases[] = {
      {"a.h", "cpp"},      {"a.C", "cpp"},    {"a.PY", "python"},    {"CMakeLists.txt", "cmake"}, {"Makefile", "make"},
      {".bashrc", "text"}, {"noext", "text"}, {"trailing.", "text"}, {"a.tar.gz", "text"},        {"x.mk", "make"},
  };
  for (const auto& [name, lang] : cases) EXPECT_EQ(language_for(name), lang) << name;
  // ctags is told to read a .h file as C++, the language the index gives it.
  EXPECT_THAT(parsed_extensions(), ::testing::Contains(std::pair<std::string, std::string>("C++", "h")));
}

TEST(Ctags, ReadsVersionsAndEndsTheChildWhenTheLineHandlerThrows) {
  // Shown as written, stamped as a number that grows with each release.
  for (const auto& [text, shown, stamp] : {std::tuple{"Universal Ctags 6.1.2(v6.1.2), Copyright", "6.1.2", 60102},
                                           {"Universal Ctags 5.9(p5.9.20220828.0)", "5.9.0", 50900}}) {
    EXPECT_EQ(::testing::PrintToString(*parse_ctags_version(text)), shown);
    EXPECT_EQ(parse_ctags_version(text)->number(), stamp);
  }
  EXPECT_EQ(parse_ctags_version("Exuberant Ctags 5.8, Copyright"), std::nullopt);
  // Without the kill this never returns.
  EXPECT_THROW(run_process({"yes"}, [](std::string_view) { throw std::runtime_error("enough"); }), std::runtime_error);
  // Tag lines, read by the quick reader or, for what it leaves alone, by the JSON parser: name|line|end|roles|scope.
  const std::string t = R"({"_type": "tag", "path": "p", )";
  const std::pair<std::string, std::string> lines[] = {
      {t + R"("name": "a\"b\\c\/\t", "line": 3, "end": 9, "roles": "def", "scope": "S"})", "a\"b\\c/\t|3|9|def|S"},
      {t + R"("name": "\u00e9\u0041", "line": 1, "end": true, "scope": null, "x": [1, {}]})", "\u00e9A|1|-||-"},
      {t + "\"name\": \"\xc3\xa9\", \"line\": -2, \"end\": 1.5}  ", "\xc3\xa9|-2|-||-"},
      {t + R"("name": "n", "line": 4, "name": "m", "roles": "system,local"})", "m|4|-|system,local|-"},
      {t + R"("name": "n", "line": "4"})", "none"}, {t + R"("name": 5, "line": 4})", "none"},
      {t + R"("name": "n", "line": 04})", "none"}, {t + R"("name": "n", "line": 4} x)", "none"},
      {t + R"("name": "n", "line": 4,})", "none"}, {t + "\"name\": \"\xff\", \"line\": 4}", "none"},
      {R"({"_type": "ptag", "name": "n", "path": "p", "line": 1})", "none"}, {"{}", "none"}, {"{broken", "none"}};
  for (const auto& [line, want] : lines) {
    const auto tag = parse_tag_line(line);
    EXPECT_EQ(!tag ? "none" : tag->name + "|" + std::to_string(tag->line) + "|" +
                                  (tag->end_line ? std::to_string(*tag->end_line) : "-") + "|" + tag->roles + "|" +
                                  tag->scope.value_or("-"), want) << line;
  }
}

TEST_F(QuorviDb, StagingHoldsWhatBatchesOnThreadsExtractAndNothingWhenItFails) {
  // Tags out of line order, one in a scope no tag defines, lines that are no tags; fails on a file that says "poison".
  write(path("ctags"),
        "#!/bin/sh\n[ \"$1\" = --options=NONE ] || exit 9\nshift\n"
        "[ \"$1\" = --version ] && echo 'Universal Ctags 9.8.7, +json' && exit 0\n"
        "t() { printf '{\"_type\": \"%s\", \"path\": \"%s\", %s}\\n' \"${2:-tag}\" \"$a\" \"$1\"; }\n"
        "for a; do if grep -qs -e poison -- \"$a\"; then echo 'ctags: cannot parse' >&2; exit 1; fi\n"
        "  t '\"name\": \"two\", \"line\": 2, \"scope\": \"one\", \"signature\": \"()\"'\n"
        "  t '\"name\": \"one\", \"line\": 1, \"end\": 2, \"kind\": \"class\"'\n"
        "  t '\"name\": \"lost\", \"line\": 3, \"end\": \"9\", \"scope\": \"nowhere\"'\n"
        "  t '\"name\": \"P\", \"line\": 1' ptag; t '\"name\": \"no line\"'; printf '{broken\\n\\n'\ndone\n",
        true);
  const Ctags ctags(path("ctags").string());
  EXPECT_EQ(ctags.version().number(), 90807);
  const fs::path repo = path("repo"), staging = path("index.db.staging");
  for (const char* name : {"a.c", "m.c", "poison.c", "z.md"}) write(repo / name, name + std::string(";\n\n"));
  write(repo / "blob.c", std::string("\0\1", 2));
  // Two files a batch on three threads: [a.c blob.c] [m.c poison.c] [z.md].
  std::size_t most = 0;
  const auto progress = [&](std::size_t done, std::size_t of) { EXPECT_EQ(of, 5u); most = std::max(most, done); };
  const auto ex = extract(repo, walk_repository(repo, {}), &ctags, {0, 3, 2, 8u << 20, progress});
  // A writer that fails stops the threads, which wait for it one batch ahead.
  EXPECT_THROW(extract_batches(repo, walk_repository(repo, {}), &ctags, {0, 3, 1, 8u << 20, {}, nullptr, 1},
                               [](ExtractedBatch&&) { throw std::runtime_error("disk full"); }),
               std::runtime_error);
  write(staging, "left over from a crash");
  const auto c = build_staging(staging, repo, ex);
  EXPECT_EQ(most, 5u);  // every file of five counted once
  EXPECT_EQ(std::tie(c.files, c.symbols, c.chunks, c.errors), std::make_tuple(4, 6, 4, 2));
  // m.c's tags from the failed batch are not kept twice.
  EXPECT_EQ(rows_of(staging, "SELECT group_concat(s.fqn || ':' || s.kind || ':' || s.start_line || '-' || s.end_line "
                             "|| ifnull(s.signature, '') || '<' || ifnull(p.name, ''), ' ') "
                             "FROM symbols s LEFT JOIN symbols p ON p.id = s.parent_id WHERE s.file_id = 2"),
            "m.c:module:1-2< m.c::one:class:1-2<m.c m.c::one::two:unknown:2-2()<one "
            "m.c::nowhere::lost:unknown:3-3<m.c\n");
  EXPECT_EQ(rows_of(staging, "SELECT file_path, error_type, message FROM index_errors"),
            "blob.c|binary_file|binary content: a NUL byte at offset 0\n"
            "poison.c|parse_error|ctags exited with status 1: ctags: cannot parse\n");
  EXPECT_EQ(rows_of(staging, "PRAGMA page_size"), "8192\n");
  // The bulk load drops the secondary indexes and must make every one again.
  auto cursor = storage::Connection::open(path("fresh.db").string())->cursor();
  storage::core_schema::create_tables(cursor);
  cursor.connection().close();
  const std::string schema = "SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY type, name";
  EXPECT_EQ(rows_of(staging, schema), rows_of(path("fresh.db"), schema));

  auto twice = ex;
  twice.files.push_back(ex.files[0]);  // breaks files.path's uniqueness
  EXPECT_THROW(build_staging(staging, repo, twice), storage::Error);
  EXPECT_FALSE(fs::exists(staging));
  EXPECT_THAT([] { Ctags("/nonexistent/ctags"); },
              ::testing::ThrowsMessage<marsk_quorvi::RuntimeError>(
                  "Universal Ctags is needed to extract symbols (cannot run /nonexistent/ctags: No such file or "
                  "directory); install the Debian package universal-ctags"));
}

TEST_F(QuorviDb, IncludesAndImportsResolveToFilesOfTheRepository) {
  const fs::path repo = path("repo"), staging = path("s.db");
  const std::pair<const char*, const char*> files[] = {
      {"src/main.c", "#include \"util.h\"\n#include <lib/api.h>\n#include <stdio.h>\n#include \"../include/c++/vector\"\n"
                     "extern int counter;\nint helper(int);\nint main(void) { return helper(counter); }\n"},
      {"src/util.h", "#include \"util.h\"\n"}, {"include/util.h", ""},  // itself: the other util.h
      {"include/lib/api.h", ""}, {"vendor/x/lib/api.h", ""},  // the shorter path wins
      {"src/deep/a.c", "#include <conf.h>\n"}, {"src/conf.h", ""}, {"src/deep/x/conf.h", ""},  // src/ holds a.c
      {"include/c++/vector", "namespace std { template <class T> class vector {}; }\n"},
      {"tools/cfg", "// -*- C++ -*-\nstruct Cfg {};\n"}, {"tools/notes", "struct NotCode {};\n"},
      {"pkg/app.py", "import os\nfrom pkg import util as u\nimport pkg.helpers\n"}, {"pkg/util.py", ""},
      {"pkg/helpers/__init__.py", ""}};
  for (const auto& [name, text] : files) write(repo / name, text);
  const Ctags ctags;
  const auto c = build_staging(staging, repo, extract(repo, walk_repository(repo, {}), &ctags, {}));
  EXPECT_EQ(std::tie(c.imports, c.edges), std::make_tuple(9, 7));
  const std::pair<std::string, std::string> cases[] = {
      {"SELECT f.path, e.line, e.kind, e.resolution, t.fqn FROM edges e JOIN symbols s ON s.id = e.source_id "
       "JOIN files f ON f.id = s.file_id JOIN symbols t ON t.id = e.target_id AND t.kind = 'module' ORDER BY e.id",
       "pkg/app.py|2|imports|exact|pkg/util.py\npkg/app.py|3|imports|exact|pkg/helpers/__init__.py\n"
       "src/deep/a.c|1|includes|exact|src/conf.h\nsrc/main.c|1|includes|exact|src/util.h\n"
       "src/main.c|2|includes|exact|include/lib/api.h\nsrc/main.c|4|includes|exact|include/c++/vector\n"
       "src/util.h|1|includes|exact|include/util.h\n"},
      {"SELECT group_concat(module || ':' || ifnull(name, '') || ':' || ifnull(alias, '') || ':' || line, ' ') "
       "FROM external_imports",
       "os:::1 pkg:util:u:2 pkg.helpers:::3 conf.h:::1 util.h:::1 lib/api.h:::2 stdio.h:::3 ../include/c++/vector:::4 "
       "util.h:::1\n"},
      {"SELECT group_concat(x, ' ') FROM (SELECT f.path || ':' || f.language || ':' || ifnull(s.name || '/' || s.kind, "
       "'') AS x FROM files f LEFT JOIN symbols s ON s.file_id = f.id AND s.kind <> 'module' WHERE f.path IN "
       "('src/main.c', 'include/c++/vector', 'tools/cfg', 'tools/notes') ORDER BY f.path, s.id)",
       "include/c++/vector:cpp:std/namespace include/c++/vector:cpp:vector/class src/main.c:c:counter/externvar "
       "src/main.c:c:helper/prototype src/main.c:c:main/function tools/cfg:cpp:Cfg/struct tools/notes:text:\n"}};
  for (const auto& [sql, rows] : cases) EXPECT_EQ(rows_of(staging, sql), rows) << sql;
  // This repository's own includes.
  const fs::path self = QUORVI_SOURCE_DIR;
  const auto own = build_staging(staging, self, extract(self, walk_repository(self, IgnoreRules::load(self)), &ctags, {}));
  EXPECT_GT(own.imports, 100);
  EXPECT_GT(own.edges, 50);
}

TEST_F(QuorviDb, UnchangedFilesReuseTheLiveRowsAsAFullParseWouldWriteThem) {
  const fs::path repo = path("repo"), live = path("live #%?.db"), fresh = path("fresh.db");  // a name URIs must escape
  write(repo / "a.c", "#include \"b.h\"\nstruct S { int x; };\nint f(void) { return 1; }\n");
  write(repo / "b.h", "int f(void);\n");
  write(repo / "c.py", "import a\nclass C:\n    def m(self):\n        pass\n");
  write(repo / "big.c", std::string(3000, 'x'));  // an error row, kept as it is
  const Ctags ctags;
  Progress progress;
  // Builds `db` from the repository (re-using its rows where it may) and dumps every row with its ids.
  const auto index = [&](const fs::path& db) {
    IndexPass pass;
    const auto staging = path("s.db");
    build_pass(pass, repo, db, staging, &ctags, {2000, 2, 2}, progress);
    storage::Database d(db);
    open_like_the_service(d);
    d.refresh_extractor_stamp(extractor_versions(&ctags));
    if (!pass.unchanged) swap_pass(pass, d, staging, progress);
    d.close();
    std::string rows;
    for (const char* t : {"components", "files", "symbols", "edges", "external_imports", "index_errors"}) {
      rows += rows_of(db, std::string("SELECT * FROM ") + t + " ORDER BY id");
    }
    rows += rows_of(db, "SELECT rowid, * FROM code_chunks ORDER BY rowid");
    return std::make_tuple(pass.files_reused, pass.unchanged, rows);
  };
  const auto first = index(live);
  EXPECT_EQ(first, std::make_tuple(0u, false, std::get<2>(first)));
  EXPECT_EQ(index(live), std::make_tuple(3u, true, std::get<2>(first)));  // nothing written, nothing swapped
  write(repo / "c.py", "import a\nclass C:\n    def n(self):\n        pass\n");
  write(repo / "0.h", "struct T;\n");  // ahead of every file: all ids move
  fs::last_write_time(repo / "b.h", fs::last_write_time(repo / "b.h") - std::chrono::seconds(5));  // parsed again
  const auto changed = index(live);
  EXPECT_EQ(changed, std::make_tuple(1u, false, std::get<2>(index(fresh))));
  EXPECT_THAT(std::get<2>(changed), HasSubstr("|c.py::C.n|member|"));
  // Rows of another extractor are not re-used.
  storage::Connection::open(live.string())->execute("UPDATE schema_info SET value = '{\"c\": 1}' "
                                                    "WHERE key = 'extractor_versions'");
  EXPECT_EQ(index(live), std::make_tuple(0u, false, std::get<2>(changed)));
}

#ifdef QUORVI_DB_EXE

namespace {

// One run of the executable: `env` before the test's environment, as nobody
// when `unprivileged` and the test runs as root, standard output on a
// terminal when `tty`.
struct Case {
  std::vector<std::string> args;
  int status;
  ::testing::Matcher<const std::string&> out = ::testing::_;
  ::testing::Matcher<const std::string&> err = "";
  std::vector<std::string> env = {};
  bool unprivileged = false, tty = false;
};

const auto slurp = marsk_quorvi::testing::file_bytes;

// A started run; `wait` gives its exit status (128 + the signal that ended
// it) and what it wrote.
struct Child {
  pid_t pid;
  int terminal;
  fs::path out, err;
  std::tuple<int, std::string, std::string> wait() const {
    int status = 0;
    ::waitpid(pid, &status, 0);
    std::string shown;
    char buf[4096];
    for (ssize_t n; terminal >= 0 && (n = ::read(terminal, buf, sizeof buf)) > 0;) shown.append(buf, static_cast<std::size_t>(n));
    if (terminal >= 0) ::close(terminal);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), terminal >= 0 ? shown : slurp(out), slurp(err)};
  }
};

Child start(const Case& c, const fs::path& dir) {
  static int runs = 0;
  Child child{0, -1, dir / ("out." + std::to_string(++runs)), dir / ("err." + std::to_string(runs))};
  const int out = ::open(child.out.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const int err = ::open(child.err.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  int slave = -1;
  termios raw{};
  ::cfmakeraw(&raw);
  if (c.tty) ::openpty(&child.terminal, &slave, nullptr, &raw, nullptr);
  std::vector<std::string> args{QUORVI_DB_EXE}, env = c.env;
  args.insert(args.end(), c.args.begin(), c.args.end());
  for (char** e = environ; *e; ++e) env.emplace_back(*e);
  auto pointers = [](std::vector<std::string>& v) {
    std::vector<char*> p;
    for (auto& s : v) p.push_back(s.data());
    return p.push_back(nullptr), p;
  };
  auto argv = pointers(args), envp = pointers(env);
  const bool drop = c.unprivileged && ::geteuid() == 0;
  child.pid = ::fork();
  if (child.pid == 0) {
    ::dup2(c.tty ? slave : out, 1);
    ::dup2(err, 2);
    if (drop && (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(125);
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  for (int fd : {out, err, slave}) ::close(fd);
  return child;
}

void run(const Case& c, const fs::path& dir) {
  const auto [status, out, err] = start(c, dir).wait();
  SCOPED_TRACE(::testing::PrintToString(c.args));
  EXPECT_EQ(status, c.status);
  EXPECT_THAT(out, c.out);
  EXPECT_THAT(err, c.err);
}

// Every command that only reads, on an index of a.c ("int alpha;").
void reads_answer(const fs::path& db, const fs::path& dir, bool unprivileged) {
  const std::pair<std::vector<std::string>, std::string> reads[] = {
      {{"stats"}, "\nlast index: 20"}, {{"check"}, "ok\n"}, {{"generation"}, "1\n"},
      {{"errors"}, "0 files with errors (0 rows)\n"}, {{"search", "alpha"}, "a.c:1  int alpha;\n"}};
  for (auto [args, out] : reads) {
    args.insert(args.end(), {"--db", db});
    run({args, 0, HasSubstr(out), "", {}, unprivileged}, dir);
  }
}

}  // namespace

TEST_F(QuorviDb, IndexesARepositoryAndAnswersEveryCommand) {
  const fs::path repo = path("repo"), db = repo / "memory/codebase-index/index.db";
  write(repo / ".gitignore", "*.log\n/generated/\n!keep.log\n");
  write(repo / "src/shapes.py", "class Rectangle:\n    def area(self):\n        return 42\n");
  write(repo / "lib/engine.cpp", "namespace n {\nstruct S {\n  int spin_turbine(int rpm) { return rpm * 2; }\n};\n}\n");
  write(repo / "-dash.py", "def dashed():\n    pass\n");  // would look like an option to ctags
  write(repo / "README.md", "# Title\n");
  write(repo / "empty.py", "");
  std::string long_text;
  for (int i = 1; i <= 125; ++i) long_text += "line " + std::to_string(i) + "\n";
  write(repo / "long.txt", long_text);
  write(repo / "assets/blob.bin", std::string("abc\0def", 7));
  write(repo / "big.c", std::string(10000, 'x'));
  write(repo / "late_nul.txt", std::string(BINARY_SNIFF_BYTES, 'x') + '\0');  // past the sniffed head
  // Build folders by name (build/ at the top only) or by their cache; memory/ and an anchored rule at the top only.
  for (const char* name : {"build/out.o", "src/memory/kept.c", "memory/old.c", ".git/HEAD", "generated/g.c",
                           "other/generated/g.c", "cmake-build-debug/x.c", "custom_out/CMakeCache.txt",
                           "custom_out/y.c", "run.log", "keep.log", "memory/codebase-index/index.db.staging"}) {
    write(repo / name, "int k;\n");
  }
  run({{"index", repo.string(), "--max-file-size", "9000"}, 0,
       AllOf(StartsWith("indexed " + fs::canonical(repo).string() + " into " + db.string() + "\n"),
             ContainsRegex("13 files walked, 11 indexed, 2 with errors, 8 symbols \\(ctags [0-9]+\\.[0-9]+\\.[0-9]+\\)"),
             HasSubstr("\nstaging build:  12 chunks in "), HasSubstr("  symbols           19 (8 symbols, 11 file anchors)\n"),
             HasSubstr("\ngeneration: 1\nfile: "))},
      dir_);

  EXPECT_EQ(rows_of(db, "SELECT group_concat(path || ':' || language || ':' || size || ':' || ifnull(component_id, '-')"
                        " || ':' || (mtime > 1e9), ' ') FROM (SELECT * FROM files ORDER BY id)"),
            "-dash.py:python:23:-:1 .gitignore:text:28:-:1 README.md:markdown:8:-:1 empty.py:python:0:-:1 "
            "keep.log:text:7:-:1 late_nul.txt:text:8001:-:1 lib/engine.cpp:cpp:78:1:1 long.txt:text:1017:-:1 "
            "other/generated/g.c:c:7:2:1 src/memory/kept.c:c:7:3:1 src/shapes.py:python:55:3:1\n");
  EXPECT_EQ(rows_of(db, "SELECT content_hash FROM files WHERE size IN (0, 8)"), "89dd9b4aef37d406\nef46db3751d8e999\n");
  EXPECT_EQ(rows_of(db, "SELECT id, name, root_path FROM components"), "1|lib|lib\n2|other|other\n3|src|src\n");
  EXPECT_EQ(rows_of(db, "SELECT group_concat(end_line) FROM symbols WHERE kind = 'module'"),
            "2,3,1,1,1,1,5,125,1,1,3\n");
  EXPECT_EQ(rows_of(db, "SELECT group_concat(s.fqn || ':' || s.kind || ':' || s.end_line || ifnull(s.signature, '') "
                        "|| '<' || p.name, ' ') FROM symbols s JOIN symbols p ON p.id = s.parent_id"),
            "-dash.py::dashed:function:2()<-dash.py lib/engine.cpp::n:namespace:5<engine.cpp "
            "lib/engine.cpp::n::S:struct:4<n lib/engine.cpp::n::S::spin_turbine:function:3(int rpm)<S "
            "other/generated/g.c::k:variable:1<g.c src/memory/kept.c::k:variable:1<kept.c "
            "src/shapes.py::Rectangle:class:3<shapes.py src/shapes.py::Rectangle.area:member:3(self)<Rectangle\n");
  EXPECT_EQ(rows_of(db, "SELECT group_concat(text, '') FROM code_chunks WHERE rowid >> 20 = 8"), long_text + "\n");
  EXPECT_EQ(rows_of(db, "SELECT rowid & 1048575, start_line, end_line FROM code_chunks WHERE rowid >> 20 = 8"),
            "0|1|60\n1|61|120\n2|121|125\n");

  const fs::path bad = path("bad.db"), other = path("other.db"), none = path("none.db"), bench = path("bench"),
                 old = path("old.db"), foreign = path("foreign.db"), garbage = path("garbage.db"), empty = path("empty.db");
  for (const auto& copy : {bad, other, old}) fs::copy_file(db, copy);
  // A file of an older build, and one of another program with a table named like one of the index's.
  storage::Connection::open(old.string())
      ->executescript("ALTER TABLE index_errors DROP COLUMN line; UPDATE schema_info SET value = '2.0.0' WHERE key = 'version'");
  storage::Connection::open(foreign.string())->executescript("CREATE TABLE files(x); INSERT INTO files VALUES (1)");
  storage::Connection::open(bad.string())
      ->executescript("CREATE TABLE t(a, b); INSERT INTO t VALUES (1, 2), (3, 4); CREATE INDEX ti ON t(a); "
                      "PRAGMA writable_schema=ON; UPDATE sqlite_master SET sql = 'CREATE INDEX ti ON t(b)' "
                      "WHERE name = 'ti'");
  write(garbage, std::string(8192, 'x'));
  write(empty, "");
  write(bench / "a_bench",
        "#!/bin/sh\necho warming up\nprintf 'BENCH\\t%s\\t3\\ts\\tcp\\t2\\t1.500\\t%s\\n' le '<= 1.5' lt '< 1.5' "
        "ge '>= 2' uge '\u2265 1.5' gt 'ratio > 1x' ule '\u2264 1.4' word fast soon '<= soon'\n"
        "printf 'BENCH\\tbad\\nBENCH\\t\\t1\\ts\\tp\\t1\\t1\\t<2\\nBENCH\\tsolo\\t9\\t\\t-\\t0\\t-\\t<= 2\\r'\n",
        true);  // the last line unended
  write(bench / "b_bench", "#!/bin/sh\necho 'BENCH broken'; exit 3\n", true);
  write(bench / "d_bench", "#!/bin/sh\nkill -9 $$\n", true);
  write(bench / "c_bench", "not executable");
  // An edit reaches the index only through the next pass.
  write(repo / "lib/engine.cpp", "int spin_rotor(int rpm) {\n  return rpm * 3;\n}\n");
  const std::string d = db.string(), errors = "assets/blob.bin: binary_file: binary content: a NUL byte at offset 3\n";
  const auto usage = [](const std::string& message, const std::string& command) {
    return "quorvi-db: " + message + "\nTry 'quorvi-db " + command + "--help'.\n";
  };
  const Case cases[] = {
      {{"search", "spin_turbine", "--db", d}, 0, "lib/engine.cpp:3  int spin_turbine(int rpm) { return rpm * 2; }\n"},
      {{"def", "spin_turbine", "--db", d}, 0, "function  lib/engine.cpp:3  n::S::spin_turbine(int rpm)\n"},
      {{"def", "spin*", "--limit", "1", "--db", d}, 0, "function  lib/engine.cpp:3  n::S::spin_turbine(int rpm)\n"},
      {{"def", "nothing", "--db", d}, 0, "", "no definition of 'nothing'\n"},
      {{"search", "\"line 62\"", "OR", "\"line 64\"", "--db", d}, 0, "long.txt:62-64  line 62\n"},
      {{"search", "return", "--limit=1", "--db", d}, 0, "src/shapes.py:3  return 42\n"},  // best first: the shorter
      {{"errors", "--db", d}, 0,
       errors + "big.c: file_too_large: 10000 bytes, the limit is 9000 bytes\n2 files with errors (2 rows)\n"},
      {{"--limit", "1", "errors", "--db", d}, 0, errors + "2 files with errors (2 rows, 1 shown)\n"},
      {{"stats", "--db", d}, 0,
       AllOf(HasSubstr("\n  files       11\n  symbols     8\n"), HasSubstr("errors: 2\ngeneration: 1\nsize: "),
             HasSubstr("free)\nlast index: 20"))},
      {{"check", "--db", d}, 0, "ok\n"},
      {{"compact", "--db", d}, 0, StartsWith("compaction: nothing to release\nfile: ")},
      {{"check", "--db", bad}, 1, StartsWith("integrity check failed:\n  row 1 missing from index ti\n  row 2")},
      {{"stats", "--db", garbage}, 5, "", "quorvi-db: stats: file is not a database (the file is damaged or not a "
                                          "database; `quorvi-db index REPO --db " + garbage.string() + "` moves it "
                                          "aside and builds a new index)\n"},
      {{"index", repo, "--db", garbage}, 0, HasSubstr("\ngeneration: 1\n"),  // the hint, taken
       ::testing::ContainsRegex("^quorvi-db: index: " + garbage.string() + " is damaged \\(file is not a database\\); moved it "
                     "aside as " + garbage.string() + "\\.damaged-[0-9]{8}T[0-9]{6}Z and building a new index\n$")},
      {{"stats", "--db", garbage}, 0, HasSubstr("\ngeneration: 1\n")},
      {{"stats", "--db", old}, 0, HasSubstr("\n  files       11\n")},  // read as it is where it can be
      {{"errors", "--db", old}, 6, "", "quorvi-db: errors: the index at " + old.string() + " was made by an older "
                                       "build (index_errors has no column line); `quorvi-db index REPO --db " +
                                       old.string() + "` upgrades it\n"},
      {{"index", repo, "--db", old}, 0},
      {{"errors", "--db", old}, 0, HasSubstr(" files with errors (")},
      {{"search", std::string(4097, 'a'), "--db", d}, 2, "", usage("search query too long: 1 terms, 4097 bytes; at most "
                                                                   "64 terms and 4096 bytes", "search ")},
      {{"search", long_text.substr(0, 255), "--db", d}, 2, "", HasSubstr(": 66 terms, 255 bytes;")},
      {{"swap", none, "--db", d}, 3, "", "quorvi-db: no staging file at " + none.string() + "\n"},
      {{"index", "-"}, 3, "", "quorvi-db: no repository folder at -\n"},
      {{"bench", "--bench-dir", none}, 3, "", StartsWith("quorvi-db: no benchmark folder at " + none.string() + " (")},
      {{"swap", path("empty.db"), "--db", d}, 6, "", "quorvi-db: swap: no such table: stg.components\n"},
      {{"index", repo, "--db", repo / ".gitignore/x.db"}, 6, "", StartsWith("quorvi-db: index: [Errno 20] Not a dir")},
      {{"bench", "--bench-dir", bench, "--no-index", "--verbose"}, 6,
       "figure  value  peer  peer value  ratio  target      verdict\n" + std::string(59, '-') +
           "\nle      3 s    cp    2 s         1.500  <= 1.5      met\n"
           "lt      3 s    cp    2 s         1.500  < 1.5       missed\n"
           "ge      3 s    cp    2 s         1.500  >= 2        missed\n"
           "uge     3 s    cp    2 s         1.500  \u2265 1.5       met\n"
           "gt      3 s    cp    2 s         1.500  ratio > 1x  met\n"
           "ule     3 s    cp    2 s         1.500  \u2264 1.4       missed\n"
           "word    3 s    cp    2 s         1.500  fast\nsoon    3 s    cp    2 s         1.500  <= soon\n"
           "solo    9      -     -           -      <= 2\n",
       "running a_bench\n  warming up\n  BENCH\tbad\n  BENCH\t\t1\ts\tp\t1\t1\t<2\nrunning b_bench\n  BENCH broken\n"
       "b_bench: exited with status 3, 0 result lines\nrunning d_bench\nd_bench: died of signal 9, 0 result lines\n"},
      {{"search", "--db", d, "--", "--db", "AND"}, 2, "", StartsWith("quorvi-db: malformed search query '--db AND': ")},
      {{}, 2, "", usage("no command given", "")},
      {{"frobnicate"}, 2, "", usage("unknown command 'frobnicate'", "")},
      {{"--bogus", "stats"}, 2, "", usage("The following argument was not expected: --bogus", "stats ")},
      {{"stats", "--bogus"}, 2, "", usage("The following argument was not expected: --bogus", "stats ")},
      {{"--limit", "3", "stats"}, 2, "", usage("unknown option --limit for stats", "stats ")},
      {{"index", "a", "b"}, 2, "", usage("too many operands for index: 'b'", "index ")},
      {{"swap"}, 2, "", usage("swap needs STAGING", "swap ")},
      {{"stats", "--db"}, 2, "", usage("--db: 1 required PATH missing", "stats ")},
      {{"stats", "--verbose=yes"}, 2, "", usage("verbose was given a disallowed flag override", "stats ")},
      {{"errors", "--limit=0"}, 2, "", usage("--limit needs a whole number from 1, not '0'", "errors ")},
      {{"errors", "--limit", "5x"}, 2, "", usage("--limit needs a whole number from 1, not '5x'", "errors ")},
      {{"errors", "--limit="}, 2, "", usage("--limit: 1 required N missing", "errors ")},
      {{"index", "--jobs", "257"}, 2, "", usage("--jobs needs a whole number from 0 to 256, not '257'", "index ")},
      {{"-h"}, 0, AllOf(StartsWith("Usage: quorvi-db [OPTIONS] COMMAND [ARGS]\n"), HasSubstr("\n  bench  "),
                        HasSubstr("Commands that write the index:\n  index [REPO]  "), HasSubstr("\n  8  permission denied: "),
                        HasSubstr("Commands that only read the index (it is opened read-only):\n  stats  "))},
      {{"search", "--help"}, 0, AllOf(StartsWith("Usage: quorvi-db search [OPTIONS] TEXT...\n"),
                                      HasSubstr("\n  --limit N  "), HasSubstr("\n  --db PATH  "))},
      {{"swap", d, "--db", other, "-v"}, 0, EndsWith("\n  code_chunks       12\ngeneration: 2\n"),
       HasSubstr(" info marsk_quorvi.storage.database: swap_index_from: replaced live index from " + d)},
      {{"swap", d, "--db", other}, 0, EndsWith("\ngeneration: 3\n")},  // info lines only with --verbose
      {{"clear", "--db", other}, 0, StartsWith("cleared " + other.string() + ":\n  files       11\n  symbols     8\n")},
      {{"index", repo, "--jobs", "256"}, 0, HasSubstr("13 files walked, 12 indexed, 1 with errors, 6 symbols (ctags ")},
      {{"generation", "--db", d}, 0, "2\n"},
      {{"search", "spin_turbine", "--db", d}, 0, "", "no hits for 'spin_turbine'\n"},
      {{"search", "spin_rotor", "--db", d}, 0, "lib/engine.cpp:1  int spin_rotor(int rpm) {\n"},
  };
  for (const auto& c : cases) run(c, dir_);
  const auto foreign_bytes = slurp(foreign);
  // Only `index` makes an index file, and none turns another file into one.
  for (std::vector<std::string> args : std::initializer_list<std::vector<std::string>>{
           {"stats"}, {"check"}, {"generation"}, {"errors"}, {"search", "x"}, {"compact"}, {"clear"}, {"swap", d}, {"index", repo}}) {
    const auto cmd = args[0];
    args.insert(args.end(), {"--db", ""});
    run({args, 2, "", usage("--db needs a file name, not ''", cmd + " ")}, dir_);
    for (const auto& file : {none, empty, foreign}) {
      if (cmd == "index" && file != foreign) continue;
      args.back() = file;
      run({args, file == none ? 3 : 7, "",
           StartsWith(file == none ? "quorvi-db: no index at " + none.string() + " (build one with `quorvi-db index "
                                     "REPO --db " + none.string() + "`, or"
                                   : "quorvi-db: " + cmd + ": not an index: '" + file.string() + "' ")},
          dir_);
    }
  }
  EXPECT_FALSE(fs::exists(none));
  EXPECT_EQ(slurp(empty) + slurp(foreign), foreign_bytes);
  for (const auto& e : fs::directory_iterator(dir_))
    if (e.path().string().find(".damaged-") != std::string::npos) EXPECT_EQ(slurp(e.path()), std::string(8192, 'x'));
}


TEST_F(QuorviDb, WritesOnlyWhereAskedAndReadsWhatItMayOnlyRead) {
  const fs::path repo = path("repo"), outside = path("outside"), shared = path("shared"), db = shared / "index.db";
  write(repo / "a.c", "int alpha;\n");
  fs::create_directories(outside / "codebase-index");
  // The repository decides what lies on the way to its default index.
  const std::pair<std::string, fs::path> links[] = {{"memory", outside},
                                                    {"memory/codebase-index", outside / "codebase-index"},
                                                    {"memory/codebase-index/index.db", outside / "program.db"},
                                                    {"memory/codebase-index/index.db-wal", outside / "program.db"}};
  for (const auto& [link, target] : links) {
    fs::remove_all(repo / "memory");
    fs::create_directories((repo / link).parent_path());
    fs::create_symlink(target, repo / link);
    run({{"index", repo}, 6, "", HasSubstr(link + " is a symbolic link (to " + target.string() + "): the default index")}, dir_);
  }
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator(outside), {}), 1);  // the empty folder
  fs::remove(repo / links[3].first);
  fs::create_symlink(links[2].second, repo / links[2].first);
  run({{"index", repo, "--db", repo / links[2].first}, 0}, dir_);  // named, so followed
  EXPECT_TRUE(fs::exists(outside / "program.db"));

  // A folder and an index the user may only read (run as nobody when the test is root).
  fs::create_directories(shared);
  fs::copy_file(outside / "program.db", db);
  fs::permissions(db, fs::perms(0444));
  fs::permissions(shared, fs::perms(0555));
  const auto before = slurp(db);
  reads_answer(db, dir_, true);
  EXPECT_EQ(slurp(db), before);
  run({{"clear", "--db", db}, 8, "", HasSubstr(" (permission denied on the index file or its folder)\n"), {}, true}, dir_);
  fs::permissions(db, fs::perms::none);
  run({{"stats", "--db", db}, 8, "", HasSubstr(" (permission denied on the index file or its folder)\n"), {}, true}, dir_);

  // A root that cannot be listed fails the run before the swap.
  for (const auto& p : {shared, db}) fs::permissions(p, fs::perms::all);
  fs::permissions(repo, fs::perms::none);
  run({{"index", repo, "--db", db}, 8, "", "quorvi-db: index: [Errno 13] Permission denied: '" +
                                               fs::canonical(repo).string() + "'\n", {}, true}, dir_);
  EXPECT_EQ(slurp(db), before);
  fs::permissions(repo, fs::perms::all);
}

TEST_F(QuorviDb, OneIndexRunAtATimeReadersNeverWaitAndTerminalsSeeNoEscapes) {
  const fs::path repo = path("repo"), db = path("index.db"), bin = path("bin"), mark = path("ctags.pid");
  write(repo / "a.c", "int alpha;\n");
  write(repo / "e\x1b[31m.c", "int \x1b]0;title\x07 x;\n");
  run({{"index", repo, "--db", db}, 0}, dir_);
  run({{"search", "title", "--db", db}, 0, "e\\x1b[31m.c:1  int \\x1b]0;title\\x07 x;\n", "", {}, false, true}, dir_);
  run({{"search", "title", "--db", db}, 0, "e\x1b[31m.c:1  int \x1b]0;title\x07 x;\n"}, dir_);  // not a terminal

  // Reads answer at once while this process holds a write transaction.
  storage::Database writer(db);
  open_like_the_service(writer);
  writer.transaction([&](storage::Cursor& c) {
    c.execute("DELETE FROM index_errors");
    reads_answer(db, dir_, false);
  });

  // A run held up in ctags keeps the lock; a signal ends it and its staging file.
  write(bin / "ctags", "#!/bin/sh\ncase \"$*\" in *--version*) echo 'Universal Ctags 5.9.0, +json'; exit 0;; esac\n"
                       "echo $$ > " + mark.string() + "\nexec sleep 60\n", true);
  const std::string path_env = "PATH=" + bin.string() + ":" + std::getenv("PATH");
  for (const int sig : {SIGTERM, SIGINT}) {
    fs::remove(mark);
    write(repo / "b.c", std::to_string(sig));  // a file to parse: the others are re-used
    const auto first = start({{"index", repo, "--db", db}, 0, "", "", {path_env}}, dir_);
    for (int i = 0; i < 3000 && slurp(mark).empty(); ++i) ::usleep(10000);
    run({{"index", repo, "--db", db}, 4, "",
         HasSubstr(": another `quorvi-db index` run (pid " + std::to_string(first.pid) + ") is writing "),
         {"QUORVI_DB_LOCK_WAIT_MS=0"}}, dir_);
    ::kill(first.pid, sig);
    EXPECT_EQ(first.wait(), std::make_tuple(128 + sig, std::string(),
                                            std::string("quorvi-db: index: interrupted; its staging file is removed\n")));
    ::kill(std::stoi(slurp(mark)), SIGKILL);
    for (const auto& e : fs::directory_iterator(dir_)) EXPECT_THAT(e.path().string(), ::testing::Not(HasSubstr(".staging-")));
    write(db.string() + ".staging-" + std::to_string(first.pid) + "-0", "as a killed run leaves it");
  }
  run({{"index", repo, "--db", db}, 0, HasSubstr("\nremoved 1 staging files of interrupted runs\n")}, dir_);
}

#endif  // QUORVI_DB_EXE
