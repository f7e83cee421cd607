// Sums over the library's time vectors: cycles and the average frequency exact past 64 bits.
#include "model/times.h"

#include <gtest/gtest.h>

namespace zelk::cli {
namespace {

TEST(CyclesOfTest, ExactPast64BitsAndOnlyWhereTheTableNamesAFrequency) {
  const FreqTable freqs = {{3000000, 4000000}};
  // A day at 3 and 4 GHz: 8.64e13 ns × 3e6 kHz alone is above 2^64.
  const Times times = {{86400000000000, 86400000000000, 5}};
  const Cycles cycles = cyclesOf(freqs, times);
  EXPECT_EQ(cycles, static_cast<Cycles>(86400000000000) * 7000000);
  EXPECT_GT(cycles, static_cast<Cycles>(UINT64_MAX));
  EXPECT_EQ(averageKhz(freqs, times), 3500000u);  // the third entry has no frequency
  EXPECT_EQ(averageKhz(freqs, {{0, 0}}), 0u);
  EXPECT_EQ(averageKhz({{1000, 2000}}, {{1, 2}}), 1667u);  // 5000 / 3, rounded
}

TEST(AddTimesTest, OnlyTheSameShape) {
  Times sum = {{1, 2}, {3}};
  EXPECT_TRUE(addTimes({{10, 20}, {30}}, &sum));
  EXPECT_EQ(sum, (Times{{11, 22}, {33}}));
  EXPECT_FALSE(addTimes({{1}, {1}}, &sum));
  EXPECT_FALSE(addTimes({{1, 1}}, &sum));
  EXPECT_EQ(sum, (Times{{11, 22}, {33}}));  // untouched
  EXPECT_EQ(policyTime(sum, 1), 33u);
  EXPECT_EQ(policyTime(sum, 2), 0u);
}

}  // namespace
}  // namespace zelk::cli
