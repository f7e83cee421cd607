// Energy of a snapshot's tables under a power model, its rows' order, and rates per second.
#include "model/energy.h"

#include <gtest/gtest.h>

#include <regex>

namespace zelk::cli {
namespace {

using com::zelkora::EnergyTable;
using com::zelkora::EnergyUnit;

TEST(SortedEnergiesTest, ByEnergyThenUnmodelledThenNameAndFlag) {
  EnergyTable table;
  table[{"b", 0}] = {EnergyUnit::kMicrojoules, 500, 0};
  table[{"a", 1}] = {EnergyUnit::kMicrojoules, 500, 0};
  table[{"a", 0}] = {EnergyUnit::kMicrojoules, 500, 0};
  table[{"z", 0}] = {EnergyUnit::kMicrojoules, 500, 7};
  table[{"top", 1}] = {EnergyUnit::kMicrojoules, 9000, 0};
  std::vector<std::string> order;
  for (const EnergyRow& row : sortedEnergies(table, 0)) {
    order.push_back(row.name + std::to_string(row.flag));
  }
  EXPECT_EQ(order, (std::vector<std::string>{"top1", "z0", "a0", "a1", "b0"}));
  EXPECT_EQ(sortedEnergies(table, 2).size(), 2u);
}

TEST(SnapshotEnergyTest, LeavesAnEmptyOverflowEntryOutOnlyWhenAsked) {
  com::zelkora::PowerModel model;
  model.freqRates = {{1000.0, 2000.0}};  // uJ per second at each frequency
  model.policyRates = {0};
  Snapshot snapshot;
  snapshot.parts = kTotalPart | kProcessesPart;
  snapshot.freqs = {{1000000, 2000000}};
  snapshot.total = {{3000000000, 1000000000}};
  snapshot.processes = {{{"app", 1}, {{3000000000, 1000000000}}},
                        {{"<map overflowed>", 0}, {{0, 0}}}};
  EnergyResult result = energyOf(model, snapshot, 0, OverflowRow::kWithTime);
  ASSERT_TRUE(result.energy) << result.error;
  EXPECT_EQ(result.energy->total->energy, 5000u);
  ASSERT_EQ(result.energy->processes->size(), 1u);
  EXPECT_EQ(result.energy->processes->front().name, "app");
  EXPECT_FALSE(result.energy->kthreads);  // not in the snapshot
  result = energyOf(model, snapshot, 0);
  ASSERT_TRUE(result.energy) << result.error;
  EXPECT_EQ(result.energy->processes->size(), 2u);

  snapshot.processes[{"odd", 0}] = {{1}};  // not the model's shape
  result = energyOf(model, snapshot, 0);
  EXPECT_FALSE(result.energy);
  EXPECT_NE(result.error.find("getProcessCpuFreqTimes returned times of another shape"),
            std::string::npos)
      << result.error;

  // Cgroups with their descendants, by energy, then in path order; shares are of all their time,
  // which the rows without a path have a part of.
  snapshot.parts = kCgroupsPart;
  snapshot.cgroups = {{1, "/", {{1000000000, 0}}},
                      {5, "/s.slice", {{0, 1000000000}}},
                      {6, "/s.slice/nginx.service", {{1000000000, 0}}},
                      {9, std::nullopt, {{1000000000, 0}}}};
  result = energyOf(model, snapshot, 0);
  ASSERT_TRUE(result.energy) << result.error;
  EXPECT_FALSE(result.energy->processes);
  std::vector<std::string> rows;
  for (const CgroupEnergyRow& row : result.energy->cgroups->rows) {
    rows.push_back(row.path + "=" + std::to_string(row.estimate.energy) + row.workload.unit);
  }
  EXPECT_EQ(rows, (std::vector<std::string>{"/=4000", "/s.slice=3000",
                                            "/s.slice/nginx.service=1000nginx.service",
                                            "<removed cgroups>=1000"}));
  EXPECT_EQ(result.energy->cgroups->whole, 5000u);
  const std::regex nginx("nginx");
  result = energyOf(model, snapshot, 1, OverflowRow::kAlways, {1u, &nginx});
  ASSERT_TRUE(result.energy) << result.error;
  EXPECT_TRUE(result.energy->cgroups->rows.empty());  // folded into /s.slice
  result = energyOf(model, snapshot, 2, OverflowRow::kAlways, {1u, nullptr});
  ASSERT_TRUE(result.energy) << result.error;
  ASSERT_EQ(result.energy->cgroups->rows.size(), 2u);
  EXPECT_EQ(result.energy->cgroups->rows[1].estimate.energy, 3000u);  // /s.slice with nginx
  EXPECT_EQ(result.energy->cgroups->whole, 5000u);
  snapshot.cgroups.push_back({7, "/odd", {{1}}});
  result = energyOf(model, snapshot, 0);
  EXPECT_NE(result.error.find("getCgroupCpuFreqTimes returned times of another shape"),
            std::string::npos)
      << result.error;
}

// The unit table's rates: uJ/s as mW, uAh/s as mA, the abstract scale as its own per second.
TEST(PowerOfTest, RateInTheUnitsRateUnit) {
  com::zelkora::PowerModel model;
  model.freqRates = {{1000.0}};  // 1000 units per second of CPU time
  model.policyRates = {0};
  const std::pair<EnergyUnit, double> cases[] = {{EnergyUnit::kMicrojoules, 1.0},
                                                 {EnergyUnit::kMicroampHours, 3600.0},
                                                 {EnergyUnit::kAbstract, 1.0}};
  for (const auto& [unit, rate] : cases) {
    model.unit = unit;
    EXPECT_NEAR(powerOf(model, {{2000000000}}, std::chrono::seconds(2)).value_or(-1), rate, 1e-9)
        << unitInfo(unit).text;
  }
  EXPECT_FALSE(powerOf(model, {{1}}, std::chrono::seconds(0)));
  EXPECT_FALSE(powerOf(model, {{1, 2}}, std::chrono::seconds(1)));  // not the model's shape
  EXPECT_EQ(std::string(unitInfo(EnergyUnit::kMicroampHours).rateText), "mA");
}

}  // namespace
}  // namespace zelk::cli
