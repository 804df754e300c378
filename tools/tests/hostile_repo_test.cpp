// quorvi-db on trees made to trip it up: links out of the repository, FIFOs
// and devices where files are expected, the chunk limit, children that must
// not outlive the tool, and the real executable on the repository that
// tests/make_hostile_repo.sh makes.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "marsk_quorvi/storage/core_schema.hpp"
#include "quorvi/source_file.hpp"
#include "quorvi/staging.hpp"
#include "quorvi/subprocess.hpp"
#include "support/test_support.hpp"

namespace fs = std::filesystem;
namespace layout = marsk_quorvi::storage::core_schema;
using namespace marsk_quorvi::cli;
using marsk_quorvi::testing::write;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

// The walk as one string: the files (kinds other than regular in brackets),
// then a line per problem.
std::string walked(const fs::path& repo) {
  const auto w = walk_repository(repo, IgnoreRules::load(repo));
  std::string out;
  for (const auto& f : w.files) out += f.path + (f.other_kind.empty() ? "" : "[" + f.other_kind + "]") + " ";
  for (const auto& p : w.problems) out += "\n" + p.path + ": " + p.error_type + ": " + p.message;
  return out;
}

class Hostile : public marsk_quorvi::testing::TempDirTest {};

}  // namespace

TEST_F(Hostile, WalkStaysInsideAndReadsOnlyARegularGitignore) {
  write(path("outside/secret.c"), "int secret;\n");
  const auto link = [](const fs::path& target, const fs::path& at) { fs::create_symlink(target, at); };
  const std::string out_of = "leads outside the repository; not followed";
  const std::pair<std::function<void(const fs::path&)>, std::string> cases[] = {  // how to make it, its walk
      {[&](const fs::path& r) {
         write(r / "a.c", "");
         link(path("outside/secret.c"), r / "abs.c");
         link("../outside", r / "outdir");
         link("a.c", r / "alias.c");  // a second name inside: left out, a.c is walked
         link("..", r / "src/up");     // a folder inside: not followed, so no loop
         link("nowhere", r / "dangling.c");
         link("loop2", r / "loop1");
         link("loop1", r / "loop2");
       },
       "a.c src/x.c \nabs.c: outside_repository: the symbolic link abs.c " + out_of +
           "\ndangling.c: io_error: cannot resolve the symbolic link dangling.c: No such file or directory"
           "\nloop1: io_error: cannot resolve the symbolic link loop1: Too many levels of symbolic links"
           "\nloop2: io_error: cannot resolve the symbolic link loop2: Too many levels of symbolic links"
           "\noutdir: outside_repository: the symbolic link outdir " + out_of},
      {[&](const fs::path& r) {
         for (const char* f : {"build/a.c", "src/build/b.c", "src/node_modules/c.js", "out/CMakeCache.txt", "out/d.c"}) {
           write(r / f, "");
         }
       },
       "src/build/b.c src/x.c "},
      {[&](const fs::path& r) { ASSERT_EQ(::mkfifo((r / ".gitignore").c_str(), 0644), 0); },
       ".gitignore[fifo] src/x.c \n.gitignore: io_error: rules not applied: not a regular file: a fifo"},
      {[&](const fs::path& r) { link("/dev/zero", r / ".gitignore"); },
       "src/x.c \n.gitignore: io_error: rules not applied: cannot open: a symbolic link, not followed"
       "\n.gitignore: outside_repository: the symbolic link .gitignore " + out_of},
      {[&](const fs::path& r) { write(r / ".gitignore", "src/\n" + std::string(MAX_GITIGNORE_BYTES, '#')); },
       ".gitignore src/x.c \n.gitignore: file_too_large: rules not applied: 1048581 bytes, the limit is 1048576 bytes"},
      {[&](const fs::path& r) { fs::create_directory(r / ".gitignore"); },
       "src/x.c \n.gitignore: io_error: rules not applied: not a regular file: a directory"},
      {[&](const fs::path& r) { write(r / ".gitignore", "src/\n"); }, ".gitignore "},
  };
  int n = 0;
  for (const auto& [make, walk] : cases) {
    const fs::path repo = path("repo" + std::to_string(++n));
    write(repo / "src/x.c", "");
    make(repo);
    EXPECT_EQ(walked(repo), walk) << repo;
  }
  // The walk as a whole fails loudly, never as an empty repository.
  write(path("file"), "");
  for (const auto& [root, what] : {std::pair{path("none"), "cannot resolve the repository " + path("none").string() +
                                                               ": No such file or directory"},
                                   {path("file"), "cannot open the repository " + path("file").string() +
                                                      ": Not a directory"}}) {
    EXPECT_THAT([&] { walk_repository(root, {}); }, ::testing::ThrowsMessage<WalkError>(what));
  }
}

TEST_F(Hostile, ChunksPastTheRowidLayoutStayOutWithARowNamingTheFile) {
  constexpr auto most = layout::MAX_CHUNKS_PER_FILE;
  struct Rows : StagingRows {
    std::vector<std::int64_t> rowids;
    std::vector<std::string> errors;
    void component(std::int64_t, const std::string&) override {}
    void file(std::int64_t, const FileRecord&, const std::string&, std::optional<double>,
              std::optional<std::int64_t>) override {}
    void symbol(std::int64_t, std::int64_t, const std::string&, const std::string&, const std::string&, std::int64_t,
                std::int64_t, std::optional<std::int64_t>, const std::optional<std::string>&) override {}
    void chunk(std::int64_t rowid, std::string_view, std::int64_t, std::int64_t) override { rowids.push_back(rowid); }
    void error(const FileError& e) override { errors.push_back(e.path + ": " + e.message); }
  };
  for (const std::int64_t extra : {0, 1}) {
    Extraction ex;
    ex.files = {{"huge.txt", "text", std::string(static_cast<std::size_t>(most * CHUNK_LINES + extra), '\n')},
                {"next.txt", "text", "x\n"}};
    Rows rows;
    const auto counts = generate_staging_rows(path("."), ex, rows);
    ASSERT_EQ(rows.rowids.size(), static_cast<std::size_t>(most + 1));
    EXPECT_EQ(rows.rowids[most - 1], layout::chunk_rowid(1, most - 1));
    EXPECT_EQ(rows.rowids[most], layout::chunk_rowid(2, 0));
    EXPECT_EQ(counts.errors, extra);
    EXPECT_EQ(rows.errors, extra ? std::vector<std::string>{"huge.txt: more than 62914560 lines, the most the index "
                                                            "holds of one file (1048576 chunks of 60); lines from "
                                                            "62914561 on are not searchable"}
                                 : std::vector<std::string>{});
  }
}

TEST_F(Hostile, ChildrenKeepOnlyTheirDescriptorsAndEndWhenToldOrWhenTheirParentDies) {
  write(path("f"), "seen");
  const int kept = ::open(path("f").c_str(), O_RDONLY | O_CLOEXEC), other = ::open(path("f").c_str(), O_RDONLY | O_CLOEXEC);
  const auto cat = [](int fd, std::vector<int> inherit) {
    std::string out;
    const auto r = run_process({"sh", "-c", "cat <&" + std::to_string(fd) + " 2>/dev/null"},
                               [&](std::string_view l) { out += l; }, inherit);
    return std::to_string(r.exit_code) + ":" + out;
  };
  EXPECT_EQ(cat(kept, {kept}) + " " + cat(other, {kept}), "0:seen 2:");
  for (const int fd : {kept, other}) ::close(fd);

  // Told, in a process of its own since no child starts after that: SIGTERM
  // reaches the child even where the tool blocks it.
  const pid_t told = ::fork();
  if (told == 0) {
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &term, nullptr);
    const auto r = run_process({"sh", "-c", "echo ready; exec sleep 100"}, [](std::string_view) { terminate_children(); });
    try {
      run_process({"true"}, [](std::string_view) {});
    } catch (const marsk_quorvi::OSError& e) {
      ::_exit(e.what() == std::string("not running true: stopping") ? r.signal : 100);
    }
    ::_exit(101);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(told, &status, 0), told);
  EXPECT_EQ(WEXITSTATUS(status), SIGTERM);

  // Orphaned: a process that dies mid-run takes its child along; this one
  // adopts the orphan to see how it ended.
  ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  const pid_t parent = ::fork();
  if (parent == 0) {
    run_process({"sh", "-c", "echo started; exec sleep 100"}, [](std::string_view) { ::_exit(0); });
    ::_exit(1);
  }
  ASSERT_EQ(::waitpid(parent, &status, 0), parent);
  EXPECT_EQ(status, 0);
  ASSERT_GT(::waitpid(-1, &status, 0), 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
}

#if defined(QUORVI_DB_EXE) && defined(QUORVI_HOSTILE_REPO_SCRIPT)

TEST_F(Hostile, IndexesTheHostileRepositoryWithNothingFromOutside) {
  const auto quiet = [](std::string_view) {};
  ASSERT_EQ(run_process({"sh", QUORVI_HOSTILE_REPO_SCRIPT, path("h")}, quiet).exit_code, 0);
  const fs::path db = path("index/index.db");
  // Run from inside the repository, whose .ctags.d would hide every C symbol
  // from a ctags that reads option files. `timeout` only keeps a hang from
  // stalling the suite.
  std::string out;
  const auto r = run_process({"timeout", "600", "sh", "-c", "cd \"$1\" && exec \"$2\" index . --db \"$3\"", "sh",
                              path("h/repo"), QUORVI_DB_EXE, db},
                             [&](std::string_view l) { (out += l) += "\n"; });
  EXPECT_EQ(r.exit_code, 0) << r.err;
  for (const auto& file : fs::directory_iterator(db.parent_path())) out += marsk_quorvi::testing::file_bytes(file.path());
  EXPECT_THAT(out + r.err, Not(HasSubstr("SECRET")));  // both the text and the symbol from outside
  EXPECT_EQ(marsk_quorvi::testing::rows_of(
                db, "SELECT group_concat(x, ' ') FROM (SELECT f.path || ':' || s.name AS x FROM symbols s JOIN files f "
                    "ON f.id = s.file_id WHERE s.kind != 'module' UNION ALL SELECT file_path || ':' || error_type "
                    "FROM index_errors ORDER BY 1)"),
            ".gitignore:io_error .gitignore:outside_repository a.c:visible_function absolute_out.c:outside_repository "
            "caf\xe9.c:latin1_symbol d\xff/x.c:in_latin1_folder loop_a:io_error loop_b:io_error "
            "memory:outside_repository outdir:outside_repository pipe.c:io_error relative_out.c:outside_repository "
            "src/deep/build/kept.c:deep_build_symbol sub/.gitignore:io_error\n");
}

#endif
