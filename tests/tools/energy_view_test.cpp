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

  // Cgroups: the header says what a row holds; the workload only where the path names one.
  com::zelkora::PowerModel model;
  model.source = "m.csv";
  EnergyView view{model, {}, {}, false};
  view.tables.cgroups = {
      {{"/", {}, {EnergyUnit::kMicrojoules, 4000, 0}},
       {"/s/nginx.service", {"nginx.service", "", ""}, {EnergyUnit::kMicrojoules, 1000, 0}}},
      5000,
      2};
  EXPECT_EQ(energyText(view),
            "Power model: m.csv, in uJ\n\nCgroups by energy, each with its descendants', deeper "
            "ones folded in at 2 below the root:\n"
            "cgroup            energy uJ  share %\n"
            "/                      4000     80.0\n"
            "/s/nginx.service       1000     20.0\n");
  JsonWriter json;
  writeEnergyView(json, view);
  EXPECT_EQ(json.text(),
            "{\"unit\":\"uJ\",\"model\":\"m.csv\",\"includes_descendants\":true,\"depth\":2,"
            "\"cgroups\":[{\"path\":\"/\",\"energy\":4000,\"unmodelled_ns\":0},"
            "{\"path\":\"/s/nginx.service\",\"unit\":\"nginx.service\",\"energy\":1000,"
            "\"unmodelled_ns\":0}]}");
  EXPECT_EQ(energyCsv(view),
            "table,name,flag,energy,unit,unmodelled_ns\n"
            "cgroup,/,,4000,uJ,0\ncgroup,/s/nginx.service,,1000,uJ,0\n");
}

}  // namespace
}  // namespace zelk::cli
