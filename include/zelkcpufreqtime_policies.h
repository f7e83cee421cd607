// libzelkcpufreqtime: the cpufreq policies as the library discovered them.
//
// Every per-policy result of the library (getCpuFreqs() and the time-in-state vectors) is in this
// order. A program that needs a policy's CPUs or its name asks here, rather than reading sysfs on
// its own, which could disagree with the library (a policy added or removed since, another order).
//
// Same error contract as getCpuFreqs() (zelkcpufreqtime.h): empty when the library cannot
// initialise; nothing is logged, no lock is taken.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

struct CpuFreqPolicy {
  std::string name;            // its directory under /sys/devices/system/cpu/cpufreq: "policy4"
  std::vector<uint64_t> cpus;  // its related_cpus, in the file's order; may be empty
};

ZELK_API std::optional<std::vector<CpuFreqPolicy>> getCpuFreqPolicies();

}  // namespace zelkora
}  // namespace com
