// The energy (or charge) of the whole system, the processes and the kernel threads under a power
// model, as text, JSON and CSV.
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
// {"unit", "model", then "total", "processes", "kthreads", "process" or "kthread" as held}
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
