// What an interval says per second: the live view's rows, its policies' load and CPU shares.
#include "model/rates.h"

#include <gtest/gtest.h>

#include <regex>

namespace zelk::cli {
namespace {

using namespace std::chrono_literals;

TaskDelta task(const std::string& name, uint64_t atLow, uint64_t atHigh) {
  return {{name, 0, {{atLow, atHigh}}, atLow + atHigh}, RowChange::kDelta};
}

// One policy at 1 and 3 GHz, a 1 s interval: "busy" ran 0.8 s at 1 GHz, "fast" 0.3 s at 3 GHz,
// "gone" vanished. The cgroups' own: / 0.1 s, /a 0.3 s and /a/b 0.2 s; /idle none, /gone vanished.
SnapshotDiff interval() {
  SnapshotDiff diff;
  diff.freqs = {{1000000, 3000000}};
  diff.elapsed = 1s;
  diff.total = {{800000000, 300000000}};
  diff.processes = {task("busy", 800000000, 0),
                    task("fast", 0, 300000000),
                    {{"gone", 0, {{0, 0}}, 0}, RowChange::kVanished}};
  diff.cgroups = {{{1, "/", {{100000000, 0}}}, RowChange::kDelta},
                  {{5, "/a", {{0, 300000000}}}, RowChange::kDelta},
                  {{6, "/a/b", {{200000000, 0}}}, RowChange::kAppeared},
                  {{7, "/idle", {{0, 0}}}, RowChange::kDelta},
                  {{8, "/gone", {{0, 0}}}, RowChange::kVanished}};
  return diff;
}

std::vector<std::string> names(const std::vector<TaskRate>& rows) {
  std::vector<std::string> out;
  for (const TaskRate& row : rows) out.push_back(row.name);
  return out;
}

TEST(TaskRatesTest, SortByTheChosenKeyAndLeaveVanishedNamesOut) {
  std::vector<TaskRate> rows = taskRates(interval(), /*kthreads=*/false, TopSort::kCpu, nullptr);
  EXPECT_EQ(names(rows), (std::vector<std::string>{"busy", "fast"}));
  EXPECT_NEAR(rows[0].cpuPercent, 80.0, 0.01);
  EXPECT_EQ(rows[0].avgKhz, 1000000u);
  EXPECT_EQ(rows[1].avgKhz, 3000000u);

  rows = taskRates(interval(), /*kthreads=*/false, TopSort::kFrequency, nullptr);
  EXPECT_EQ(names(rows), (std::vector<std::string>{"fast", "busy"}));

  // Each cgroup with its descendants; its rate from the interval's time alone.
  rows = cgroupRates(interval(), {}, TopSort::kCpu, nullptr);
  EXPECT_EQ(names(rows), (std::vector<std::string>{"/", "/a", "/a/b"}));
  EXPECT_NEAR(rows[0].cpuPercent, 60.0, 1e-9);
  EXPECT_NEAR(rows[1].cpuPercent, 50.0, 1e-9);
  EXPECT_EQ(rows[1].avgKhz, 2200000u);  // 0.3 s at 3 GHz and 0.2 s at 1 GHz
  rows = cgroupRates(interval(), {}, TopSort::kFrequency, nullptr);
  EXPECT_EQ(names(rows), (std::vector<std::string>{"/a", "/", "/a/b"}));
  const std::regex deep("/b$");
  rows = cgroupRates(interval(), {1u, nullptr}, TopSort::kCpu, nullptr);
  EXPECT_EQ(names(rows), (std::vector<std::string>{"/", "/a"}));
  EXPECT_NEAR(rows[1].cpuPercent, 50.0, 1e-9);
  EXPECT_EQ(names(cgroupRates(interval(), {std::nullopt, &deep}, TopSort::kCpu, nullptr)),
            (std::vector<std::string>{"/a/b"}));
}

TEST(PolicyLoadTest, BusyOutOfTheOnlineCpusAndTheAverageFrequency) {
  const SnapshotDiff diff = interval();
  PolicyLoad load = policyLoad(diff, 0, /*cpus=*/2);
  EXPECT_EQ(load.busyNs, 1100000000u);
  EXPECT_NEAR(load.busyPercent.value_or(-1), 55.0, 1e-9);
  EXPECT_NEAR(load.shareAt[0], 0.4, 1e-9);
  EXPECT_EQ(load.avgKhz, 1545455u);        // (0.8 × 1 GHz + 0.3 × 3 GHz) / 1.1, rounded
  load = policyLoad(diff, 0, /*cpus=*/0);  // without its CPUs, out of its busy time
  EXPECT_FALSE(load.busyPercent);
  EXPECT_NEAR(load.shareAt[0] + load.shareAt[1], 1.0, 1e-9);
  EXPECT_NEAR(cpuPercent(1100000000, diff.elapsed, 2), 55.0, 1e-9);
  EXPECT_EQ(cpuPercent(1, std::chrono::seconds(0)), 0);
}

}  // namespace
}  // namespace zelk::cli
