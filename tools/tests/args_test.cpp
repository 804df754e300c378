// The command line: what parses, what is refused with which message, and
// the help texts; the benchmark table's line format and verdicts.
#include <gtest/gtest.h>

#include "quorvi/args.hpp"
#include "quorvi/bench_table.hpp"

using namespace marsk_quorvi::cli;

TEST(Args, ParsesOptionsAnywhere) {
  auto inv = parse_args({"--db", "/x/index.db", "search", "--limit=5", "foo", "bar", "-v"});
  EXPECT_EQ(inv.command, "search");
  EXPECT_EQ(inv.value("--db"), "/x/index.db");
  EXPECT_EQ(inv.int_value("--limit", 20, 1), 5);
  EXPECT_TRUE(inv.flag("--verbose"));
  EXPECT_EQ(inv.operands, (std::vector<std::string>{"foo", "bar"}));

  inv = parse_args({"--limit", "3", "errors"});  // a command option before its command
  EXPECT_EQ(inv.int_value("--limit", 0), 3);

  inv = parse_args({"search", "--", "-leading", "--db"});  // `--` ends the options
  EXPECT_EQ(inv.operands, (std::vector<std::string>{"-leading", "--db"}));
  EXPECT_EQ(inv.value("--db"), std::nullopt);

  inv = parse_args({"index"});
  EXPECT_TRUE(inv.operands.empty());
  EXPECT_EQ(inv.int_value("--jobs", 0), 0);

  // --help wins over missing operands, with or without a command.
  EXPECT_TRUE(parse_args({"swap", "--help"}).help);
  EXPECT_EQ(parse_args({"-h"}).command, "");
}

TEST(Args, RefusesBadCommandLinesWithAClearMessage) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{}, "no command given"},
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"stats", "--bogus"}, "unknown option --bogus"},
      {{"--limit", "3", "stats"}, "unknown option --limit for stats"},
      {{"stats", "extra"}, "too many operands for stats: 'extra'"},
      {{"index", "a", "b"}, "too many operands for index: 'b'"},
      {{"swap"}, "swap needs STAGING"},
      {{"search"}, "search needs TEXT..."},
      {{"stats", "--db"}, "--db needs a value (PATH)"},
      {{"stats", "--verbose=yes"}, "--verbose takes no value"},
  };
  for (const auto& [args, message] : cases) {
    try {
      parse_args(args);
      ADD_FAILURE() << "accepted: " << message;
    } catch (const UsageError& e) {
      EXPECT_STREQ(e.what(), message);
    }
  }
  const std::pair<const char*, const char*> numbers[] = {
      {"abc", "--limit needs a whole number from 1, not 'abc'"},
      {"0", "--limit needs a whole number from 1, not '0'"},
      {"5x", "--limit needs a whole number from 1, not '5x'"},
      {"", "--limit needs a whole number from 1, not ''"},
  };
  for (const auto& [text, message] : numbers) {
    auto inv = parse_args({"search", "--limit", text, "q"});
    try {
      inv.int_value("--limit", 20, 1);
      ADD_FAILURE() << "accepted " << text;
    } catch (const UsageError& e) {
      EXPECT_STREQ(e.what(), message);
      EXPECT_EQ(e.command(), "search");
    }
  }
}

TEST(Args, HelpNamesEveryCommandOptionAndExitCode) {
  const auto help = tool_help();
  for (const auto& cmd_spec : command_specs()) {
    EXPECT_NE(help.find("  " + cmd_spec.name), std::string::npos) << cmd_spec.name;
    const auto own = command_help(cmd_spec);
    EXPECT_EQ(own.rfind("Usage: quorvi-db " + cmd_spec.name, 0), 0u) << own;
    for (const auto& o : cmd_spec.options) EXPECT_NE(own.find(o.name), std::string::npos) << cmd_spec.name << o.name;
    EXPECT_NE(own.find("--db PATH"), std::string::npos);
  }
  for (const char* code : {"  0  success", "  1  check", "  2  bad argument", "  3  missing file", "  4  locked file",
                           "  5  corrupt file", "  6  any other failure"}) {
    EXPECT_NE(help.find(code), std::string::npos) << code;
  }
}

TEST(BenchTable, ParsesResultLinesAndJudgesTargets) {
  auto row = parse_bench_line("BENCH\tswap.rows\t1.5\ts\tcopy\t1\t1.500\t<= 2", "swap_bench");
  ASSERT_TRUE(row);
  EXPECT_EQ(row->source, "swap_bench");
  EXPECT_EQ(row->figure, "swap.rows");
  EXPECT_EQ(verdict(*row), "met");
  for (const char* other : {"", "BENCH", "BENCH\ta\t1\ts\tp\t1\t1", "bench\ta\t1\ts\tp\t1\t1\tx",
                            "BENCH\t\t1\ts\tp\t1\t1\t<2", "# BENCH\ta\t1\ts\tp\t1\t1\t<2"}) {
    EXPECT_EQ(parse_bench_line(other), std::nullopt) << other;
  }
  const std::pair<const char*, const char*> verdicts[] = {
      {"<= 1.5", "met"},  {"< 1.5", "missed"}, {"ratio <= 2x", "met"}, {">= 2", "missed"},
      {"> 1", "met"},     {"\u2264 1.4", "missed"}, {"fast", ""},     {"<= soon", ""},
  };
  for (const auto& [target, expected] : verdicts) {
    BenchRow r{"", "f", "3", "s", "p", "2", "1.500", target};
    EXPECT_EQ(verdict(r), expected) << target;
  }
  BenchRow no_peer{"", "f", "3", "s", "-", "0", "-", "<= 2"};
  EXPECT_EQ(verdict(no_peer), "");

  const auto table = format_table({*row, no_peer});
  EXPECT_EQ(table,
            "figure     value  peer  peer value  ratio  target  verdict\n"
            "----------------------------------------------------------\n"
            "swap.rows  1.5 s  copy  1 s         1.500  <= 2    met\n"
            "f          3 s    -     -           -      <= 2\n");
}
