// Folding a per-CPU time-in-state value into one time per policy and frequency. This is the hot
// loop of every time-in-state query, so the layout is computed once, at initialisation.
#pragma once

#include <cstdint>
#include <vector>

#include "core/map_records.h"

namespace com {
namespace zelkora {

using TimeInStateVector = std::vector<std::vector<uint64_t>>;

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

// All zeros, in the shape of the frequency table.
TimeInStateVector zeroTimeInState(const std::vector<std::vector<uint64_t>>& freqTable);

// Adds the per-CPU value `blocks` (layout.blockCount blocks) into `out`, which has the shape of
// the frequency table the layout was made from.
void foldPerCpuValue(const FoldLayout& layout, const time_in_state_block_t* blocks,
                     TimeInStateVector& out);

// Sets `row` (layout.rowBegin.back() times) to the fold of `blocks`: the same sums as
// foldPerCpuValue into zeros, written into one contiguous run.
void foldPerCpuValueIntoRow(const FoldLayout& layout, const time_in_state_block_t* blocks,
                            uint64_t* row);

// The time-in-state vector that holds `row`.
TimeInStateVector timeInStateFromRow(const FoldLayout& layout, const uint64_t* row);

// Adds `row` into `out`, which has the shape of the frequency table.
void addRow(const FoldLayout& layout, const uint64_t* row, TimeInStateVector& out);

}  // namespace zelkora
}  // namespace com
