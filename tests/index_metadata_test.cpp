// The index generation (seen by other processes, committed or rolled back
// with its transaction) and the extractor stamp (stale marks and the new
// stamp in one transaction, unknown formats warned about).
#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <string>

#include "marsk_quorvi/storage/database.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
using marsk_quorvi::testing::LogCapture;
using marsk_quorvi::testing::LogRecord;
using marsk_quorvi::testing::PeerProcess;

namespace {

using TestDb = marsk_quorvi::testing::TestDb;

class IndexMetadata : public marsk_quorvi::testing::TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    db = std::make_unique<TestDb>(path("index.db"));
    db->connect();
    db->create_schema();
    db->migrate_schema();
  }

  std::string peer_generation() {
    const auto r = PeerProcess::run({"generation", path("index.db").string()});
    EXPECT_EQ(r.status, 0);
    return r.output;
  }

  void add_files(const std::vector<std::pair<std::string, std::string>>& path_language) {
    for (const auto& [p, language] : path_language) {
      db->execute("INSERT INTO files (path, language) VALUES (?, ?)", {p, language});
    }
  }

  std::vector<std::string> stale_paths() {
    std::vector<std::string> out;
    for (const auto& r : db->fetchall("SELECT path FROM files WHERE stale = 1 ORDER BY path")) {
      out.push_back(r[0].as_text());
    }
    return out;
  }

  std::optional<std::string> stamp() {
    auto r = db->fetchone("SELECT value FROM schema_info WHERE key = ?", {mq::EXTRACTOR_VERSIONS_KEY});
    if (!r) return std::nullopt;
    return (*r)[0].to_text();
  }

  void set_stamp(const mq::Value& value) {
    db->execute("INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)", {mq::EXTRACTOR_VERSIONS_KEY, value});
  }

  std::unique_ptr<TestDb> db;
};

// ------------------------------------------------------------------ generation

TEST_F(IndexMetadata, CommittedBumpIsSeenByAnotherProcessAndARolledBackOneIsNot) {
  EXPECT_EQ(db->index_generation(), 0);
  EXPECT_EQ(peer_generation(), "0\n");

  db->transaction([&](mq::Cursor& c) { db->impl()._bump_index_generation(&c); });
  EXPECT_EQ(db->index_generation(), 1);
  EXPECT_EQ(peer_generation(), "1\n");

  EXPECT_THROW(db->transaction([&](mq::Cursor& c) {
    db->impl()._bump_index_generation(&c);
    // The owner reads its own uncommitted bump; another thread sees the
    // committed value, without waiting for this transaction.
    EXPECT_EQ(db->index_generation(), 2);
    EXPECT_EQ(std::async(std::launch::async, [&] { return db->index_generation(); }).get(), 1);
    throw std::runtime_error("swap failed");
  }),
               std::runtime_error);
  EXPECT_EQ(db->index_generation(), 1);
  EXPECT_EQ(peer_generation(), "1\n");

  // Without a cursor the bump commits at once.
  db->impl()._bump_index_generation();
  EXPECT_EQ(peer_generation(), "2\n");
}

// ------------------------------------------------------------------ stamp parsing

TEST_F(IndexMetadata, StoredStampShapes) {
  struct Case {
    std::optional<std::string> raw;
    std::optional<mq::ExtractorVersions> parsed;  // none: absent or unknown
    std::optional<std::string> warning;
  };
  const auto unknown = [](const std::string& shown) {
    return "Extractor stamp " + shown + " has an unknown format; treating it as absent";
  };
  const Case cases[] = {
      {std::nullopt, std::nullopt, std::nullopt},
      {"{}", mq::ExtractorVersions{}, std::nullopt},
      {R"({"c": 2, "go": 3})", mq::ExtractorVersions{{"c", 2}, {"go", 3}}, std::nullopt},
      {R"({"go":3,"c":-1})", mq::ExtractorVersions{{"c", -1}, {"go", 3}}, std::nullopt},
      {R"({"\u00e9": 1})", mq::ExtractorVersions{{"\xc3\xa9", 1}}, std::nullopt},
      {"[1, 2]", std::nullopt, unknown("'[1, 2]'")},
      {"42", std::nullopt, unknown("'42'")},
      {R"("c")", std::nullopt, unknown(R"('"c"')")},
      {R"({"c": "2"})", std::nullopt, unknown(R"('{"c": "2"}')")},
      {R"({"c": 3.0})", std::nullopt, unknown(R"('{"c": 3.0}')")},
      {R"({"c": true})", std::nullopt, unknown(R"('{"c": true}')")},
      {R"({"c": {"v": 1}})", std::nullopt, unknown(R"('{"c": {"v": 1}}')")},
      {R"({"c": 18446744073709551615})", std::nullopt, unknown(R"('{"c": 18446744073709551615}')")},
      {"NULL", std::nullopt, unknown("'NULL'")},
      {"", std::nullopt, unknown("''")},
      {"it's\nbroken\\", std::nullopt, unknown(R"("it's\nbroken\\")")},
      {"{\"c\": 1", std::nullopt, unknown(R"('{"c": 1')")},
  };
  for (const auto& c : cases) {
    LogCapture log;
    EXPECT_EQ(mq::detail::_parse_extractor_stamp(c.raw), c.parsed) << c.raw.value_or("<none>");
    std::vector<LogRecord> expected;
    if (c.warning) expected.push_back({spdlog::level::warn, *c.warning});
    EXPECT_EQ(log.records(), expected) << c.raw.value_or("<none>");
  }
}

// ------------------------------------------------------------------ refresh

TEST_F(IndexMetadata, ChangedLanguagesAreMarkedStaleWithTheNewStamp) {
  add_files({{"a.c", "c"}, {"b.go", "go"}, {"c.go", "go"}, {"d.py", "python"}});
  LogCapture log;
  EXPECT_EQ(db->refresh_extractor_stamp({{"go", 3}, {"c", 2}}), 3);
  EXPECT_EQ(stamp(), R"({"c": 2, "go": 3})");
  EXPECT_EQ(stale_paths(), (std::vector<std::string>{"a.c", "b.go", "c.go"}));
  EXPECT_EQ(log.records(), (std::vector<LogRecord>{
                               {spdlog::level::info, "Extractor changed for c, go: 3 files marked for re-indexing"}}));

  // go moved on and python is new; c is as before.
  db->execute("UPDATE files SET stale = 0");
  log.clear();
  EXPECT_EQ(db->refresh_extractor_stamp({{"c", 2}, {"go", 4}, {"python", 1}}), 3);
  EXPECT_EQ(stale_paths(), (std::vector<std::string>{"b.go", "c.go", "d.py"}));
  EXPECT_EQ(stamp(), R"({"c": 2, "go": 4, "python": 1})");
  EXPECT_EQ(log.records(),
            (std::vector<LogRecord>{
                {spdlog::level::info, "Extractor changed for go, python: 3 files marked for re-indexing"}}));
}

TEST_F(IndexMetadata, StampCasesThatMarkNothing) {
  struct Case {
    const char* name;
    std::optional<mq::Value> stored;  // none: no row
    mq::ExtractorVersions versions;
    std::optional<std::string> stored_after;
    int warnings;
  };
  const Case cases[] = {
      // Equal stamps are not written again: the stored spelling survives.
      {"unchanged", mq::Value(R"({"go":3,"c":2})"), {{"c", 2}, {"go", 3}}, R"({"go":3,"c":2})", 0},
      {"empty on none", std::nullopt, {}, std::nullopt, 0},
      {"empty on some", mq::Value(R"({"c": 2})"), {}, "{}", 0},
      {"dropped language", mq::Value(R"({"c": 2, "go": 3})"), {{"c", 2}}, R"({"c": 2})", 0},
      {"no files", std::nullopt, {{"rust", 1}}, R"({"rust": 1})", 0},
      {"unknown, empty", mq::Value("[1]"), {}, "[1]", 1},
      {"unknown", mq::Value(R"({"c": true})"), {{"zig", 1}}, R"({"zig": 1})", 1},
      // Not text at all: converted to text, then of no known shape.
      {"null row", mq::Value(), {{"zig", 1}}, R"({"zig": 1})", 1},
      {"number row", mq::Value(7), {}, "7", 1},
  };
  add_files({{"a.c", "c"}});
  for (const auto& c : cases) {
    db->execute("DELETE FROM schema_info WHERE key = ?", {mq::EXTRACTOR_VERSIONS_KEY});
    if (c.stored) set_stamp(*c.stored);
    LogCapture log;
    EXPECT_EQ(db->refresh_extractor_stamp(c.versions), 0) << c.name;
    EXPECT_EQ(stamp(), c.stored_after) << c.name;
    EXPECT_TRUE(stale_paths().empty()) << c.name;
    EXPECT_EQ(log.records().size(), static_cast<std::size_t>(c.warnings)) << c.name;
    EXPECT_TRUE(log.matching("Extractor changed").empty()) << c.name;
  }
}

TEST_F(IndexMetadata, NamesOutsideAsciiAreEscapedAndReadBackEqual) {
  const mq::ExtractorVersions versions{{"c", 1}, {"\xc3\xa9t\xc3\xa9", 2}, {"q\"b", 3}, {"\xf0\x9f\x90\x8d", 4}};
  db->refresh_extractor_stamp(versions);
  EXPECT_EQ(stamp(), R"({"c": 1, "q\"b": 3, "\u00e9t\u00e9": 2, "\ud83d\udc0d": 4})");
  // Read back equal, so the next refresh writes nothing.
  db->execute("UPDATE schema_info SET value = replace(value, ', ', ',') WHERE key = ?", {mq::EXTRACTOR_VERSIONS_KEY});
  EXPECT_EQ(db->refresh_extractor_stamp(versions), 0);
  EXPECT_EQ(stamp(), R"({"c": 1,"q\"b": 3,"\u00e9t\u00e9": 2,"\ud83d\udc0d": 4})");
}

TEST_F(IndexMetadata, FailedStampWriteRollsBackTheStaleMarks) {
  add_files({{"a.c", "c"}, {"b.c", "c"}});
  set_stamp(R"({"c": 1})");
  db->execute(
      "CREATE TRIGGER refuse_stamp BEFORE INSERT ON schema_info WHEN NEW.key = 'extractor_versions' "
      "BEGIN SELECT RAISE(ABORT, 'stamp refused'); END");
  LogCapture log;
  try {
    db->refresh_extractor_stamp({{"c", 2}});
    FAIL() << "no error";
  } catch (const mq::Error& e) {
    EXPECT_STREQ(e.what(), "stamp refused");
  }
  EXPECT_TRUE(stale_paths().empty());
  EXPECT_EQ(stamp(), R"({"c": 1})");
  EXPECT_TRUE(log.records().empty());
  // Nothing was left open: the next writer goes ahead.
  db->execute("DROP TRIGGER refuse_stamp");
  EXPECT_EQ(db->refresh_extractor_stamp({{"c", 2}}), 2);
}

}  // namespace
