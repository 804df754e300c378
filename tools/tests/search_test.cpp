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
};

const FileSpec CORPUS[] = {
    {"src/util.cpp", {{1, "// helpers\nint add_numbers(int a, int b) {\n  return a + b;\n}\n"}},
     {{"add_numbers", "add_numbers", "function", 2}}},
    {"include/util.hpp", {{1, "#pragma once\nint add_numbers(int a, int b);\n"}},
     {{"add_numbers", "add_numbers", "prototype", 2}}},
    {"src/main.cpp", {{1, "int main() {\n  add_numbers(1, 2);\n  add_numbers(3, 4);\n  return add_numbers(5, 6);\n}\n"}},
     {{"main", "main", "function", 1}}},
    {"src/log.cpp", {{1, "spdlog::info(\"start\");\np->next = nullptr;\n"}, {3, "// info about spdlog\n// next p\n"}},
     {{"vector", "vector", "function", 1}}},
    // Its anchor row is named "vector": bookkeeping, not a definition.
    {"lib/vector", {{1, "// vector things\n"}}, {}},
    {"src/vec.hpp", {{1, "// a vector of ints\n\n"}, {3, "namespace std {\nclass vector {\n};\n}\n"}},
     {{"std", "std", "namespace", 3}, {"vector", "std::vector", "class", 4}}},
    {"src/db.cpp", {}, {{"open", "Database::open", "function", 10, "(const char *path)"}, {"open_file", "open_file", "function", 20}}},
    {"include/db.hpp", {}, {{"Database", "Database", "class", 3}, {"open", "Database::open", "prototype", 5}}},
    {"include/fcntl.h", {}, {{"open", "open", "prototype", 7}, {"open", "open", "macro", 3}}},
    {"third/party/io/open.c", {}, {{"open", "open", "function", 2}, {"opener", "opener", "variable", 9}}},
    {"py/m.py", {}, {{"open", "File.open", "member", 4}}},
    {"bin/open", {}, {}},
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

TEST(FtsQuery, KeepsTheSyntaxAndQuotesCode) {
  const std::tuple<const char*, const char*, std::size_t, Strings> cases[] = {  // typed, query, terms, names
      {"swap_index_from", "swap_index_from", 1, {"swap_index_from"}},
      {"spdlog::info", "\"spdlog::info\"", 1, {"info"}},
      {"foo(  x->y a.b", "\"foo(\" \"x->y\" \"a.b\"", 3, {"foo", "y", "b"}},
      {"foo-bar #include <stdio.h>", "\"foo-bar\" \"#include\" \"<stdio.h>\"", 3, {"bar", "include"}},
      {"printf(\"%d", "\"printf(\"\"%d\"", 1, {"printf"}},
      {"std::map<int> 2x", "\"std::map<int>\" 2x", 2, {"map"}},
      {"\"hello world\" \"say\"\"s\" pre* std::vec*", "\"hello world\" \"say\"\"s\" pre* \"std::vec\"*", 4, {"s"}},
      {"a AND (b OR c) NOT d", "a AND ( b OR c ) NOT d", 4, {"a", "b", "c", "d"}},
      {"NEAR(a \"b c\",5) x", "NEAR( a \"b c\" , 5 ) x", 3, {"a", "x"}},
      {"NEAR(a b, 12)", "NEAR( a b , 12 )", 2, {"a", "b"}},
      {"(foo() OR bar)", "( \"foo()\" OR bar )", 2, {"foo", "bar"}},
      {"(void)x if (", "\"(void)x\" if \"(\"", 3, {"if"}},
      {"café ÿ", "café ÿ", 2, {"café", "ÿ"}},
      {"\"open", "\"open", 1, {}},
      {"  ", "", 0, {}},
  };
  for (const auto& [typed, text, terms, names] : cases) {
    const auto q = fts_query(typed);
    EXPECT_EQ(std::tie(q.text, q.terms, q.names), std::tie(text, terms, names)) << typed;
  }
}

TEST_F(Search, DefinitionsFirstThenBm25WithCodeAsTyped) {
  // The query, the limit, the hits: "D " marks one that defines what the query names, "! " the message of a
  // query FTS5 rejects.
  const std::tuple<const char*, std::int64_t, Strings> cases[] = {
      {"add_numbers",
       20,
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
      {"nothing_like_it", 20, {}},
      {"foo AND", 20, {"! fts5: syntax error near \"\""}},
      {"NOT foo", 20, {"! fts5: syntax error near \"NOT\""}},
      {"\"open", 20, {"! unterminated string"}},
      {"", 20, {"! fts5: syntax error near \"\""}},
  };
  for (const auto& [typed, limit, hits] : cases) {
    Strings got;
    try {
      for (const auto& h : search(*db_, typed, limit)) got.push_back((h.defines ? "D " : "") + format_hit(h));
    } catch (const QueryError& e) {
      got.push_back(std::string("! ") + e.what());
    }
    EXPECT_EQ(got, hits) << typed;
  }
}

TEST_F(Search, DefinitionsByNameThenQualifiedNameThenPrefix) {
  const std::pair<const char*, Strings> cases[] = {
      // Definitions, the fewer scopes first; then declarations; macros last.
      {"open",
       {"function  third/party/io/open.c:2  open", "function  src/db.cpp:10  Database::open(const char *path)",
        "prototype  include/fcntl.h:7  open", "member  py/m.py:4  File.open",
        "prototype  include/db.hpp:5  Database::open", "macro  include/fcntl.h:3  open"}},
      {"Database::open",
       {"function  src/db.cpp:10  Database::open(const char *path)", "prototype  include/db.hpp:5  Database::open"}},
      {"File.open", {"member  py/m.py:4  File.open"}},
      {"src/db.cpp::Database::open", {"function  src/db.cpp:10  Database::open(const char *path)"}},
      {"opene*", {"variable  third/party/io/open.c:9  opener"}},
      {"open_file*", {"function  src/db.cpp:20  open_file"}},
      {"Database::op*",
       {"function  src/db.cpp:10  Database::open(const char *path)", "prototype  include/db.hpp:5  Database::open"}},
      {"Data*", {"class  include/db.hpp:3  Database"}},
      {"vector", {"class  src/vec.hpp:4  std::vector", "function  src/log.cpp:1  vector"}},
      {"bin", {}},
  };
  for (const auto& [name, expected] : cases) {
    Strings got;
    for (const auto& d : find_definitions(*db_, name, 20)) got.push_back(format_definition(d));
    EXPECT_EQ(got, expected) << name;
  }
  // The prefix group follows the exact names, which it does not repeat.
  const auto all = find_definitions(*db_, "open*", 20);
  ASSERT_EQ(all.size(), 8u);
  EXPECT_EQ(all[6].name + " " + all[7].name, "open_file opener");
  EXPECT_EQ(find_definitions(*db_, "open*", 2).size(), 2u);
  EXPECT_THROW(find_definitions(*db_, "*", 20), std::invalid_argument);
}
