#include "model/energy.h"

#include <algorithm>
#include <iterator>
#include <tuple>

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

// uJ/s is uW; uAh/s times 3600 is uA. The abstract scale is what uJ would be were it uW.
constexpr EnergyUnitInfo kUnits[] = {
    {lib::EnergyUnit::kMicrojoules, "uJ", "energy", "mW", 1e-3, true, false, "_joules", "joules", 1,
     "Energy of the CPU time of "},
    {lib::EnergyUnit::kMicroampHours, "uAh", "charge", "mA", 3.6, false, false, "_coulombs",
     "coulombs", 3600, "Charge drawn by the CPU time of "},
    {lib::EnergyUnit::kAbstract, "abstract units", "energy", "au/s", 1e-3, false, true,
     "_energy_abstract", "", 1,
     "Energy on the Energy Model's abstract scale (relative only) of the CPU time of "},
};

constexpr bool inUnitOrder() {
  for (size_t i = 0; i < std::size(kUnits); ++i) {
    if (static_cast<size_t>(kUnits[i].unit) != i) return false;
  }
  return true;
}
static_assert(inUnitOrder(), "kUnits is indexed by EnergyUnit");

std::optional<std::vector<EnergyRow>> tableEnergy(const lib::PowerModel& model,
                                                  const lib::TimeInStateTable& table, size_t limit,
                                                  OverflowRow overflow) {
  auto energies = lib::estimateEnergy(model, table);
  if (!energies) return std::nullopt;
  for (const auto& [key, times] : table) {
    if (!isRow(key, sumTimes(times), overflow)) energies->erase(key);
  }
  return sortedEnergies(*energies, limit);
}

}  // namespace

const EnergyUnitInfo& unitInfo(lib::EnergyUnit unit) {
  const auto index = static_cast<size_t>(unit);
  // A value out of the enum's range: the abstract row, which claims nothing of joules.
  return kUnits[index < std::size(kUnits) ? index : std::size(kUnits) - 1];
}

std::vector<EnergyRow> sortedEnergies(const lib::EnergyTable& table, size_t limit) {
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

std::optional<CgroupEnergies> cgroupEnergies(const lib::PowerModel& model,
                                             const CgroupEntries& entries,
                                             const CgroupRowSettings& settings, size_t limit) {
  CgroupEnergies energies;
  energies.depth = settings.depth;
  // At depth 0, the root's row and the two without a path hold every entry's time.
  for (const CgroupRow& row : cgroupRows(entries, {0u, nullptr})) {
    const auto estimate = lib::estimateEnergy(model, row.times);
    if (!estimate) return std::nullopt;
    energies.whole += estimate->energy;
  }
  for (CgroupRow& row : cgroupRows(entries, settings)) {
    const auto estimate = lib::estimateEnergy(model, row.times);
    if (!estimate) return std::nullopt;
    energies.rows.push_back({std::move(row.path), std::move(row.workload), *estimate});
  }
  // Stable: among equals, a parent stays before its children, as cgroupRows put it.
  std::stable_sort(energies.rows.begin(), energies.rows.end(),
                   [](const CgroupEnergyRow& a, const CgroupEnergyRow& b) {
                     const lib::EnergyEstimate &x = a.estimate, &y = b.estimate;
                     return x.energy != y.energy ? x.energy > y.energy
                                                 : x.unmodelledNs > y.unmodelledNs;
                   });
  if (limit != 0 && energies.rows.size() > limit) energies.rows.resize(limit);
  return energies;
}

EnergyResult energyOf(const lib::PowerModel& model, const Snapshot& snapshot, size_t limit,
                      OverflowRow overflow, const CgroupRowSettings& cgroups) {
  SnapshotEnergy energy;
  if (snapshot.parts & kTotalPart) {
    energy.total = lib::estimateEnergy(model, snapshot.total);
    if (!energy.total)
      return {{}, "the whole-system times do not have the frequency table's shape"};
  }
  for (const auto& [part, table, rows, query] :
       {std::tuple{kProcessesPart, &snapshot.processes, &energy.processes,
                   "getProcessCpuFreqTimes"},
        std::tuple{kKthreadsPart, &snapshot.kthreads, &energy.kthreads,
                   "getKthreadCpuFreqTimes"}}) {
    if ((snapshot.parts & part) == 0) continue;
    *rows = tableEnergy(model, *table, limit, overflow);
    if (!*rows) {
      return {{}, std::string(query) + " returned times of another shape than the frequency table"};
    }
  }
  if (snapshot.parts & kCgroupsPart) {
    energy.cgroups = cgroupEnergies(model, snapshot.cgroups, cgroups, limit);
    if (!energy.cgroups) {
      return {{}, "getCgroupCpuFreqTimes returned times of another shape than the frequency table"};
    }
  }
  return {std::move(energy), ""};
}

std::optional<TaskEnergy> taskEnergy(const lib::PowerModel& model, const NamedTask& task) {
  const auto estimate = lib::estimateEnergy(model, task.times);
  if (!estimate) return std::nullopt;
  return TaskEnergy{task.name, task.flag, *estimate};
}

std::optional<double> powerOf(const lib::PowerModel& model, const Times& times,
                              std::chrono::steady_clock::duration elapsed) {
  const double seconds = std::chrono::duration<double>(elapsed).count();
  if (seconds <= 0) return std::nullopt;
  const auto estimate = lib::estimateEnergy(model, times);
  if (!estimate) return std::nullopt;
  return estimate->exactEnergy / seconds * unitInfo(model.unit).ratePerUnit;
}

}  // namespace zelk::cli
