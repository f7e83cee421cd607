// The bins of a policy without a frequency table, and how a sampled frequency picks one.
#include "machine/frequency_bins.h"

#include <gtest/gtest.h>

namespace zelk::cli {
namespace {

TEST(FrequencyBinsTest, SpanMinToMaxInAtMost32StepsOf100MhzMultiples) {
  // A laptop's intel_pstate range: 100 MHz apart, 23 bins.
  std::vector<uint64_t> bins = frequencyBins(800000, 3000000);
  ASSERT_EQ(bins.size(), 23u);
  EXPECT_EQ(bins.front(), 800000u);
  EXPECT_EQ(bins[4], 1200000u);
  EXPECT_EQ(bins.back(), 3000000u);
  // A server's wider range needs 200 MHz steps to stay within 32.
  bins = frequencyBins(400000, 5000000);
  EXPECT_LE(bins.size(), kMaxBins);
  EXPECT_EQ(bins[1] - bins[0], 200000u);
  EXPECT_EQ(bins.back(), 5000000u);
  // Every span, aligned or not, keeps both ends and the limit, in ascending order.
  for (uint64_t max : {800001u, 3050000u, 3100000u, 3200000u, 3300000u, 9999999u}) {
    bins = frequencyBins(800000, max);
    EXPECT_LE(bins.size(), kMaxBins) << max;
    EXPECT_EQ(bins.front(), 800000u);
    EXPECT_EQ(bins.back(), max);
    EXPECT_TRUE(std::is_sorted(bins.begin(), bins.end()) &&
                std::adjacent_find(bins.begin(), bins.end()) == bins.end())
        << max;
  }
  EXPECT_EQ(frequencyBins(2000000, 2000000), std::vector<uint64_t>{2000000});
  EXPECT_TRUE(frequencyBins(0, 2000000).empty());
  EXPECT_TRUE(frequencyBins(3000000, 2000000).empty());
}

TEST(FrequencyBinsTest, NearestBinAndTheCurrentFrequencyText) {
  const std::vector<uint64_t> bins = {800000, 900000, 1000000};
  EXPECT_EQ(nearestBin(bins, 100), 1u);
  EXPECT_EQ(nearestBin(bins, 849999), 1u);
  EXPECT_EQ(nearestBin(bins, 850000), 1u);  // a tie goes to the lower
  EXPECT_EQ(nearestBin(bins, 850001), 2u);
  EXPECT_EQ(nearestBin(bins, 4000000), 3u);
  EXPECT_EQ(nearestBin({2000000}, 1), 1u);

  EXPECT_EQ(parseKhz("2400000\n"), 2400000u);
  for (const char* bad : {"", "\n", "0\n", "garbage", "-1", "2.4GHz", "999999999999"}) {
    EXPECT_FALSE(parseKhz(bad).has_value()) << bad;
  }
}

}  // namespace
}  // namespace zelk::cli
