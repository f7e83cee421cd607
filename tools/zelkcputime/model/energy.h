// Energy (or charge) of the counted times under a power model: per table, per task and per
// second, and what each of the model's units is.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model/cgroup_rows.h"
#include "model/snapshot.h"
#include "model/task_rows.h"
#include "model/times.h"
#include "zelkcpufreqtime_energy.h"

namespace zelk::cli {

// One row per unit: every view names and converts a unit from here.
struct EnergyUnitInfo {
  com::zelkora::EnergyUnit unit;
  const char* text;      // for people, in ASCII so that columns line up: "uJ"
  const char* quantity;  // what the unit measures: "energy" or "charge"
  const char* rateText;  // the unit of its rate: "mW"
  double ratePerUnit;    // one unit per second in rateText: 1 uJ/s is 0.001 mW
  bool microjoules;      // a real energy, also shown in joules
  bool relative;         // an abstract scale: relative cost only
  // As the exporter names it: the metric's suffix, its OpenMetrics unit, and how many millionths
  // of that unit one of the model's units is (1 µAh is 3600 µC).
  const char* metricSuffix;  // "_joules"
  const char* metricUnit;    // "joules", or "" for none
  uint64_t metricMicros;
  const char* metricHelp;  // the help text before "<whose>, from the power model."
};

const EnergyUnitInfo& unitInfo(com::zelkora::EnergyUnit unit);

struct EnergyRow {
  std::string name;
  uint64_t flag;
  com::zelkora::EnergyEstimate estimate;
};

// Highest energy first, then more unmodelled time, then name and flag; the first `limit` rows,
// or all when `limit` is 0.
std::vector<EnergyRow> sortedEnergies(const com::zelkora::EnergyTable& table, size_t limit);

struct CgroupEnergyRow {
  std::string path;  // as its CgroupRow's: a name for the removed cgroups and the overflow entry
  CgroupWorkload workload;
  com::zelkora::EnergyEstimate estimate;  // of its own and all its descendants' time
};

struct CgroupEnergies {
  std::vector<CgroupEnergyRow> rows;
  uint64_t whole = 0;             // of every cgroup's time, whatever the rows leave out
  std::optional<unsigned> depth;  // as the rows were folded
};

// The energy of cgroupRows' rows, highest first, then more unmodelled time, then in the order of
// cgroupRows; the first `limit` rows, or all when `limit` is 0. Nothing when some entry does not
// have the model's shape.
std::optional<CgroupEnergies> cgroupEnergies(const com::zelkora::PowerModel& model,
                                             const CgroupEntries& entries,
                                             const CgroupRowSettings& settings, size_t limit);

// The energy of the tables a snapshot holds (total, processes, kernel threads, cgroups), each
// table's rows as sortedEnergies (cgroupEnergies for the cgroups) orders and cuts them.
struct SnapshotEnergy {
  std::optional<com::zelkora::EnergyEstimate> total;
  std::optional<std::vector<EnergyRow>> processes, kthreads;
  std::optional<CgroupEnergies> cgroups;
};

struct EnergyResult {
  std::optional<SnapshotEnergy> energy;
  std::string error;  // without energy: which table does not have the model's shape
};

EnergyResult energyOf(const com::zelkora::PowerModel& model, const Snapshot& snapshot, size_t limit,
                      OverflowRow overflow = OverflowRow::kAlways,
                      const CgroupRowSettings& cgroups = {});

// One task, as a single-task query gives it.
struct TaskEnergy {
  std::string name;
  std::optional<uint64_t> flag;  // as the task's
  com::zelkora::EnergyEstimate estimate;
};

// Nothing when the task's times do not have the model's shape.
std::optional<TaskEnergy> taskEnergy(const com::zelkora::PowerModel& model, const NamedTask& task);

// The rate of `times` spent over `elapsed`, in the unit's rateText, from the energy before it is
// rounded: a whole µAh over an interval of seconds is a step of more than a mA. Nothing when the
// times do not have the model's shape or no time elapsed.
std::optional<double> powerOf(const com::zelkora::PowerModel& model, const Times& times,
                              std::chrono::steady_clock::duration elapsed);

}  // namespace zelk::cli
