#include "core/policy_discovery.h"

#include <android-base/stringprintf.h>
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/number_file.h"
#include "core/state.h"
#include "zelkcpufreqtime.h"
#include "zelkcpufreqtime_policies.h"

using android::base::StringPrintf;

namespace com {
namespace zelkora {
namespace {

// Far above any kernel's NR_CPUS; a CPU number beyond it would make gCpuSlot absurdly large.
constexpr uint64_t kMaxCpuNumber = (1u << 16) - 1;

// scandir filter: names that begin with "policy".
int isPolicyFile(const struct dirent* entry) { return strncmp(entry->d_name, "policy", 6) == 0; }

// scandir order: by the number after "policy"; names without one compare equal to everything.
int comparePolicyFiles(const struct dirent** a, const struct dirent** b) {
  unsigned int na = 0;
  unsigned int nb = 0;
  if (sscanf((*a)->d_name, "policy%u", &na) != 1) return 0;
  if (sscanf((*b)->d_name, "policy%u", &nb) != 1) return 0;
  return static_cast<int>(static_cast<int32_t>(na - nb));
}

std::optional<std::vector<std::string>> scanPolicyNames(const char* dir) {
  struct dirent** entries = nullptr;
  const int count = scandir(dir, &entries, isPolicyFile, comparePolicyFiles);
  if (count <= 0) {
    free(entries);
    return std::nullopt;
  }
  std::vector<std::string> names;
  names.reserve(count);
  for (int i = 0; i < count; ++i) {
    names.emplace_back(entries[i]->d_name);
    free(entries[i]);
  }
  free(entries);
  return names;
}

}  // namespace

std::optional<PolicyTables> discoverPolicies(const char* dir) {
  const std::optional<std::vector<std::string>> names = scanPolicyNames(dir);
  if (!names) return std::nullopt;

  PolicyTables tables;
  tables.names = *names;
  tables.policyCount = static_cast<uint32_t>(names->size());
  uint32_t largestCpu = 0;
  for (const std::string& name : *names) {
    std::vector<uint64_t> freqs;
    for (const char* kind : {"available", "boost"}) {
      const auto numbers = readNumbersFromFile(
          StringPrintf("%s/%s/scaling_%s_frequencies", dir, name.c_str(), kind));
      if (numbers) freqs.insert(freqs.end(), numbers->begin(), numbers->end());
    }
    if (freqs.empty()) return std::nullopt;
    std::sort(freqs.begin(), freqs.end());
    tables.freqTable.push_back(std::move(freqs));

    auto cpus = readNumbersFromFile(StringPrintf("%s/%s/%s", dir, name.c_str(), "related_cpus"));
    if (!cpus) return std::nullopt;
    for (uint64_t cpu : *cpus) {
      if (cpu > kMaxCpuNumber) return std::nullopt;
      largestCpu = std::max(largestCpu, static_cast<uint32_t>(cpu));
    }
    tables.relatedCpus.push_back(std::move(*cpus));
  }

  tables.cpuSlot.assign(static_cast<size_t>(largestCpu) + 1, kNoCpuSlot);
  uint64_t slot = 0;
  for (const auto& cpus : tables.relatedCpus) {
    for (uint64_t cpu : cpus) tables.cpuSlot[cpu] = slot++;
  }
  return tables;
}

std::optional<std::vector<std::vector<uint64_t>>> getCpuFreqs() {
  if (!ensureGlobals()) return std::nullopt;
  return gFreqTable;
}

std::optional<std::vector<CpuFreqPolicy>> getCpuFreqPolicies() {
  if (!ensureGlobals()) return std::nullopt;
  std::vector<CpuFreqPolicy> policies;
  policies.reserve(gPolicyCount);
  for (uint32_t i = 0; i < gPolicyCount; ++i)
    policies.push_back({gPolicyNames[i], gRelatedCpus[i]});
  return policies;
}

}  // namespace zelkora
}  // namespace com
