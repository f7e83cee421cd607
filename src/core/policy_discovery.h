// Discovery of the cpufreq policies: their frequencies, their CPUs, and where each CPU's block
// lies in a per-CPU map value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace com {
namespace zelkora {

inline constexpr const char kCpufreqDir[] = "/sys/devices/system/cpu/cpufreq";
inline constexpr uint64_t kNoCpuSlot = ~uint64_t{0};

struct PolicyTables {
  // Per policy: its directory's name ("policy4").
  std::vector<std::string> names;
  // Per policy, in ascending policy number: available then boost frequencies, sorted, in kHz.
  std::vector<std::vector<uint64_t>> freqTable;
  // Per policy: the CPUs of its related_cpus file, in file order.
  std::vector<std::vector<uint64_t>> relatedCpus;
  // Per CPU number: its position in the policy-ordered concatenation of relatedCpus (its last
  // one when listed twice), or kNoCpuSlot.
  std::vector<uint64_t> cpuSlot;
  uint32_t policyCount = 0;
};

// Scans `dir`. No value when it holds no policy, a policy has no frequency, or a related_cpus
// file is unreadable or malformed. Logs nothing.
std::optional<PolicyTables> discoverPolicies(const char* dir = kCpufreqDir);

}  // namespace zelkora
}  // namespace com
