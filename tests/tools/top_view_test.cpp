// The live view's lines, without a kernel.
#include "views/top_view.h"

#include <gtest/gtest.h>

namespace zelk::cli {
namespace {

using namespace std::chrono_literals;

// A power profile without a voltage gives charge. Over 2 s a task at 0.2 mA takes 0.11 µAh: the
// rate must come from the charge before it is rounded to whole µAh, which made it 0.0 mA, and
// 1.0 and 2.0 mA both 1.8 mA.
TEST(TopViewTest, PowerFromChargeIsNotRoundedToWholeMicroampHours) {
  const std::pair<double, std::string> cases[] = {
      {0.2, "0.2"}, {1.0, "1.0"}, {2.0, "2.0"}, {1234.5, "1234.5"}};
  for (const auto& [milliamps, shown] : cases) {
    com::zelkora::PowerModel model;
    model.unit = com::zelkora::EnergyUnit::kMicroampHours;
    model.freqRates = {{milliamps * 1000 / 3600}};  // µAh per second
    model.policyRates = {0};
    const TopContext context{"policy0", {1}, &model};
    SnapshotDiff diff;
    diff.freqs = {{1000000}};
    diff.elapsed = 2s;
    diff.total = {{2000000000}};
    diff.processes = {{{"app", 1, {{2000000000}}, 2000000000}, RowChange::kDelta}};
    const std::vector<TaskRate> rows = topRows(diff, context, TopSettings{});
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_NEAR(rows[0].power.value_or(-1), milliamps, 1e-6);
    const std::string line = topRowLine(rows[0], context, TopTable::kProcesses);
    EXPECT_EQ(line.substr(line.rfind(' ') + 1), shown) << line;
  }
}

// A cgroup's row holds its descendants' time; its path comes last, under the column headings.
TEST(TopViewTest, CgroupRowsLineUpWithTheirHeadings) {
  com::zelkora::PowerModel model;
  model.freqRates = {{1000.0, 2000.0, 3000.0}};  // µJ per second
  model.policyRates = {0};
  const TopContext context{"policy0", {1}, &model};
  SnapshotDiff diff;
  diff.freqs = {{1000000, 2000000, 3000000}};
  diff.elapsed = 2s;
  diff.total = {{2000000000, 0, 1000000000}};
  diff.cgroups = {{{1, "/", {{2000000000, 0, 0}}}, RowChange::kDelta},
                  {{5, "/app", {{0, 0, 1000000000}}}, RowChange::kDelta}};
  TopSettings settings;
  settings.table = TopTable::kCgroups;
  settings.cgroups.depth = 3;
  const std::vector<std::string> lines = topFrame(diff, context, settings, 0, 120, 0);
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_NE(lines[3].find("sort: CPU;  cgroups with descendants, depth 3"), std::string::npos)
      << lines[3];
  EXPECT_EQ(std::vector<std::string>(lines.end() - 3, lines.end()),
            (std::vector<std::string>{"  CPU%   AVG MHz  BANDS              mW  CGROUP",
                                      " 150.0  1666.667  .......###        2.5  /",
                                      "  50.0      3000  ##########        1.5  /app"}));
}

}  // namespace
}  // namespace zelk::cli
