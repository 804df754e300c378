// The indexer's parts on their own: .gitignore rules, the language table,
// the walker and the file reader on real files, ctags and its output, the
// process runner.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include "marsk_quorvi/errors.hpp"
#include "quorvi/ctags.hpp"
#include "quorvi/extract.hpp"
#include "quorvi/gitignore.hpp"
#include "quorvi/language.hpp"
#include "quorvi/source_file.hpp"
#include "quorvi/subprocess.hpp"
#include "quorvi/walker.hpp"
#include "support/test_support.hpp"

namespace fs = std::filesystem;
using namespace marsk_quorvi::cli;

namespace {

void write(const fs::path& p, const std::string& text) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << text;
}

struct IgnoreCase {
  const char* rules;
  const char* path;
  bool is_dir;
  bool ignored;
};

}  // namespace

TEST(IgnoreRules, MatchesLikeGit) {
  const IgnoreCase cases[] = {
      {"*.o", "a.o", false, true},
      {"*.o", "src/deep/a.o", false, true},  // no slash: any level
      {"*.o", "a.oo", false, false},
      {"build/", "build", true, true},
      {"build/", "build", false, false},  // directories only
      {"build/", "src/build", true, true},
      {"/build", "build", false, true},  // anchored
      {"/build", "src/build", true, false},
      {"doc/*.txt", "doc/a.txt", false, true},
      {"doc/*.txt", "doc/sub/a.txt", false, false},  // '*' stays in its segment
      {"doc/*.txt", "x/doc/a.txt", false, false},    // a middle slash anchors
      {"**/gen", "gen", true, true},
      {"**/gen", "a/b/gen", true, true},
      {"a/**/z", "a/z", false, true},
      {"a/**/z", "a/b/c/z", false, true},
      {"out/**", "out", true, false},  // everything inside, not the folder
      {"out/**", "out/x", false, true},
      {"*.log\n!keep.log", "keep.log", false, false},
      {"*.log\n!keep.log", "other.log", false, true},
      {"!keep.log\n*.log", "keep.log", false, true},  // the last match decides
      {"# comment\n\n  \n", "# comment", false, false},
      {"\\#lit", "#lit", false, true},
      {"\\!bang", "!bang", false, true},
      {"trail   ", "trail", false, true},
      {"sp\\ ", "sp ", false, true},
      {"file[0-9].c", "file7.c", false, true},
      {"file[!0-9].c", "file7.c", false, false},
      {"?.c", "ab.c", false, false},
      {"crlf.txt\r\n", "crlf.txt", false, true},
  };
  for (const auto& c : cases) {
    IgnoreRules rules(c.rules);
    EXPECT_EQ(rules.ignored(c.path, c.is_dir), c.ignored) << "rules '" << c.rules << "' path '" << c.path << "'";
  }
}

TEST(Language, ByNameAndExtension) {
  const std::pair<const char*, const char*> cases[] = {
      {"a.cpp", "cpp"},     {"a.hpp", "cpp"},      {"a.h", "cpp"},          {"a.C", "cpp"},
      {"a.c", "c"},         {"a.PY", "python"},    {"a.py", "python"},      {"CMakeLists.txt", "cmake"},
      {"Makefile", "make"}, {"x.mk", "make"},      {"a.sh", "shell"},       {"README.md", "markdown"},
      {".bashrc", "text"},  {"noext", "text"},     {"trailing.", "text"},   {"a.tar.gz", "text"},
      {"a.rs", "rust"},     {"a.ts", "typescript"}, {"notes.txt", "text"},
  };
  for (const auto& [name, lang] : cases) EXPECT_EQ(language_for(name), lang) << name;
  EXPECT_EQ(ctags_parser("cpp"), "C++");
  EXPECT_EQ(ctags_parser("markdown"), std::nullopt);
  EXPECT_EQ(ctags_parser(TEXT_LANGUAGE), std::nullopt);
  // Every extension of a parsed language is handed to ctags, so ctags reads
  // each file as the index names it.
  std::set<std::string> parsers;
  for (const auto& [parser, ext] : parsed_extensions()) parsers.insert(parser);
  EXPECT_TRUE(parsers.count("C++"));
  EXPECT_FALSE(parsers.count("Markdown"));
}

TEST(CtagsOutput, ParsesTagLinesAndVersions) {
  auto tag = parse_tag_line(
      R"j({"_type": "tag", "name": "m", "path": "/r/b.py", "pattern": "/^  def m(self):$/", "line": 2, )j"
      R"j("kind": "member", "signature": "(self)", "scope": "K", "scopeKind": "class", "end": 3})j");
  ASSERT_TRUE(tag);
  EXPECT_EQ(*tag, (Tag{"/r/b.py", "m", "member", 2, 3, "(self)", "K", "class"}));
  auto bare = parse_tag_line(R"({"_type": "tag", "name": "X", "path": "a.c", "line": 7, "kind": "macro"})");
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->end_line, std::nullopt);
  EXPECT_EQ(bare->scope, std::nullopt);
  for (const char* other : {"", "not json", "{\"_type\": \"ptag\", \"name\": \"JSON_OUTPUT_VERSION\"}",
                            "{\"_type\": \"tag\", \"name\": \"x\", \"path\": \"a.c\"}", "{broken", "[1]"}) {
    EXPECT_EQ(parse_tag_line(other), std::nullopt) << other;
  }
  EXPECT_EQ(parse_ctags_version("Universal Ctags 5.9.0, Copyright (C) 2015"), 50900);
  EXPECT_EQ(parse_ctags_version("Universal Ctags 6.1.0(v6.1.0), Copyright"), 60100);
  EXPECT_EQ(parse_ctags_version("Universal Ctags 5.9(p5.9.20220828.0)"), 50900);
  EXPECT_EQ(parse_ctags_version("Exuberant Ctags 5.8, Copyright"), std::nullopt);
}

TEST(Subprocess, SeparatesOutputErrorAndStatusWithoutAShell) {
  std::vector<std::string> lines;
  auto r = run_process({"sh", "-c", "printf 'one\\ntwo'; echo oops >&2; exit 3"},
                       [&](std::string_view l) { lines.emplace_back(l); });
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(r.err, "oops\n");
  EXPECT_EQ(r.exit_code, 3);
  // Arguments reach the program as they are: no shell expands them.
  lines.clear();
  run_process({"echo", "$HOME", "*", "a;b"}, [&](std::string_view l) { lines.emplace_back(l); });
  EXPECT_EQ(lines, (std::vector<std::string>{"$HOME * a;b"}));
  EXPECT_THROW(run_process({"/nonexistent/program"}, [](std::string_view) {}), marsk_quorvi::OSError);
  // An error from the line handler ends the child and propagates.
  EXPECT_THROW(run_process({"yes"}, [](std::string_view) { throw std::runtime_error("enough"); }),
               std::runtime_error);
}

class FilesOnDisk : public marsk_quorvi::testing::TempDirTest {};

TEST_F(FilesOnDisk, ReadSourceClassifiesWhatCannotBeIndexed) {
  write(path("ok.c"), "int a;\nint b;");
  write(path("empty.c"), "");
  write(path("bin.c"), std::string("abc\0def", 7));
  write(path("late_nul.txt"), std::string(BINARY_SNIFF_BYTES, 'x') + std::string(1, '\0'));
  write(path("big.c"), std::string(2000, 'x'));
  fs::create_symlink(path("missing-target"), path("dangling.c"));
  ASSERT_EQ(::mkfifo(path("pipe.c").c_str(), 0644), 0);
  fs::create_directories(path("dir.c"));

  auto ok = read_source(path("ok.c"), 1000);
  EXPECT_TRUE(ok.ok());
  EXPECT_EQ(ok.text, "int a;\nint b;");
  EXPECT_EQ(count_lines(ok.text), 2);
  EXPECT_TRUE(read_source(path("empty.c"), 1000).ok());
  EXPECT_TRUE(read_source(path("late_nul.txt"), 100000).ok());  // past the sniffed head

  struct Expect {
    const char* name;
    const char* type;
    const char* message;
  };
  const Expect failures[] = {
      {"bin.c", BINARY_ERROR, "binary content: a NUL byte at offset 3"},
      {"big.c", TOO_LARGE_ERROR, "2000 bytes, the limit is 1000 bytes"},
      {"dangling.c", IO_ERROR, "cannot open: No such file or directory"},
      {"pipe.c", IO_ERROR, "not a regular file: a fifo"},  // and it did not block
      {"dir.c", IO_ERROR, "not a regular file: a directory"},
  };
  for (const auto& f : failures) {
    auto r = read_source(path(f.name), 1000);
    EXPECT_EQ(r.error_type, f.type) << f.name;
    EXPECT_EQ(r.message, f.message) << f.name;
  }
  EXPECT_EQ(count_lines("a\n"), 1);
  EXPECT_EQ(count_lines("a\nb"), 2);
  EXPECT_EQ(count_lines(""), 0);
}

TEST_F(FilesOnDisk, WalkLeavesOutWhatTheIndexMustNotHold) {
  const fs::path repo = path("repo");
  write(repo / ".gitignore", "*.log\n/generated/\n!keep.log\n");
  write(repo / "src/a.cpp", "int a;");
  write(repo / "src/build/out.o", "x");          // build folder at any level
  write(repo / "src/memory/kept.c", "int k;");   // memory/ only at the top
  write(repo / "memory/codebase-index/index.db", "x");
  write(repo / ".git/HEAD", "ref");
  write(repo / "generated/g.c", "x");
  write(repo / "other/generated/g.c", "int g;");  // anchored rule: top only
  write(repo / "cmake-build-debug/x.c", "x");
  write(repo / "custom_out/CMakeCache.txt", "x");  // a build tree by its cache
  write(repo / "custom_out/y.c", "x");
  write(repo / "run.log", "x");
  write(repo / "keep.log", "x");
  write(repo / ".ci/run", "#!/bin/sh");
  fs::create_directory_symlink(repo / "src", repo / "loop");
  fs::create_symlink(repo / "nowhere", repo / "dangling.c");
  ASSERT_EQ(::mkfifo((repo / "fifo.c").c_str(), 0644), 0);

  auto result = walk_repository(repo, IgnoreRules::load(repo));
  std::vector<std::string> paths;
  for (const auto& f : result.files) paths.push_back(f.path);
  EXPECT_EQ(paths, (std::vector<std::string>{".ci/run", ".gitignore", "dangling.c", "fifo.c", "keep.log",
                                             "other/generated/g.c", "src/a.cpp", "src/memory/kept.c"}));
  EXPECT_EQ(result.files[2].kind, WalkEntry::Kind::symlink);
  EXPECT_EQ(result.files[3].kind, WalkEntry::Kind::other);
  EXPECT_EQ(result.files[3].other_kind, "fifo");
  EXPECT_TRUE(result.unlisted.empty());
}

TEST_F(FilesOnDisk, ExtractReadsTextsTagsAndErrorsInWalkOrder) {
  Ctags ctags;
  EXPECT_GT(ctags.version(), 50000);
  const fs::path repo = path("repo");
  write(repo / "a.c", "int add(int a, int b) {\n  return a + b;\n}\n");
  write(repo / "b.py", "class K:\n    def m(self, x):\n        return x\n");
  write(repo / "-dash.py", "def dashed():\n    pass\n");  // would look like an option to ctags
  write(repo / "notes.md", "# Title\n");
  write(repo / "blob.dat", std::string("\0\1\2", 3));
  fs::create_symlink(repo / "gone", repo / "link.c");
  auto walked = walk_repository(repo, {});
  for (unsigned jobs : {1u, 3u}) {
    ExtractOptions options;
    options.jobs = jobs;
    options.batch_files = 2;  // several batches, several ctags runs
    std::size_t last_progress = 0;
    options.on_progress = [&](std::size_t done, std::size_t total) {
      EXPECT_EQ(total, walked.files.size());
      last_progress = std::max(last_progress, done);
    };
    auto out = extract(repo, walked, &ctags, options);
    EXPECT_EQ(last_progress, walked.files.size());
    std::vector<std::string> paths;
    for (const auto& f : out.files) paths.push_back(f.path + ":" + f.language);
    EXPECT_EQ(paths, (std::vector<std::string>{"-dash.py:python", "a.c:c", "b.py:python", "notes.md:markdown"}));
    ASSERT_EQ(out.files[0].tags.size(), 1u);
    EXPECT_EQ(out.files[0].tags[0].name, "dashed");
    EXPECT_EQ(out.files[0].tags[0].path, "-dash.py");
    ASSERT_EQ(out.files[1].tags.size(), 1u);
    EXPECT_EQ(out.files[1].tags[0].name, "add");
    EXPECT_EQ(out.files[1].tags[0].end_line, 3);
    ASSERT_EQ(out.files[2].tags.size(), 2u);
    EXPECT_EQ(out.files[2].tags[1].scope, "K");
    EXPECT_TRUE(out.files[3].tags.empty());  // markdown is text only
    EXPECT_EQ(out.files[1].line_count, 3);
    ASSERT_EQ(out.errors.size(), 2u);
    EXPECT_EQ(out.errors[0].path, "blob.dat");
    EXPECT_EQ(out.errors[0].error_type, BINARY_ERROR);
    EXPECT_EQ(out.errors[1].path, "link.c");
    EXPECT_EQ(out.errors[1].error_type, IO_ERROR);
    EXPECT_EQ(out.tags, 4);
  }
}

TEST_F(FilesOnDisk, ABatchOnWhichCtagsFailsIsRetriedFileByFile) {
  // A stand-in for ctags that fails whenever it is given the poisoned file.
  const fs::path fake = path("fake-ctags");
  write(fake,
        "#!/bin/sh\n"
        "if [ \"$1\" = --version ]; then echo 'Universal Ctags 9.8.7, +json'; exit 0; fi\n"
        "for a; do case \"$a\" in\n"
        "  *poison*) echo 'ctags: cannot parse' >&2; exit 1;;\n"
        "  /*) n=$(basename \"$a\" .c); printf '{\"_type\": \"tag\", \"name\": \"%s\", \"path\": \"%s\", "
        "\"line\": 1, \"kind\": \"function\"}\\n' \"$n\" \"$a\";;\n"
        "esac; done\n");
  fs::permissions(fake, fs::perms::owner_all);
  Ctags ctags(fake.string());
  EXPECT_EQ(ctags.version(), 90807);
  const fs::path repo = path("repo");
  for (const char* name : {"a.c", "b.c", "poison.c", "z.c"}) write(repo / name, "int x;\n");
  ExtractOptions options;
  options.jobs = 1;
  auto out = extract(repo, walk_repository(repo, {}), &ctags, options);
  ASSERT_EQ(out.files.size(), 4u);
  for (std::size_t i : {0u, 1u, 3u}) {
    ASSERT_EQ(out.files[i].tags.size(), 1u) << out.files[i].path;  // no duplicates from the retry
  }
  EXPECT_TRUE(out.files[2].tags.empty());
  ASSERT_EQ(out.errors.size(), 1u);
  EXPECT_EQ(out.errors[0].path, "poison.c");
  EXPECT_EQ(out.errors[0].error_type, PARSE_ERROR);
  EXPECT_EQ(out.errors[0].message, "ctags exited with status 1: ctags: cannot parse");
  EXPECT_EQ(out.ctags_runs, 5);

  EXPECT_THROW(Ctags("/nonexistent/ctags"), marsk_quorvi::RuntimeError);
}
