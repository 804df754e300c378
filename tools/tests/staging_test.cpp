// The staging index built from an extraction: its rows, how symbols nest,
// how text is cut into chunks, and a failed build leaving nothing behind.
#include <gtest/gtest.h>

#include <fstream>

#include "marsk_quorvi/storage/core_schema.hpp"
#include "marsk_quorvi/storage/sqlite.hpp"
#include "quorvi/source_file.hpp"
#include "quorvi/staging.hpp"
#include "support/test_support.hpp"

namespace fs = std::filesystem;
using namespace marsk_quorvi::cli;
namespace storage = marsk_quorvi::storage;

namespace {

std::string rows_of(storage::Connection& conn, const std::string& sql) {
  std::string out;
  for (const auto& row : conn.execute(sql).fetchall()) {
    for (std::size_t i = 0; i < row.size(); ++i) out += (i ? "|" : "") + row[i].to_text();
    out += "\n";
  }
  return out;
}

FileRecord record(std::string path, std::string language, std::string text, std::vector<Tag> tags = {}) {
  FileRecord f;
  f.path = std::move(path);
  f.language = std::move(language);
  f.size = static_cast<std::int64_t>(text.size());
  f.line_count = 0;
  for (char c : text) f.line_count += c == '\n';
  f.text = std::move(text);
  f.tags = std::move(tags);
  return f;
}

}  // namespace

class Staging : public marsk_quorvi::testing::TempDirTest {};

TEST_F(Staging, HoldsACompleteIndexOfTheExtraction) {
  std::string long_text;
  for (int i = 1; i <= CHUNK_LINES * 2 + 5; ++i) long_text += "line " + std::to_string(i) + "\n";
  Extraction ex;
  ex.files.push_back(record("README.md", "markdown", "# Title\n"));
  ex.files.push_back(record("src/a.cpp", "cpp", "namespace n {\nstruct S {\n  void f();\n};\n}\n",
                            {{"src/a.cpp", "n", "namespace", 1, 5, std::nullopt, std::nullopt, std::nullopt},
                             {"src/a.cpp", "S", "struct", 2, 4, std::nullopt, "n", "namespace"},
                             {"src/a.cpp", "f", "prototype", 3, 3, "()", "n::S", "struct"},
                             {"src/a.cpp", "g", "function", 9, std::nullopt, "()", "missing", "class"}}));
  ex.files.push_back(record("src/long.txt", "text", long_text));
  ex.files.push_back(record("tools/empty.py", "python", ""));
  ex.errors.push_back({"bin/blob", BINARY_ERROR, "binary content: a NUL byte at offset 0", std::nullopt});
  const fs::path staging = path("index.db.staging");
  const auto counts = build_staging(staging, dir_, ex);
  EXPECT_EQ(counts.components, 2);
  EXPECT_EQ(counts.files, 4);
  EXPECT_EQ(counts.symbols, 4);
  EXPECT_EQ(counts.chunks, 1 + 1 + 3);
  EXPECT_EQ(counts.errors, 1);

  auto conn = storage::Connection::open(staging.string());
  EXPECT_EQ(rows_of(*conn, "SELECT id, name, root_path FROM components ORDER BY id"), "1|src|src\n2|tools|tools\n");
  EXPECT_EQ(rows_of(*conn, "SELECT id, path, language, size, component_id, stale FROM files ORDER BY id"),
            "1|README.md|markdown|8|NULL|0\n2|src/a.cpp|cpp|42|1|0\n3|src/long.txt|text|" +
                std::to_string(long_text.size()) + "|1|0\n4|tools/empty.py|python|0|2|0\n");
  EXPECT_EQ(rows_of(*conn, "SELECT content_hash FROM files WHERE id = 1"), content_hash("# Title\n") + "\n");
  // One anchor per file; each tag under its enclosing symbol, or under the
  // anchor when ctags names a scope the file does not define.
  EXPECT_EQ(rows_of(*conn,
                    "SELECT s.name, s.fqn, s.kind, s.start_line, s.end_line, p.name FROM symbols s "
                    "LEFT JOIN symbols p ON p.id = s.parent_id WHERE s.file_id = 2 ORDER BY s.id"),
            "a.cpp|src/a.cpp|module|1|5|NULL\n"
            "n|src/a.cpp::n|namespace|1|5|a.cpp\n"
            "S|src/a.cpp::n::S|struct|2|4|n\n"
            "f|src/a.cpp::n::S::f|prototype|3|3|S\n"
            "g|src/a.cpp::missing::g|function|9|9|a.cpp\n");
  EXPECT_EQ(rows_of(*conn, "SELECT COUNT(*) FROM symbols WHERE kind = 'module'"), "4\n");
  // Chunks are keyed (file id << 20) + number and cover the text verbatim.
  EXPECT_EQ(rows_of(*conn, "SELECT rowid >> 20, rowid & 1048575, start_line, end_line, exact FROM code_chunks "
                           "WHERE rowid >> 20 = 3 ORDER BY rowid"),
            "3|0|1|60|1\n3|1|61|120|1\n3|2|121|125|1\n");
  EXPECT_EQ(rows_of(*conn, "SELECT group_concat(text, '') FROM (SELECT text FROM code_chunks WHERE rowid >> 20 = 3 "
                           "ORDER BY rowid)"),
            long_text + "\n");
  EXPECT_EQ(rows_of(*conn, "SELECT rowid >> 20 FROM code_chunks WHERE code_chunks MATCH 'struct'"), "2\n");
  EXPECT_EQ(rows_of(*conn, "SELECT file_path, error_type, message, line FROM index_errors"),
            "bin/blob|binary_file|binary content: a NUL byte at offset 0|NULL\n");
  EXPECT_EQ(rows_of(*conn, "PRAGMA page_size"), "8192\n");
  // The same schema as a file the tables were made in directly, indexes
  // included (the bulk load drops and remakes them).
  auto fresh = storage::Connection::open(path("fresh.db").string());
  fresh->execute("BEGIN");
  {
    auto c = fresh->cursor();
    storage::core_schema::create_tables(c);
  }
  fresh->execute("COMMIT");
  const std::string schema = "SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY type, name";
  EXPECT_EQ(rows_of(*conn, schema), rows_of(*fresh, schema));
  EXPECT_NE(rows_of(*conn, schema).find("idx_symbols_fqn"), std::string::npos);
  EXPECT_EQ(rows_of(*conn, "PRAGMA foreign_key_check"), "");
  conn->close();
  EXPECT_FALSE(fs::exists(path("index.db.staging-journal")));
}

TEST_F(Staging, AFailedBuildLeavesNoFileAndAnOldOneIsReplaced) {
  const fs::path staging = path("index.db.staging");
  std::ofstream(staging) << "left over from a crash";
  Extraction ok;
  ok.files.push_back(record("a.c", "c", "int a;\n"));
  EXPECT_EQ(build_staging(staging, dir_, ok).files, 1);

  Extraction twice;  // the same path twice breaks files.path's uniqueness
  twice.files.push_back(record("a.c", "c", "int a;\n"));
  twice.files.push_back(record("a.c", "c", "int b;\n"));
  EXPECT_THROW(build_staging(staging, dir_, twice), storage::Error);
  EXPECT_FALSE(fs::exists(staging));
}

TEST(StagingPaths, SitBesideTheIndex) {
  EXPECT_EQ(staging_path_for("/r/memory/codebase-index/index.db"), fs::path("/r/memory/codebase-index/index.db.staging"));
  EXPECT_EQ(content_hash(""), "cbf29ce484222325");
  EXPECT_NE(content_hash("a"), content_hash("b"));
}
