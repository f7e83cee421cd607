// Energy from times: each modelled nanosecond at its frequency's rate, plus the policy's and the
// active term; unmodelled time is counted apart and adds nothing.
#include <cmath>
#include <limits>

#include "zelkcpufreqtime_energy.h"

namespace com {
namespace zelkora {

const char* energyUnitName(EnergyUnit unit) {
  switch (unit) {
    case EnergyUnit::kMicrojoules:
      return "uJ";
    case EnergyUnit::kMicroampHours:
      return "uAh";
    case EnergyUnit::kAbstract:
      return "abstract";
  }
  return "abstract";
}

std::optional<EnergyEstimate> estimateEnergy(const PowerModel& model,
                                             const TimeInStateVector& times) {
  if (times.size() != model.freqRates.size() || model.policyRates.size() != times.size()) {
    return std::nullopt;
  }
  EnergyEstimate estimate;
  estimate.unit = model.unit;
  long double sum = 0;  // rate × ns
  for (size_t p = 0; p < times.size(); ++p) {
    if (times[p].size() != model.freqRates[p].size()) return std::nullopt;
    for (size_t f = 0; f < times[p].size(); ++f) {
      const uint64_t ns = times[p][f];
      const std::optional<double>& rate = model.freqRates[p][f];
      if (!rate) {
        estimate.unmodelledNs += ns;
        continue;
      }
      sum += static_cast<long double>(ns) *
             (static_cast<long double>(*rate) + model.policyRates[p] + model.activeRate);
    }
  }
  estimate.exactEnergy = static_cast<double>(sum / 1e9L);
  const long double energy = std::round(sum / 1e9L);
  constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
  estimate.energy = energy >= static_cast<long double>(kMax) ? kMax : static_cast<uint64_t>(energy);
  return estimate;
}

std::optional<EnergyTable> estimateEnergy(const PowerModel& model, const TimeInStateTable& table) {
  EnergyTable energies;
  for (const auto& [key, times] : table) {
    const std::optional<EnergyEstimate> estimate = estimateEnergy(model, times);
    if (!estimate) return std::nullopt;
    energies.emplace(key, *estimate);
  }
  return energies;
}

}  // namespace zelkora
}  // namespace com
