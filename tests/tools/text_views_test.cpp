// The views' tables for people: columns, order and names a terminal can show.
#include "views/text_views.h"

#include <gtest/gtest.h>

#include "task_tables_for_testing.h"

namespace zelk::cli {
namespace {

TEST(TextViewsTest, TaskTableKeepsTheBusiestFrequenciesAndSumsTheRest) {
  // Over all rows: 17 s at 300 MHz, 8 s at 1000 MHz, 8 s at 500 MHz (the first of a tie wins).
  // Control bytes in a name print as '?'.
  EXPECT_EQ(textTaskTable(kFreqs, sortedTasks(processes(1000000000), 0), /*withFlag=*/true,
                          /*maxFreqColumns=*/2),
            "name   fg   total s  p0 300 MHz  p0 1000 MHz  other s\n"
            "big    yes   15.000      10.000        0.000    5.000\n"
            "a      no     6.000       6.000        0.000    0.000\n"
            "a      yes    6.000       0.000        6.000    0.000\n"
            "b      no     6.000       1.000        2.000    3.000\n"
            "id?le  no     0.000       0.000        0.000    0.000\n");
}

TEST(TextViewsTest, ClassTimesWithTheirCpuTime) {
  constexpr uint64_t kMs = 1000000;
  const std::vector<ClassTimes> rows = {{"tool", 5 * kMs, 20 * kMs, 0},
                                        {"app", 4 * kMs, 30 * kMs, 7 * kMs}};
  EXPECT_EQ(textClassTimes(rows),
            "name  CPU s  foreground s  background s\n"
            "tool  0.005         0.020         0.000\n"
            "app   0.004         0.030         0.007\n");
}

}  // namespace
}  // namespace zelk::cli
