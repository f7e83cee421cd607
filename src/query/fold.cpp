#include "query/fold.h"

#include <algorithm>

namespace com {
namespace zelkora {

TimeInStateVector zeroTimeInState(const std::vector<std::vector<uint64_t>>& freqTable) {
  TimeInStateVector zeros;
  zeros.reserve(freqTable.size());
  for (const auto& freqs : freqTable) zeros.emplace_back(freqs.size(), 0);
  return zeros;
}

void foldPerCpuValue(const FoldLayout& layout, const time_in_state_block_t* blocks,
                     TimeInStateVector& out) {
  const size_t policies = layout.slotCount.size();
  for (size_t p = 0; p < policies; ++p) {
    uint64_t* __restrict dst = out[p].data();
    const uint32_t slots = layout.slotCount[p];
    for (uint32_t i = layout.policyBegin[p]; i < layout.policyBegin[p + 1]; ++i) {
      const uint64_t* __restrict src = blocks[layout.blocks[i]].slot;
      for (uint32_t j = 0; j < slots; ++j) dst[j] += src[j];
    }
  }
}

void foldPerCpuValueIntoRow(const FoldLayout& layout, const time_in_state_block_t* blocks,
                            uint64_t* row) {
  std::fill_n(row, layout.rowBegin.back(), 0);
  const size_t policies = layout.slotCount.size();
  for (size_t p = 0; p < policies; ++p) {
    uint64_t* __restrict dst = row + layout.rowBegin[p];
    const uint32_t slots = layout.slotCount[p];
    for (uint32_t i = layout.policyBegin[p]; i < layout.policyBegin[p + 1]; ++i) {
      const uint64_t* __restrict src = blocks[layout.blocks[i]].slot;
      for (uint32_t j = 0; j < slots; ++j) dst[j] += src[j];
    }
  }
}

TimeInStateVector timeInStateFromRow(const FoldLayout& layout, const uint64_t* row) {
  const size_t policies = layout.rowBegin.size() - 1;
  TimeInStateVector out;
  out.reserve(policies);
  for (size_t p = 0; p < policies; ++p) {
    out.emplace_back(row + layout.rowBegin[p], row + layout.rowBegin[p + 1]);
  }
  return out;
}

void addRow(const FoldLayout& layout, const uint64_t* row, TimeInStateVector& out) {
  const size_t policies = layout.rowBegin.size() - 1;
  for (size_t p = 0; p < policies; ++p) {
    uint64_t* __restrict dst = out[p].data();
    const uint64_t* __restrict src = row + layout.rowBegin[p];
    const uint32_t length = layout.rowBegin[p + 1] - layout.rowBegin[p];
    for (uint32_t j = 0; j < length; ++j) dst[j] += src[j];
  }
}

}  // namespace zelkora
}  // namespace com
