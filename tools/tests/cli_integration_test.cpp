// quorvi-db end to end: a small repository made here is indexed by the real
// executable, searched, edited and indexed again.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "marsk_quorvi/storage/database.hpp"
#include "support/test_support.hpp"

#ifdef QUORVI_DB_EXE

namespace fs = std::filesystem;
namespace mq = marsk_quorvi::storage;

namespace {

struct ToolRun {
  int status;
  std::string out;
};

ToolRun quorvi(const std::vector<std::string>& args) {
  std::string cmd = std::string("'") + QUORVI_DB_EXE + "'";
  for (const auto& a : args) cmd += " '" + a + "'";
  cmd += " 2>/dev/null";
  ToolRun run{-1, ""};
  FILE* pipe = ::popen(cmd.c_str(), "r");
  if (!pipe) return run;
  std::array<char, 4096> buf{};
  std::size_t n;
  while ((n = std::fread(buf.data(), 1, buf.size(), pipe)) > 0) run.out.append(buf.data(), n);
  const int status = ::pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

void write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

class QuorviDbIntegration : public marsk_quorvi::testing::TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    repo = dir_ / "repo";
    write(repo / "src/shapes.py", "class Rectangle:\n    def area(self):\n        return 42\n");
    write(repo / "lib/engine.cpp", "int spin_turbine(int rpm) {\n  return rpm * 2;\n}\n");
    write(repo / "assets/blob.bin", std::string("\x7f" "ELF\0\0\x01\x02 binary", 16));
    fs::create_symlink(repo / "nowhere.txt", repo / "src/unreadable.py");
    index_db = repo / "memory/codebase-index/index.db";
  }

  std::vector<mq::Row> query(const std::string& sql) {
    mq::Database db(index_db);
    db.connect();
    auto rows = db.fetchall(sql);
    db.close();
    return rows;
  }

  fs::path repo;
  fs::path index_db;
};

TEST_F(QuorviDbIntegration, IndexSearchReindex) {
  const ToolRun first = quorvi({"index", repo.string()});
  ASSERT_EQ(first.status, 0) << first.out;
  ASSERT_TRUE(fs::exists(index_db));

  // Two languages, the text files indexed, one error row per bad file.
  const auto languages = query("SELECT DISTINCT language FROM files WHERE language IS NOT NULL ORDER BY 1");
  std::vector<std::string> names;
  for (const auto& r : languages) names.push_back(r[0].as_text());
  EXPECT_NE(std::find(names.begin(), names.end(), "python"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "cpp"), names.end());
  const auto errors = query("SELECT file_path, error_type FROM index_errors ORDER BY file_path");
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_EQ(errors[0]["file_path"].as_text(), "assets/blob.bin");
  EXPECT_EQ(errors[0]["error_type"].as_text(), "binary_file");
  EXPECT_EQ(errors[1]["file_path"].as_text(), "src/unreadable.py");
  EXPECT_EQ(errors[1]["error_type"].as_text(), "io_error");
  EXPECT_EQ(query("SELECT 1 FROM symbols WHERE name = 'spin_turbine'").size(), 1u);

  const ToolRun hit = quorvi({"search", "spin_turbine", "--db", index_db.string()});
  ASSERT_EQ(hit.status, 0);
  EXPECT_NE(hit.out.find("lib/engine.cpp"), std::string::npos) << hit.out;
  EXPECT_EQ(hit.out.find("shapes.py"), std::string::npos) << hit.out;

  const ToolRun generation = quorvi({"generation", "--db", index_db.string()});
  ASSERT_EQ(generation.status, 0);
  EXPECT_EQ(generation.out, "1\n");

  // An edit reaches the index only through the next pass, which raises the
  // generation.
  write(repo / "lib/engine.cpp", "int spin_rotor(int rpm) {\n  return rpm * 3;\n}\n");
  const ToolRun second = quorvi({"index", repo.string()});
  ASSERT_EQ(second.status, 0) << second.out;
  EXPECT_EQ(quorvi({"generation", "--db", index_db.string()}).out, "2\n");
  EXPECT_EQ(quorvi({"search", "spin_turbine", "--db", index_db.string()}).out.find("engine.cpp"), std::string::npos);
  EXPECT_NE(quorvi({"search", "spin_rotor", "--db", index_db.string()}).out.find("lib/engine.cpp"),
            std::string::npos);
}

TEST_F(QuorviDbIntegration, ExitCodesForBadInput) {
  // Commands that only read never create an index.
  EXPECT_EQ(quorvi({"stats", "--db", (dir_ / "none.db").string()}).status, 3);
  EXPECT_FALSE(fs::exists(dir_ / "none.db"));
  EXPECT_EQ(quorvi({"no-such-command"}).status, 2);
  ASSERT_EQ(quorvi({"index", repo.string()}).status, 0);
  EXPECT_EQ(quorvi({"search", "\"unbalanced", "--db", index_db.string()}).status, 2);
  write(dir_ / "garbage.db", std::string(8192, 'x'));
  EXPECT_EQ(quorvi({"stats", "--db", (dir_ / "garbage.db").string()}).status, 5);
  EXPECT_EQ(quorvi({"check", "--db", index_db.string()}).status, 0);
}

}  // namespace

#endif  // QUORVI_DB_EXE
