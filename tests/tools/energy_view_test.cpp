// The energy view's table: share and the unmodelled column.
#include "views/energy_view.h"

#include <gtest/gtest.h>

namespace zelk::cli {
namespace {

using com::zelkora::EnergyUnit;

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

}  // namespace
}  // namespace zelk::cli
