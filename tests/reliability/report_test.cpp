#include "reliability/support/report.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "support/test_support.hpp"

namespace marsk_quorvi::testing {
namespace {

using ReportTest = TempDirTest;

TEST_F(ReportTest, FiguresAppendAsLinesOnlyWhenATargetIsSet) {
  const auto target = path("report.tsv");
  {
    ScopedEnv unset("QUORVI_RELIABILITY_REPORT", std::nullopt);
    report_figure("ignored", 1);
  }
  EXPECT_FALSE(std::filesystem::exists(target));
  ScopedEnv env("QUORVI_RELIABILITY_REPORT", target.string());
  report_figure("fault_points", 12);
  report_figure("fault_points", 3);
  std::stringstream text;
  text << std::ifstream(target).rdbuf();
  EXPECT_EQ(text.str(), "fault_points\t12\nfault_points\t3\n");
}

}  // namespace
}  // namespace marsk_quorvi::testing
