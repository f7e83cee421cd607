// Folding a per-CPU time-in-state value into one time per policy and frequency, along the layout
// made at initialisation (core/fold_layout.h). This is the hot loop of every time-in-state query.
#pragma once

#include <cstdint>
#include <vector>

#include "core/fold_layout.h"
#include "core/map_records.h"

namespace com {
namespace zelkora {

using TimeInStateVector = std::vector<std::vector<uint64_t>>;

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
