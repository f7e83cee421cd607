// The four configuration maps through which the kernel object learns the machine's layout. Each
// writer takes a write-only descriptor and the tables to write: the tracking start passes what
// initGlobals() discovered, the tool's sampler and zelk-exercise their own. Writers write with
// BPF_ANY and stop at the first failed update, returning false with errno from it. Entries
// written before a failure stay; a later start writes them again.
#pragma once

#include <cstdint>
#include <vector>

#include "core/map_records.h"

namespace com {
namespace zelkora {

// Per policy, in the library's policy order: its CPUs, or its frequencies in kHz.
using PolicyLists = std::vector<std::vector<uint64_t>>;

// CPU to policy: every CPU of every policy to the policy's ordinal.
bool writeCpuPolicies(int fd, const PolicyLists& relatedCpus);
// Frequency to index: {policy ordinal, kHz} to the frequency's 1-based index in its policy.
bool writeFreqIndices(int fd, const PolicyLists& freqTable);
// Last update: key 0 to one zero per CPU block (`cpuBlocks` of them).
bool writeZeroLastUpdate(int fd, uint32_t cpuBlocks);
// Current index: each policy to the index of its current frequency, read from its
// scaling_cur_freq. False also when that cannot be read, is not one number, or is not in its
// table. A policy without CPUs is left out.
bool writeCurrentFreqIndices(int fd, const PolicyLists& freqTable, const PolicyLists& relatedCpus);
// Current index: one policy's.
bool writeCurrentFreqIndex(int fd, policy_ordinal_t policy, freq_index_t index);

// Frequency to index: the entries of one policy's frequencies removed, so that the frequency
// program finds none of them. A frequency already absent counts as removed.
bool deleteFreqIndices(int fd, policy_ordinal_t policy, const std::vector<uint64_t>& freqs);

}  // namespace zelkora
}  // namespace com
