// The fold of a per-CPU value into one time per policy and frequency, and its guards against
// policy layouts that do not fit the buffer.
#include "query/fold.h"

#include <gtest/gtest.h>

#include <vector>

#include "core/policy_discovery.h"

namespace com::zelkora {
namespace {

using Table = std::vector<std::vector<uint64_t>>;

std::vector<uint64_t> freqs(size_t n) {
  std::vector<uint64_t> f(n);
  for (size_t i = 0; i < n; ++i) f[i] = 100000 * (i + 1);
  return f;
}

// Block b, slot j holds (b + 1) * 1000 + j, so every sum tells which blocks went in.
std::vector<time_in_state_block_t> numberedBlocks(size_t blocks) {
  std::vector<time_in_state_block_t> buffer(blocks);
  for (size_t b = 0; b < blocks; ++b) {
    for (size_t j = 0; j < kFreqSlots; ++j) buffer[b].slot[j] = (b + 1) * 1000 + j;
  }
  return buffer;
}

TimeInStateVector fold(const Table& freqTable, const Table& cpus, const std::vector<uint64_t>& slot,
                       uint32_t blockCount) {
  const FoldLayout layout = makeFoldLayout(freqTable, cpus, slot, blockCount);
  const auto buffer = numberedBlocks(blockCount);
  TimeInStateVector out = zeroTimeInState(freqTable);
  foldPerCpuValue(layout, buffer.data(), out);
  return out;
}

TEST(FoldTest, SumsEveryCpuOfAPolicyIntoItsVector) {
  // Policy 0 has blocks 0 and 1, policy 1 has block 2.
  const auto out = fold({freqs(2), freqs(3)}, {{0, 1}, {2}}, {0, 1, 2}, 3);
  EXPECT_EQ(out, (TimeInStateVector{{1000 + 2000, 1001 + 2001}, {3000, 3001, 3002}}));
}

TEST(FoldTest, AddsToWhatTheVectorHolds) {
  const FoldLayout layout = makeFoldLayout({freqs(1)}, {{0}}, {0}, 1);
  const auto buffer = numberedBlocks(1);
  TimeInStateVector out = {{5}};
  foldPerCpuValue(layout, buffer.data(), out);
  foldPerCpuValue(layout, buffer.data(), out);
  EXPECT_EQ(out, (TimeInStateVector{{2005}}));
}

TEST(FoldTest, FindsBlocksThroughTheCpuSlotNotTheCpuNumber) {
  // Policy 0 lists CPUs 1 then 0: CPU 1 is block 0 and CPU 0 is block 1. A CPU listed twice is
  // added twice.
  const auto out = fold({freqs(1), freqs(1)}, {{1, 0}, {0}}, {2, 0}, 3);
  EXPECT_EQ(out, (TimeInStateVector{{1000 + 3000}, {3000}}));
}

TEST(FoldTest, CpusWithoutABlockAddNothing) {
  // CPU 2 has no slot at all, CPU 3 is past the slot table, CPU 1's block is past the buffer.
  const auto out = fold({freqs(1), freqs(1)}, {{0, 2, 3}, {1}}, {0, 5, kNoCpuSlot}, 2);
  EXPECT_EQ(out, (TimeInStateVector{{1000}, {0}}));
}

TEST(FoldTest, MoreCpusThanBlocksNeverReadsPastTheBuffer) {
  // Eight CPUs named, two blocks in the buffer (AddressSanitizer checks the reads).
  std::vector<uint64_t> slots(8);
  for (uint64_t c = 0; c < 8; ++c) slots[c] = c;
  const auto out = fold({freqs(2), freqs(2)}, {{0, 1, 2, 3}, {4, 5, 6, 7}}, slots, 2);
  EXPECT_EQ(out, (TimeInStateVector{{3000, 3002}, {0, 0}}));
}

TEST(FoldTest, FrequenciesPastTheThirtySecondReportZero) {
  const auto out = fold({freqs(40)}, {{0}}, {0}, 1);
  ASSERT_EQ(out[0].size(), 40u);
  for (size_t j = 0; j < 32; ++j) EXPECT_EQ(out[0][j], 1000 + j) << j;
  for (size_t j = 32; j < 40; ++j) EXPECT_EQ(out[0][j], 0u) << j;
}

TEST(FoldTest, PolicyWithFewerFrequenciesReadsOnlyItsSlots) {
  const auto out = fold({freqs(3)}, {{0}}, {0}, 1);
  EXPECT_EQ(out, (TimeInStateVector{{1000, 1001, 1002}}));
}

TEST(FoldTest, ZeroTemplateHasTheShapeOfTheTable) {
  EXPECT_EQ(zeroTimeInState({freqs(2), freqs(0), freqs(1)}), (TimeInStateVector{{0, 0}, {}, {0}}));
}

// The walks fold into rows and build vectors from them: the same sums as the vector fold, for
// every layout above, and a row is set, never added to.
TEST(FoldTest, RowFoldGivesTheVectorFoldsSums) {
  struct Case {
    Table freqTable, cpus;
    std::vector<uint64_t> slot;
    uint32_t blockCount;
  };
  std::vector<uint64_t> eightSlots(8);
  for (uint64_t c = 0; c < 8; ++c) eightSlots[c] = c;
  const Case cases[] = {
      {{freqs(2), freqs(3)}, {{0, 1}, {2}}, {0, 1, 2}, 3},
      {{freqs(1), freqs(1)}, {{1, 0}, {0}}, {2, 0}, 3},
      {{freqs(1), freqs(1)}, {{0, 2, 3}, {1}}, {0, 5, kNoCpuSlot}, 2},
      {{freqs(2), freqs(2)}, {{0, 1, 2, 3}, {4, 5, 6, 7}}, eightSlots, 2},
      {{freqs(40)}, {{0}}, {0}, 1},
      {{freqs(2), freqs(0), freqs(1)}, {{0}, {}, {1}}, {0, 1}, 2},
      // More policies in the frequency table than CPU lists: the rows keep the table's shape.
      {{freqs(2), freqs(3)}, {{0}}, {0}, 1},
  };
  for (const Case& c : cases) {
    const FoldLayout layout = makeFoldLayout(c.freqTable, c.cpus, c.slot, c.blockCount);
    const auto buffer = numberedBlocks(c.blockCount);
    std::vector<uint64_t> row(layout.rowBegin.back(), 77);  // stale contents
    foldPerCpuValueIntoRow(layout, buffer.data(), row.data());
    EXPECT_EQ(timeInStateFromRow(layout, row.data()),
              fold(c.freqTable, c.cpus, c.slot, c.blockCount));
  }
}

TEST(FoldTest, AddRowAddsEveryPolicysRun) {
  const FoldLayout layout = makeFoldLayout({freqs(2), freqs(1)}, {{0}, {1}}, {0, 1}, 2);
  const uint64_t row[] = {1, 2, 3};
  TimeInStateVector out = {{10, 20}, {30}};
  addRow(layout, row, out);
  EXPECT_EQ(out, (TimeInStateVector{{11, 22}, {33}}));
}

}  // namespace
}  // namespace com::zelkora
