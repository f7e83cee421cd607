// libzelkcpufreqtime: energy (or charge) from the per-frequency times of zelkcpufreqtime.h.
//
// A power model gives each CPU's active power at each frequency of each policy. Three sources:
//   - the kernel's Energy Model in debugfs (a directory, usually /sys/kernel/debug/energy_model),
//     in the current `<domain>/ps:<kHz>/` layout or the older `pd<N>/cs:<kHz>/` one; power in
//     µW, mW on older kernels, or an abstract scale, which gives relative cost only;
//   - the platform's power_profile.xml: current in mA, so the result is charge in µAh, or energy
//     in µJ when a voltage is given; its cpu.active and per-cluster (or per-policy) terms are
//     added for every modelled nanosecond;
//   - a CSV file `policy,freq_khz,power_uw`, one row per policy and frequency.
// Policies are matched to the model by their CPUs: a performance domain's CPUs against a
// policy's related_cpus, a CSV or per-policy profile entry by the policy's number (its lowest
// CPU), profile clusters in order by their core counts. A model that does not cover every policy
// exactly once is refused. A frequency without a power in the model is never guessed: its time is
// reported as unmodelled and adds nothing.
//
// Everything here is a pure function over the query results: no lock is taken, no map touched,
// nothing logged. Only loadPowerModel(path) reads the library's policy tables.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

enum class EnergyUnit {
  kMicrojoules,    // a real power scale (µW, or mA at a given voltage)
  kMicroampHours,  // a power profile without a voltage: charge, as battery statistics count it
  kAbstract,       // an abstract Energy Model: what µJ would be were its scale µW; relative only
};

// "uJ", "uAh" or "abstract".
ZELK_API const char* energyUnitName(EnergyUnit unit);

// A model matched to a set of policies. Rates are in `unit` per second of CPU time.
struct PowerModel {
  std::string source;  // the path it was loaded from
  EnergyUnit unit = EnergyUnit::kMicrojoules;
  // Per policy, in ascending policy number, one entry per frequency of getCpuFreqs(); empty
  // where the model has no power for that frequency.
  std::vector<std::vector<std::optional<double>>> freqRates;
  std::vector<double> policyRates;  // per policy: the cluster (or policy) term, 0 without one
  double activeRate = 0;            // for any modelled time: the profile's cpu.active term
};

// The policies a model is matched against, as the library sees them.
struct PolicyLayout {
  std::vector<std::vector<uint64_t>> freqs;  // as getCpuFreqs() returns them
  std::vector<std::vector<uint64_t>> cpus;   // each policy's related_cpus
};

struct PowerModelResult {
  std::optional<PowerModel> model;
  std::string error;  // one line naming the file and what is wrong, when `model` is empty
};

// Loads the model at `path`: a directory is an Energy Model, a file named *.xml or starting with
// '<' a power profile, any other file a CSV model. `voltage` (volts, > 0) applies to a power
// profile only. This form matches it to this machine's policies and fails like the queries when the
// library cannot initialise.
ZELK_API PowerModelResult loadPowerModel(const std::string& path,
                                         std::optional<double> voltage = std::nullopt);
// The same against the given policies.
ZELK_API PowerModelResult loadPowerModel(const std::string& path, const PolicyLayout& policies,
                                         std::optional<double> voltage = std::nullopt);

struct EnergyEstimate {
  EnergyUnit unit = EnergyUnit::kMicrojoules;
  uint64_t energy = 0;        // in `unit`, rounded; saturates at the largest uint64_t
  uint64_t unmodelledNs = 0;  // time at frequencies that the model has no power for
  // `energy` before rounding, for rates over short times, where a whole unit is a coarse step
  // (1 µAh in 2 s is 1.8 mA). A double, good to 15 significant digits.
  double exactEnergy = 0;
};

using EnergyTable = std::unordered_map<process_key_char_t, EnergyEstimate, process_key_char_hash,
                                       process_key_char_equal>;

// Empty when `times` does not have the model's shape (policies and frequencies per policy).
ZELK_API std::optional<EnergyEstimate> estimateEnergy(const PowerModel& model,
                                                      const TimeInStateVector& times);
// Every entry of `table`; empty when any entry does not have the model's shape.
ZELK_API std::optional<EnergyTable> estimateEnergy(const PowerModel& model,
                                                   const TimeInStateTable& table);

}  // namespace zelkora
}  // namespace com
