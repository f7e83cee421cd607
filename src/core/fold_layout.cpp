#include "core/fold_layout.h"

#include <algorithm>

#include "core/map_records.h"

namespace com {
namespace zelkora {

FoldLayout makeFoldLayout(const std::vector<std::vector<uint64_t>>& freqTable,
                          const std::vector<std::vector<uint64_t>>& relatedCpus,
                          const std::vector<uint64_t>& cpuSlot, uint32_t blockCount) {
  FoldLayout layout;
  layout.blockCount = blockCount;
  const size_t policies = std::min(freqTable.size(), relatedCpus.size());
  layout.policyBegin.reserve(policies + 1);
  layout.slotCount.reserve(policies);
  for (size_t p = 0; p < policies; ++p) {
    layout.policyBegin.push_back(static_cast<uint32_t>(layout.blocks.size()));
    layout.slotCount.push_back(
        static_cast<uint32_t>(std::min<size_t>(freqTable[p].size(), kFreqSlots)));
    for (uint64_t cpu : relatedCpus[p]) {
      if (cpu >= cpuSlot.size()) continue;
      const uint64_t block = cpuSlot[cpu];
      if (block < blockCount) layout.blocks.push_back(static_cast<uint32_t>(block));
    }
  }
  layout.policyBegin.push_back(static_cast<uint32_t>(layout.blocks.size()));
  // Rows take the frequency table's whole shape, policies without a CPU list included.
  layout.rowBegin.reserve(freqTable.size() + 1);
  uint32_t rowLength = 0;
  for (const auto& freqs : freqTable) {
    layout.rowBegin.push_back(rowLength);
    rowLength += static_cast<uint32_t>(freqs.size());
  }
  layout.rowBegin.push_back(rowLength);
  return layout;
}

}  // namespace zelkora
}  // namespace com
