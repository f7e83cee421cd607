// A fuzzed policy layout (frequency counts, CPU lists, CPU slots, block count) against a fuzzed
// per-CPU buffer: the fold must never read outside the buffer (AddressSanitizer checks) nor write
// outside the result, and must add exactly the blocks the layout names.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <vector>

#include "query/fold.h"

using namespace com::zelkora;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const uint32_t blockCount = in.ConsumeIntegralInRange<uint32_t>(0, 16);
  const size_t policies = in.ConsumeIntegralInRange<size_t>(0, 6);
  std::vector<std::vector<uint64_t>> freqTable(policies), relatedCpus(policies);
  for (size_t p = 0; p < policies; ++p) {
    freqTable[p].resize(in.ConsumeIntegralInRange<size_t>(0, 40), 1);
    relatedCpus[p].resize(in.ConsumeIntegralInRange<size_t>(0, 8));
    for (auto& cpu : relatedCpus[p]) cpu = in.ConsumeIntegralInRange<uint64_t>(0, 24);
  }
  std::vector<uint64_t> cpuSlot(in.ConsumeIntegralInRange<size_t>(0, 20));
  for (auto& slot : cpuSlot) {
    slot = in.ConsumeBool() ? ~uint64_t{0} : in.ConsumeIntegralInRange<uint64_t>(0, 20);
  }
  // An exactly sized heap buffer, so that any read past it is caught.
  std::vector<time_in_state_block_t> blocks(blockCount);
  for (auto& block : blocks) {
    for (auto& slot : block.slot) slot = in.ConsumeIntegral<uint8_t>();
  }

  const FoldLayout layout = makeFoldLayout(freqTable, relatedCpus, cpuSlot, blockCount);
  TimeInStateVector out = zeroTimeInState(freqTable);
  foldPerCpuValue(layout, blocks.data(), out);

  // The walks' row fold gives the same vectors.
  std::vector<uint64_t> row(layout.rowBegin.back(), 1);
  foldPerCpuValueIntoRow(layout, blocks.data(), row.data());
  if (timeInStateFromRow(layout, row.data()) != out) abort();

  // The same sums, the slow way.
  for (size_t p = 0; p < policies; ++p) {
    for (size_t j = 0; j < freqTable[p].size(); ++j) {
      uint64_t expected = 0;
      for (uint64_t cpu : relatedCpus[p]) {
        if (j >= kFreqSlots || cpu >= cpuSlot.size() || cpuSlot[cpu] >= blockCount) continue;
        expected += blocks[cpuSlot[cpu]].slot[j];
      }
      if (out[p][j] != expected) abort();
    }
  }
  return 0;
}
