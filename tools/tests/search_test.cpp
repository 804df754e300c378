// The search that puts definitions first and the definition lookup, over a
// small index whose files, symbols and chunks are written row by row.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "marsk_quorvi/storage/core_schema.hpp"
#include "quorvi/search.hpp"
#include "support/test_support.hpp"

namespace fs = std::filesystem;
using namespace marsk_quorvi::cli;
using Strings = std::vector<std::string>;

namespace {

struct Sym {
  const char* name;
  const char* qualified;
  const char* kind;
  int line;
  std::optional<std::string> signature = std::nullopt;
};
struct FileSpec {
  const char* path;
  std::vector<std::pair<int, std::string>> chunks;  // first line, text
  std::vector<Sym> symbols;
  std::vector<const char*> included_by = {};
};

const FileSpec CORPUS[] = {
    {"src/util.cpp", {{1, "// helpers\nint add_numbers(int a, int b) {\n  return a + b;\n}\n"}},
     {{"add_numbers", "add_numbers", "function", 2}}},
    {"include/util.hpp", {{1, "#pragma once\nint add_numbers(int a, int b);\n"}},
     {{"add_numbers", "add_numbers", "prototype", 2}}},
    {"src/main.cpp", {{1, "int main() {\n  add_numbers(1, 2);\n  add_numbers(3, 4);\n  return add_numbers(5, 6);\n}\n"}},
     {{"main", "main", "function", 1}}},
    {"src/log.cpp", {{1, "spdlog::info(\"start\");\np->next = nullptr;\n"}, {3, "// info about spdlog\n// next p\n"}},
     {{"vector", "vector", "function", 1}}, {"src/util.cpp", "src/main.cpp"}},  // more see it, but types come first
    // Its anchor row is named "vector": bookkeeping, not a definition.
    {"lib/vector", {{1, "// vector things\n"}}, {}},
    {"src/db.cpp", {}, {{"open", "Database::open", "function", 10, "(const char *path)"}, {"open_file", "open_file", "function", 20}}},
    {"src/vec.hpp", {{1, "// a vector of ints\n\n"}, {3, "namespace std {\nclass vector {\n};\n}\n"}},
     {{"std", "std", "namespace", 3}, {"vector", "std::vector", "class", 4}}, {"src/db.cpp"}},
    {"include/db.hpp", {}, {{"Database", "Database", "class", 3}, {"open", "Database::open", "prototype", 5}},
     {"src/vec.hpp"}},  // which db.cpp includes: its Database::open implements this one
    {"include/fcntl.h", {}, {{"open", "open", "prototype", 7}, {"open", "open", "macro", 3}}},
    {"third/party/io/open.c", {}, {{"open", "open", "function", 2}, {"opener", "opener", "variable", 9}}},
    {"py/m.py", {}, {{"open", "File.open", "member", 4}, {"openmode", "openmode", "class", 8},
                    {"Config.load", "Config.load", "function", 12}}},  // a name that holds a dot
    {"bin/open", {}, {}},
    {"src/printf.c", {}, {{"printf", "printf", "function", 4}}},  // a C library's, as stdio.h declares it
    {"vendor/compat.h", {{2, "int printf() {}\n"}}, {{"printf", "printf", "function", 2}, {"u32", "u32", "typedef", 6},
     {"u32x", "u32x", "typedef", 7}}, {"src/main.cpp"}},  // fallbacks, which fewer files see
    {"vendor/compat_io.h", {}, {}, {"vendor/compat.h"}},  // through which compat.h includes stdio.h
    {"include/stdio.h", {{3, "int printf();\n"}}, {{"printf", "printf", "prototype", 3}},
     {"src/main.cpp", "src/printf.c", "vendor/compat_io.h"}},
    {"include/stdio2.h", {}, {{"printf", "printf", "function", 9}, {"u32", "u32", "typedef", 5}}, {"include/stdio.h"}},
};

class Search : public marsk_quorvi::testing::IndexTest {
 protected:
  void SetUp() override {
    IndexTest::SetUp();
    db_ = open();
    std::int64_t file_id = 0;
    for (const auto& f : CORPUS) {
      db_->execute("INSERT INTO files (id, path, language) VALUES (?, ?, 'cpp')", {++file_id, f.path});
      db_->execute("INSERT INTO symbols (file_id, name, fqn, kind, start_line) VALUES (?, ?, ?, 'module', 1)",
                   {file_id, fs::path(f.path).filename().string(), f.path});
      for (const char* by : f.included_by)
        db_->execute("INSERT INTO edges (source_id, target_id, kind) SELECT a.id, b.id, 'includes' FROM symbols a, "
                     "symbols b WHERE a.fqn = ? AND b.fqn = ?", {by, f.path});
      for (const auto& s : f.symbols) {
        db_->execute("INSERT INTO symbols (file_id, name, fqn, kind, start_line, end_line, signature, parent_id) "
                     "VALUES (?, ?, ?, ?, ?, ?, ?, 1)",
                     {file_id, s.name, std::string(f.path) + "::" + s.qualified, s.kind, s.line, s.line, s.signature});
      }
      std::int64_t n = 0;
      for (const auto& [first, text] : f.chunks) {
        const auto lines = std::count(text.begin(), text.end(), '\n');
        db_->execute("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) VALUES (?, ?, ?, ?, 1)",
                     {marsk_quorvi::storage::core_schema::chunk_rowid(file_id, n++), text, first, first + lines - 1});
      }
    }
  }
  std::unique_ptr<marsk_quorvi::testing::TestDb> db_;
};

}  // namespace

TEST_F(Search, WhatIsTypedTheFtsQueryTheHitsAndTheDefinitions) {
  // What was typed, the limit, the rows: after "fts ", the FTS5 query, its terms and the names it looks up; after
  // "def ", the definitions; else the hits, "D " marking one that defines a name the query names; "! " a rejection.
  const std::tuple<const char*, std::int64_t, Strings> cases[] = {
      {"fts swap_index_from", 0, {"swap_index_from", "1", "swap_index_from"}},
      {"fts spdlog::info", 0, {"\"spdlog::info\"", "1", "info"}},
      {"fts foo(  x->y a.b", 0, {"\"foo(\" \"x->y\" \"a.b\"", "3", "foo", "y", "b"}},
      {"fts foo-bar #include <stdio.h>", 0, {"\"foo-bar\" \"#include\" \"<stdio.h>\"", "3", "bar", "include"}},
      {"fts printf(\"%d", 0, {"\"printf(\"\"%d\"", "1", "printf"}},
      {"fts std::map<int> 2x", 0, {"\"std::map<int>\" 2x", "2", "map"}},
      {"fts \"hello world\" \"say\"\"s\" pre* std::vec*", 0, {"\"hello world\" \"say\"\"s\" pre* \"std::vec\"*", "4", "s"}},
      {"fts a AND (b OR c) NOT d", 0, {"a AND ( b OR c ) NOT d", "4", "a", "b", "c", "d"}},
      {"fts NEAR(a \"b c\",5) x", 0, {"NEAR( a \"b c\" , 5 ) x", "3", "a", "x"}},
      {"fts NEAR(a b, 12)", 0, {"NEAR( a b , 12 )", "2", "a", "b"}},
      {"fts (foo() OR bar)", 0, {"( \"foo()\" OR bar )", "2", "foo", "bar"}},
      {"fts (void)x if (", 0, {"\"(void)x\" if \"(\"", "3", "if"}},
      {"fts café ÿ", 0, {"café ÿ", "2", "café", "ÿ"}},
      {"fts \"open", 0, {"\"open", "1"}},
      {"fts   ", 0, {"", "0"}},
      {"add_numbers", 20,
       {"D src/util.cpp:2  int add_numbers(int a, int b) {", "D include/util.hpp:2  int add_numbers(int a, int b);",
        "src/main.cpp:2-4  add_numbers(1, 2);"}},
      {"add_numbers(", 1, {"D src/util.cpp:2  int add_numbers(int a, int b) {"}},
      {"vector", 20, {"D src/vec.hpp:4  class vector {", "lib/vector:1  // vector things", "src/vec.hpp:1  // a vector of ints"}},
      {"class vector", 20, {"D src/vec.hpp:4  class vector {"}},
      {"spdlog::info", 20, {"src/log.cpp:1  spdlog::info(\"start\");"}},
      {"p->next", 20, {"src/log.cpp:2  p->next = nullptr;"}},
      {"#pragma", 20, {"include/util.hpp:1  #pragma once"}},
      {"\"about spdlog\"", 20, {"src/log.cpp:3  // info about spdlog"}},
      {"spd*", 20, {"src/log.cpp:3  // info about spdlog", "src/log.cpp:1  spdlog::info(\"start\");"}},
      {"info NOT about", 20, {"src/log.cpp:1  spdlog::info(\"start\");"}},
      {"NEAR(info spdlog, 0)", 20, {"src/log.cpp:1  spdlog::info(\"start\");"}},
      {"(ints OR things) AND vector", 20, {"lib/vector:1  // vector things", "src/vec.hpp:1  // a vector of ints"}},
      {"printf", 20, {"D include/stdio.h:3  int printf();", "D vendor/compat.h:2  int printf() {}"}},  // as def has it
      {"nothing_like_it", 20, {}},
      {"foo AND", 20, {"! fts5: syntax error near \"\""}},
      {"NOT foo", 20, {"! fts5: syntax error near \"NOT\""}},
      {"\"open", 20, {"! unterminated string"}},
      {"", 20, {"! fts5: syntax error near \"\""}},
      // What more files see first; then definitions, the fewer scopes first; declarations; macros last.
      {"def open", 20,
       {"function  src/db.cpp:10  Database::open(const char *path)", "prototype  include/db.hpp:5  Database::open",
        "function  third/party/io/open.c:2  open", "prototype  include/fcntl.h:7  open", "member  py/m.py:4  File.open",
        "macro  include/fcntl.h:3  open"}},
      {"def Database::open", 20,
       {"function  src/db.cpp:10  Database::open(const char *path)", "prototype  include/db.hpp:5  Database::open"}},
      {"def File.open", 20, {"member  py/m.py:4  File.open"}},
      {"def src/db.cpp::Database::open", 20, {"function  src/db.cpp:10  Database::open(const char *path)"}},
      {"def py/m.py::Config.load", 20, {"function  py/m.py:12  Config.load"}},
      {"def opene*", 20, {"variable  third/party/io/open.c:9  opener"}},
      {"def open_file*", 20, {"function  src/db.cpp:20  open_file"}},
      {"def Database::op*", 20,
       {"function  src/db.cpp:10  Database::open(const char *path)", "prototype  include/db.hpp:5  Database::open"}},
      {"def Data*", 20, {"class  include/db.hpp:3  Database"}},
      {"def vector", 20, {"class  src/vec.hpp:4  std::vector", "function  src/log.cpp:1  vector"}},
      {"def open*", 1, {"function  src/db.cpp:10  Database::open(const char *path)"}},
      // By the files that include each, directly or not; the prefix group follows, without repeating them.
      {"def printf", 20,
       {"function  src/printf.c:4  printf", "prototype  include/stdio.h:3  printf",
        "function  include/stdio2.h:9  printf", "function  vendor/compat.h:2  printf"}},
      {"def u32*", 20,
       {"typedef  include/stdio2.h:5  u32", "typedef  vendor/compat.h:6  u32", "typedef  vendor/compat.h:7  u32x"}},
      {"def bin", 20, {}},
      {"def *", 20, {"! no name to look up"}},
  };
  // The include graph followed in SQL, and loaded whole.
  const auto nearby = include_rows_in_sql;
  for (const std::int64_t followed : {nearby, std::int64_t{0}}) {
    include_rows_in_sql = followed;
    for (const auto& [typed, limit, rows] : cases) {
      Strings got;
      try {
        if (std::string_view(typed).starts_with("fts ")) {
          const auto q = fts_query(typed + 4);
          got = {q.text, std::to_string(q.terms)};
          got.insert(got.end(), q.names.begin(), q.names.end());
        } else if (std::string_view(typed).starts_with("def ")) {
          for (const auto& d : find_definitions(*db_, typed + 4, limit)) got.push_back(format_definition(d));
        } else {
          for (const auto& h : search(*db_, typed, limit)) got.push_back((h.defines ? "D " : "") + format_hit(h));
        }
      } catch (const std::exception& e) {
        got.push_back(std::string("! ") + e.what());
      }
      EXPECT_EQ(got, rows) << typed << ", include rows followed in SQL: " << followed;
    }
  }
  include_rows_in_sql = nearby;
}
