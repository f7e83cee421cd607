// How the tool writes frequencies, times and shares for people.
#include "views/units.h"

#include <gtest/gtest.h>

namespace zelk::cli {
namespace {

TEST(UnitsTest, DecimalsAndRounding) {
  EXPECT_EQ(formatMhz(999), "0.999");
  EXPECT_EQ(formatSeconds(499999), "0.000");
  EXPECT_EQ(formatSeconds(999999999), "1.000");  // the carry reaches the whole seconds
  EXPECT_EQ(formatSeconds(UINT64_MAX), "18446744073.710");
}

}  // namespace
}  // namespace zelk::cli
