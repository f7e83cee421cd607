// The energy (or charge) of the whole system, the processes, the kernel threads and the cgroups
// under a power model, as text, JSON and CSV.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model/energy.h"
#include "views/json_writer.h"
#include "zelkcpufreqtime_energy.h"

namespace zelk::cli {

// What a view shows: the tables it was asked for, or one task.
struct EnergyView {
  const com::zelkora::PowerModel& model;
  SnapshotEnergy tables;
  std::optional<TaskEnergy> task;
  bool kthread = false;  // the task's kind
};

std::string energyText(const EnergyView& view);
// {"unit", "model", then "total", "processes", "kthreads", "cgroups", "process" or "kthread" as
// held}. Before "cgroups", "includes_descendants" and "depth" (null for every level), as show
// cgroups has them; a cgroup's row has "path" and, where its path names them, "unit",
// "container_id" and "pod_uid".
void writeEnergyView(JsonWriter& json, const EnergyView& view);
std::string energyCsv(const EnergyView& view);

// A table of rows: name (and flag), energy, share of `whole`, and unmodelled seconds when any
// row has some.
std::string textEnergyTable(const std::vector<EnergyRow>& rows, bool withFlag,
                            com::zelkora::EnergyUnit unit, uint64_t whole);
// {"energy": N, "unmodelled_ns": N}, with "name" and "flag" first for a task.
void writeEnergy(JsonWriter& json, const com::zelkora::EnergyEstimate& estimate);
void writeEnergyRows(JsonWriter& json, const std::vector<EnergyRow>& rows);

}  // namespace zelk::cli
