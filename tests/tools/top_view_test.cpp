// The live view's rows from a difference of two snapshots, without a kernel.
#include "views/top_view.h"

#include <gtest/gtest.h>

namespace zelk::cli {
namespace {

using namespace std::chrono_literals;

TaskDelta task(const std::string& name, uint64_t atLow, uint64_t atHigh) {
  return {{name, 0, {{atLow, atHigh}}, atLow + atHigh}, RowChange::kDelta};
}

// One policy at 1 and 3 GHz, a 1 s interval: "busy" ran 0.8 s at 1 GHz, "fast" 0.3 s at 3 GHz,
// "gone" vanished.
SnapshotDiff interval() {
  SnapshotDiff diff;
  diff.freqs = {{1000000, 3000000}};
  diff.elapsed = 1s;
  diff.total = {{800000000, 300000000}};
  diff.processes = {task("busy", 800000000, 0),
                    task("fast", 0, 300000000),
                    {{"gone", 0, {{0, 0}}, 0}, RowChange::kVanished}};
  return diff;
}

std::vector<std::string> names(const std::vector<TaskRate>& rows) {
  std::vector<std::string> out;
  for (const TaskRate& row : rows) out.push_back(row.name);
  return out;
}

TEST(TopViewTest, RowsSortByTheChosenKeyAndLeaveVanishedNamesOut) {
  const TopContext context{"policy0", {1}, nullptr};
  TopSettings settings;
  std::vector<TaskRate> rows = topRows(interval(), context, settings);
  EXPECT_EQ(names(rows), (std::vector<std::string>{"busy", "fast"}));
  EXPECT_NEAR(rows[0].cpuPercent, 80.0, 0.01);
  EXPECT_EQ(rows[0].avgKhz, 1000000u);
  EXPECT_EQ(rows[1].avgKhz, 3000000u);

  settings.sort = TopSort::kFrequency;
  rows = topRows(interval(), context, settings);
  EXPECT_EQ(names(rows), (std::vector<std::string>{"fast", "busy"}));
}

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
    const std::string line = topRowLine(rows[0], context, /*kthreads=*/false);
    EXPECT_EQ(line.substr(line.rfind(' ') + 1), shown) << line;
  }
}

}  // namespace
}  // namespace zelk::cli
