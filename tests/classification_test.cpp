#include <gtest/gtest.h>

#include "marsk_quorvi/storage/database.hpp"
#include "support/test_support.hpp"

namespace mq = marsk_quorvi::storage;
using marsk_quorvi::testing::ScopedEnv;

namespace {

struct ReadersCase {
  std::optional<std::string> value;
  int expected;
};

TEST(ReaderCount, FromEnvironment) {
  const ReadersCase cases[] = {
      {std::nullopt, 6}, {"", 6},   {"   ", 6},  {"abc", 6},  {"4.5", 6},    {"+5", 5},  {"-1", 0},
      {"0", 0},          {"32", 32}, {"33", 32}, {" 7 ", 7},  {"100", 32},   {"-3", 0},  {"0x10", 6},
      {"8 readers", 6},  {"six", 6}, {"\t12\n", 12}, {"99999999999999999999999", 32}, {"+", 6}, {"--1", 6},
  };
  for (const auto& c : cases) {
    ScopedEnv env("QUORVI_DB_READERS", c.value);
    EXPECT_EQ(mq::reader_count(), c.expected) << "value: " << c.value.value_or("<unset>");
  }
}

TEST(ReadStatement, Classification) {
  const std::pair<const char*, bool> cases[] = {
      {"  select * from files", true},
      {"With t AS (SELECT 1) SELECT * FROM t", true},
      {"WITHOUT", true},
      {"SELECTED", true},
      {"\n\tSELECT 1", true},
      {"pragma user_version", true},
      {" PRAGMA user_version ;; ", true},
      {"PRAGMA user_version;", true},
      {"PRAGMA user_version=5", false},
      {"PRAGMA user_version = 5", false},
      {"PRAGMA user_version; ;", false},
      {"PRAGMA  user_version", false},
      {"PRAGMA main.user_version", false},
      {"INSERT INTO files (path) VALUES ('a')", false},
      {"-- note\nSELECT 1", false},
      {"(SELECT 1)", false},
      {"EXPLAIN SELECT 1", false},
      {"VALUES (1)", false},
      {"PRAGMA page_count", false},
      {"", false},
      {"   ", false},
      {"SELEC", false},
  };
  for (const auto& [sql, expected] : cases) {
    EXPECT_EQ(mq::detail::_is_read_statement(sql), expected) << "sql: '" << sql << "'";
  }
}

TEST(ReaderCannotServe, MessageFragments) {
  const std::pair<const char*, bool> cases[] = {
      {"attempt to write a readonly database", true},
      {"UNABLE TO OPEN DATABASE FILE", true},
      {"Attempt To Write A ReadOnly Database", true},
      {"database is locked", false},
      {"no such table: files", false},
      {"", false},
  };
  for (const auto& [message, expected] : cases) {
    EXPECT_EQ(mq::detail::_reader_cannot_serve(mq::OperationalError(message)), expected) << message;
  }
}

}  // namespace
