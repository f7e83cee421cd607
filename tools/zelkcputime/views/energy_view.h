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
  std::optional<com::zelkora::EnergyEstimate> total;
  std::optional<std::vector<EnergyRow>> processes, kthreads;
  std::optional<EnergyRow> task;
  bool kthread = false;  // the task's kind
};

std::string energyText(const EnergyView& view);
// {"unit", "model", then "total", "processes", "kthreads", "process" or "kthread" as held}
void writeEnergyView(JsonWriter& json, const EnergyView& view);
std::string energyCsv(const EnergyView& view);

// "uJ", "uAh" or "abstract units", for people: ASCII, so that table columns line up.
std::string energyUnitText(com::zelkora::EnergyUnit unit);

// A table of rows: name (and flag), energy, share of `whole`, and unmodelled seconds when any
// row has some.
std::string textEnergyTable(const std::vector<EnergyRow>& rows, bool withFlag,
                            com::zelkora::EnergyUnit unit, uint64_t whole);
// {"energy": N, "unmodelled_ns": N}, with "name" and "flag" first for a task.
void writeEnergy(JsonWriter& json, const com::zelkora::EnergyEstimate& estimate);
void writeEnergyRows(JsonWriter& json, const std::vector<EnergyRow>& rows);

// The demo's tables under the model: the whole system, processes and kernel threads.
std::string demoEnergyText(const com::zelkora::PowerModel& model,
                           const com::zelkora::TimeInStateVector& total,
                           const com::zelkora::TimeInStateTable& processes,
                           const com::zelkora::TimeInStateTable& kthreads, size_t limit);
// {"unit", "model", "total", "processes", "kthreads"}, as show energy --json writes it.
void writeDemoEnergy(JsonWriter& json, const com::zelkora::PowerModel& model,
                     const com::zelkora::TimeInStateVector& total,
                     const com::zelkora::TimeInStateTable& processes,
                     const com::zelkora::TimeInStateTable& kthreads, size_t limit);

}  // namespace zelk::cli
