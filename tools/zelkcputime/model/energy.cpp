#include "model/energy.h"

#include <algorithm>

namespace zelk::cli {

std::vector<EnergyRow> sortedEnergies(const com::zelkora::EnergyTable& table, size_t limit) {
  std::vector<EnergyRow> rows;
  for (const auto& [key, estimate] : table) rows.push_back({key.comm, key.flag, estimate});
  std::sort(rows.begin(), rows.end(), [](const EnergyRow& a, const EnergyRow& b) {
    if (a.estimate.energy != b.estimate.energy) return a.estimate.energy > b.estimate.energy;
    if (a.estimate.unmodelledNs != b.estimate.unmodelledNs) {
      return a.estimate.unmodelledNs > b.estimate.unmodelledNs;
    }
    return a.name != b.name ? a.name < b.name : a.flag < b.flag;
  });
  if (limit != 0 && rows.size() > limit) rows.resize(limit);
  return rows;
}

}  // namespace zelk::cli
