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
    const std::string line = topRowLine(rows[0], context, /*kthreads=*/false);
    EXPECT_EQ(line.substr(line.rfind(' ') + 1), shown) << line;
  }
}

}  // namespace
}  // namespace zelk::cli
