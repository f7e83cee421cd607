#include "views/frequency_source.h"

#include "views/units.h"

namespace zelk::cli {

std::string frequencySourceText(const DemoMachine& machine) {
  if (machine.synthetic) {
    const SyntheticSource& s = machine.syntheticSource;
    return "SYNTHETIC: this machine has no cpufreq driver, so policy 0 is one policy over CPUs " +
           s.cpus + " at the nominal " + formatMhz(s.khz) + " MHz (from " + s.origin +
           "); all time counts at that frequency";
  }
  std::string sampled, exact;
  for (const PolicySource& policy : machine.policies) {
    const std::string cpus = " (" + (policy.driver.empty() ? "" : policy.driver + ", ") + "CPUs " +
                             policy.relatedCpus + ")";
    switch (policy.kind) {
      case PolicySource::kBins:
        sampled += " " + policy.name + cpus + " in " + std::to_string(policy.bins.size()) +
                   " bins from " + formatMhz(policy.bins.front()) + " to " +
                   formatMhz(policy.bins.back()) + " MHz;";
        break;
      case PolicySource::kOwnFrequencies:
        sampled += " " + policy.name + cpus + " at its own frequencies;";
        break;
      case PolicySource::kEvents:
        exact += " " + policy.name + cpus;
        break;
    }
  }
  if (sampled.empty()) return "the machine's cpufreq policies:" + exact;
  const std::string period = std::to_string(machine.sampledMs) + " ms";
  return "SAMPLED every " + period + ": the time of" + sampled +
         " counts at the frequency nearest its scaling_cur_freq, read every " + period +
         ", not at each frequency event" + (exact.empty() ? "" : "; event-exact:" + exact);
}

}  // namespace zelk::cli
