// The kernel's CPU list format, as in /sys/devices/system/cpu/possible.
#include "core/possible_cpus.h"

#include <gtest/gtest.h>

namespace com::zelkora {
namespace {

TEST(ParseCpuListCountTest, ListsAndRanges) {
  EXPECT_EQ(parseCpuListCount("0\n"), 1u);
  EXPECT_EQ(parseCpuListCount("0-7\n"), 8u);
  EXPECT_EQ(parseCpuListCount("0-3,6\n"), 5u);
  EXPECT_EQ(parseCpuListCount("0,2,4-5"), 4u);
  EXPECT_EQ(parseCpuListCount("3-3"), 1u);
}

TEST(ParseCpuListCountTest, MalformedListsHaveNoCount) {
  for (const char* text : {"", "\n", "3-1", "0-", "-3", "a", "0,,1", "0 1", "0-3;6", "1-2-3",
                           "99999999999", "0-70000"}) {
    EXPECT_EQ(parseCpuListCount(text), std::nullopt) << '"' << text << '"';
  }
}

TEST(ParseCpuListCountTest, ThisMachineHasAtLeastOnePossibleCpu) {
  const auto count = readPossibleCpuCount();
  ASSERT_TRUE(count.has_value());
  EXPECT_GE(*count, 1u);
}

}  // namespace
}  // namespace com::zelkora
