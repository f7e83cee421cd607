// Energy (or charge) of the counted times under a power model, as rows for the views.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zelkcpufreqtime_energy.h"

namespace zelk::cli {

struct EnergyRow {
  std::string name;
  uint64_t flag;
  com::zelkora::EnergyEstimate estimate;
};

// Highest energy first, then more unmodelled time, then name and flag; the first `limit` rows,
// or all when `limit` is 0.
std::vector<EnergyRow> sortedEnergies(const com::zelkora::EnergyTable& table, size_t limit);

}  // namespace zelk::cli
