#include "kernel/config_maps.h"

#include <android-base/stringprintf.h>

#include <cerrno>
#include <cinttypes>
#include <optional>
#include <string>

#include "core/number_file.h"
#include "core/policy_discovery.h"
#include "syscall/bpf_syscall.h"

namespace com {
namespace zelkora {

bool writeCpuPolicies(int fd, const PolicyLists& relatedCpus) {
  for (size_t i = 0; i < relatedCpus.size(); ++i) {
    const policy_ordinal_t policy = static_cast<policy_ordinal_t>(i);
    for (const uint64_t cpu : relatedCpus[i]) {
      const cpu_key_t key = static_cast<cpu_key_t>(cpu);
      if (mapUpdateElem(fd, &key, &policy, BPF_ANY) != 0) return false;
    }
  }
  return true;
}

bool writeFreqIndices(int fd, const PolicyLists& freqTable) {
  for (uint32_t i = 0; i < freqTable.size(); ++i) {
    const std::vector<uint64_t>& freqs = freqTable[i];
    // A frequency listed twice (available and boost) ends up with its later index.
    for (size_t j = 1; j <= freqs.size(); ++j) {
      const freq_key_t key = {i, static_cast<uint32_t>(freqs[j - 1])};
      const freq_index_t index = static_cast<freq_index_t>(j);
      if (mapUpdateElem(fd, &key, &index, BPF_ANY) != 0) return false;
    }
  }
  return true;
}

bool writeZeroLastUpdate(int fd, uint32_t cpuBlocks) {
  // The kernel copies one 8-byte slot per possible CPU, which can be more than
  // get_nprocs_conf() counts; the library passes a count that covers both.
  const std::vector<uint64_t> zeros(cpuBlocks, 0);
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

bool writeCurrentFreqIndices(int fd, const PolicyLists& freqTable, const PolicyLists& relatedCpus) {
  for (uint32_t i = 0; i < freqTable.size(); ++i) {
    // A policy directory is named after its first CPU, so a policy without CPUs has nothing to
    // read. No CPU maps to it in the CPU-to-policy map either, so the kernel never asks for its
    // entry.
    if (i >= relatedCpus.size() || relatedCpus[i].empty()) continue;
    const std::string path = android::base::StringPrintf("%s/policy%" PRIu64 "/scaling_cur_freq",
                                                         kCpufreqDir, relatedCpus[i].front());
    const std::optional<std::vector<uint64_t>> current = readNumbersFromFile(path);
    if (!current || current->size() != 1) return false;
    const std::optional<uint32_t> index = freqIndex(freqTable[i], current->front());
    if (!index || !writeCurrentFreqIndex(fd, i, *index)) return false;
  }
  return true;
}

bool writeCurrentFreqIndex(int fd, policy_ordinal_t policy, freq_index_t index) {
  return mapUpdateElem(fd, &policy, &index, BPF_ANY) == 0;
}

bool deleteFreqIndices(int fd, policy_ordinal_t policy, const std::vector<uint64_t>& freqs) {
  for (const uint64_t khz : freqs) {
    const freq_key_t key = {policy, static_cast<uint32_t>(khz)};
    // A frequency listed twice is gone after its first delete.
    if (mapDeleteElem(fd, &key) != 0 && errno != ENOENT) return false;
  }
  return true;
}

}  // namespace zelkora
}  // namespace com
