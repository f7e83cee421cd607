// The library's tables as sorted rows: which entries are rows, and the joined class view.
#include "model/task_rows.h"

#include <gtest/gtest.h>

#include "task_tables_for_testing.h"

namespace zelk::cli {
namespace {

using com::zelkora::TimeInStateTable;
using com::zelkora::TimeTable;

// An empty overflow entry is the map's own: tables for people leave it out, programs get it.
TEST(TaskRowsTest, OverflowEntryIsARowForPeopleOnlyWithTime) {
  TimeInStateTable table = processes();
  table[{"<map overflowed>", 0}] = {{0, 0}, {0}};
  table[{"<map overflowed>", 1}] = {{0, 4}, {0}};
  auto names = [](const std::vector<TaskTimes>& rows) {
    std::string all;
    for (const TaskTimes& row : rows) all += row.name + "/" + std::to_string(row.flag) + " ";
    return all;
  };
  EXPECT_EQ(names(sortedTasks(table, 0, OverflowRow::kWithTime)),
            "big/1 a/0 a/1 b/0 <map overflowed>/1 id\tle/0 ");
  EXPECT_EQ(names(sortedTasks(table, 0)),
            "big/1 a/0 a/1 b/0 <map overflowed>/1 <map overflowed>/0 id\tle/0 ");
  EXPECT_EQ(rowCount(table, OverflowRow::kWithTime), 6u);
  EXPECT_EQ(rowCount(table, OverflowRow::kAlways), 7u);

  const TimeTable top = {{{"<map overflowed>", 0}, 0}, {{"a", 0}, 0}};
  EXPECT_EQ(sortedNamedTimes(top, 0, OverflowRow::kWithTime).size(), 1u);  // "a" stays
  EXPECT_EQ(sortedNamedTimes(top, 0).size(), 2u);
}

// The demo's class table lists the names that ran, busiest first: a daemon asleep the whole time
// has the most class time and no row.
TEST(TaskRowsTest, ClassTimesOfTheNamesThatRan) {
  constexpr uint64_t kMs = 1000000;
  const TimeInStateTable ran = {{{"app", 1}, {{0, 3 * kMs}, {0}}},
                                {{"app", 0}, {{1 * kMs, 0}, {0}}},
                                {{"tool", 1}, {{5 * kMs, 0}, {0}}},
                                {{"idle", 0}, {{0, 0}, {0}}}};
  const TimeTable top = {
      {{"app", 0}, 30 * kMs}, {{"tool", 0}, 20 * kMs}, {{"sleeper", 0}, 1000 * kMs}};
  const TimeTable bg = {{{"app", 0}, 7 * kMs}, {{"kthreadd", 0}, 2000 * kMs}};
  const std::vector<ClassTimes> rows = ranClassTimes(ran, top, bg, 0);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].name, "tool");
  EXPECT_EQ(rows[1].name, "app");
  EXPECT_EQ(rows[1].cpuNs, 4 * kMs);  // both classes' entries
  EXPECT_EQ(ranClassTimes(ran, top, bg, 1).size(), 1u);
}

}  // namespace
}  // namespace zelk::cli
