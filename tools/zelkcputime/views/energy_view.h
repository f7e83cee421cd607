// show energy: the energy (or charge) of the whole system, the processes and the kernel threads
// under a power model, from the library's per-frequency times.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "commands/options.h"
#include "views/json_writer.h"
#include "zelkcpufreqtime_energy.h"

namespace zelk::cli {

inline constexpr const char kDefaultEnergyModel[] = "/sys/kernel/debug/energy_model";

// show energy [total | processes | kthreads | process NAME [--flag] | kthread NAME]
int runShowEnergy(const Options& options);

struct EnergyRow {
  std::string name;
  uint64_t flag;
  com::zelkora::EnergyEstimate estimate;
};

// Highest energy first, then more unmodelled time, then name and flag; the first `limit` rows,
// or all when `limit` is 0.
std::vector<EnergyRow> sortedEnergies(const com::zelkora::EnergyTable& table, size_t limit);

// "uJ", "uAh" or "abstract units", for people: ASCII, so that table columns line up.
std::string energyUnitText(com::zelkora::EnergyUnit unit);

// A table of rows: name (and flag), energy, share of `whole`, and unmodelled seconds when any
// row has some.
std::string textEnergyTable(const std::vector<EnergyRow>& rows, bool withFlag,
                            com::zelkora::EnergyUnit unit, uint64_t whole);
// {"energy": N, "unmodelled_ns": N}, with "name" and "flag" first for a task.
void writeEnergy(JsonWriter& json, const com::zelkora::EnergyEstimate& estimate);
void writeEnergyRows(JsonWriter& json, const std::vector<EnergyRow>& rows);

// The model at `path`, or at the default with debugfs mounted when it is not. The error is the
// one line to print.
com::zelkora::PowerModelResult loadModelForTool(const std::string& path,
                                                std::optional<double> voltage);

// The demo's energy: under --model PATH, else under the machine's Energy Model when it has one
// that fits its policies (else none, with a note in `note`). False with `error` set when the
// given model cannot be used.
bool demoModel(const Options& options, std::optional<com::zelkora::PowerModel>* model,
               std::string* note, std::string* error);
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
