// The energy view's rows and table as functions: order, limit, share and the unmodelled column.
#include "views/energy_view.h"

#include <gtest/gtest.h>

#include "model/energy.h"

namespace zelk::cli {
namespace {

using com::zelkora::EnergyTable;
using com::zelkora::EnergyUnit;

TEST(EnergyViewTest, SortsByEnergyThenUnmodelledThenNameAndFlag) {
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

TEST(EnergyViewTest, TableShowsShareAndUnmodelledOnlyWhenThereIsSome) {
  std::vector<EnergyRow> rows = {{"busy", 1, {EnergyUnit::kMicroampHours, 750, 0}},
                                 {"idle\n", 0, {EnergyUnit::kMicroampHours, 250, 0}}};
  EXPECT_EQ(textEnergyTable(rows, true, EnergyUnit::kMicroampHours, 1000),
            "name   fg  charge uAh  share %\n"
            "busy   1          750     75.0\n"
            "idle?  0          250     25.0\n");
  rows[1].estimate.unmodelledNs = 1500000000;
  EXPECT_EQ(textEnergyTable(rows, false, EnergyUnit::kAbstract, 0),
            "name   energy abstract units  share %  unmodelled s\n"
            "busy                     750      0.0         0.000\n"
            "idle?                    250      0.0         1.500\n");
}

TEST(EnergyTest, TablesOfASnapshotLeaveAnEmptyOverflowEntryOutOnlyWhenAsked) {
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
}

}  // namespace
}  // namespace zelk::cli
