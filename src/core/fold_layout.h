// Where each policy's CPUs lie in a per-CPU map value, and how many of a block's slots are its
// frequencies: computed once, at initialisation, from the discovered policies, for the fold that
// every time-in-state query runs.
#pragma once

#include <cstdint>
#include <vector>

namespace com {
namespace zelkora {

// Which blocks of a per-CPU buffer belong to which policy, and how many slots to read of each.
struct FoldLayout {
  // Blocks of policy p: blocks[policyBegin[p]] up to blocks[policyBegin[p + 1]], in the order of
  // the policy's CPU list. CPUs without a block in the buffer are left out: they add nothing.
  std::vector<uint32_t> blocks;
  std::vector<uint32_t> policyBegin;
  // Per policy: its frequency count, at most 32, since a block holds 32 slots. Frequencies past
  // the 32nd have no slot and stay 0.
  std::vector<uint32_t> slotCount;
  // Blocks in every per-CPU buffer handed to foldPerCpuValue.
  uint32_t blockCount = 0;
  // A row holds every policy's times end to end, in the shape of the frequency table: policy p
  // from rowBegin[p] up to rowBegin[p + 1]. rowBegin.back() is the row's length.
  std::vector<uint32_t> rowBegin;
};

// `cpuSlot` maps a CPU number to its block (all-ones for none). Any input gives a layout that
// never reads outside a buffer of `blockCount` blocks.
FoldLayout makeFoldLayout(const std::vector<std::vector<uint64_t>>& freqTable,
                          const std::vector<std::vector<uint64_t>>& relatedCpus,
                          const std::vector<uint64_t>& cpuSlot, uint32_t blockCount);

}  // namespace zelkora
}  // namespace com
