#include "kernel/config_maps.h"

#include <android-base/stringprintf.h>

#include <cinttypes>
#include <string>

#include "core/map_records.h"
#include "core/number_file.h"
#include "core/policy_discovery.h"
#include "core/state.h"
#include "syscall/bpf_syscall.h"

namespace com {
namespace zelkora {

bool writeCpuPolicies(int fd) {
  for (size_t i = 0; i < gRelatedCpus.size(); ++i) {
    const policy_ordinal_t policy = static_cast<policy_ordinal_t>(i);
    for (const uint64_t cpu : gRelatedCpus[i]) {
      const cpu_key_t key = static_cast<cpu_key_t>(cpu);
      if (mapUpdateElem(fd, &key, &policy, BPF_ANY) != 0) return false;
    }
  }
  return true;
}

bool writeFreqIndices(int fd) {
  for (uint32_t i = 0; i < gPolicyCount; ++i) {
    const std::vector<uint64_t>& freqs = gFreqTable[i];
    // A frequency listed twice (available and boost) ends up with its later index.
    for (size_t j = 1; j <= freqs.size(); ++j) {
      const freq_key_t key = {i, static_cast<uint32_t>(freqs[j - 1])};
      const freq_index_t index = static_cast<freq_index_t>(j);
      if (mapUpdateElem(fd, &key, &index, BPF_ANY) != 0) return false;
    }
  }
  return true;
}

bool writeZeroLastUpdate(int fd) {
  // The kernel copies one 8-byte slot per possible CPU, which can be more than
  // get_nprocs_conf() counts; gCpuBlockCount covers both.
  const std::vector<uint64_t> zeros(gCpuBlockCount, 0);
  const zero_key_t key = 0;
  return mapUpdateElem(fd, &key, zeros.data(), BPF_ANY) == 0;
}

namespace {

// The 1-based index of the first occurrence of `freq` in `freqs`.
std::optional<uint32_t> freqIndex(const std::vector<uint64_t>& freqs, uint64_t freq) {
  for (size_t j = 0; j < freqs.size(); ++j) {
    if (freqs[j] == freq) return static_cast<uint32_t>(j + 1);
  }
  return std::nullopt;
}

}  // namespace

bool writeCurrentFreqIndices(int fd) {
  for (uint32_t i = 0; i < gPolicyCount; ++i) {
    // A policy directory is named after its first CPU, so a policy without CPUs has nothing to
    // read. No CPU maps to it in the CPU-to-policy map either, so the kernel never asks for its
    // entry.
    if (gRelatedCpus[i].empty()) continue;
    const std::string path = android::base::StringPrintf("%s/policy%" PRIu64 "/scaling_cur_freq",
                                                         kCpufreqDir, gRelatedCpus[i].front());
    const std::optional<std::vector<uint64_t>> current = readNumbersFromFile(path);
    if (!current || current->size() != 1) return false;
    const std::optional<uint32_t> index = freqIndex(gFreqTable[i], current->front());
    if (!index) return false;
    const policy_ordinal_t key = i;
    const freq_index_t value = *index;
    if (mapUpdateElem(fd, &key, &value, BPF_ANY) != 0) return false;
  }
  return true;
}

}  // namespace zelkora
}  // namespace com
