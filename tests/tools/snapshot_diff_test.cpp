// What two snapshots say was counted in between, row by row, whatever happened meanwhile.
#include "model/snapshot_diff.h"

#include <gtest/gtest.h>

#include <sstream>

#include "task_tables_for_testing.h"

namespace zelk::cli {
namespace {

using namespace std::chrono_literals;

const char* changeName(RowChange change) {
  switch (change) {
    case RowChange::kDelta:
      return "delta";
    case RowChange::kAppeared:
      return "appeared";
    case RowChange::kVanished:
      return "vanished";
    case RowChange::kReset:
      return "reset";
  }
  return "?";
}

std::string text(const Times& times) {
  std::ostringstream out;
  for (const auto& policy : times) {
    out << "[";
    for (size_t i = 0; i < policy.size(); ++i) out << (i ? "," : "") << policy[i];
    out << "]";
  }
  return out.str();
}

// One line per row, in the diff's order: "name/flag change times total".
std::string text(const std::vector<TaskDelta>& rows) {
  std::string all;
  for (const TaskDelta& d : rows) {
    all += d.row.name + "/" + std::to_string(d.row.flag) + " " + changeName(d.change) + " " +
           text(d.row.times) + " " + std::to_string(d.row.total) + "\n";
  }
  return all;
}

std::string text(const std::vector<NamedDelta>& rows) {
  std::string all;
  for (const NamedDelta& d : rows) {
    all += d.row.name + " " + changeName(d.change) + " " + std::to_string(d.row.ns) + "\n";
  }
  return all;
}

std::string text(const std::vector<CgroupDelta>& rows) {
  std::string all;
  for (const CgroupDelta& d : rows) {
    all += std::to_string(d.entry.id) + " " + d.entry.path.value_or("-") + " " +
           changeName(d.change) + " " + text(d.entry.times) + "\n";
  }
  return all;
}

Snapshot snapshot(std::chrono::steady_clock::time_point at) {
  Snapshot s;
  s.parts = kAllParts | kCgroupsPart;
  s.freqs = kFreqs;
  s.takenAt = at;
  return s;
}

TEST(SnapshotDiffTest, EachRowIsMarkedAndADecreaseNeverUnderflows) {
  const auto t0 = std::chrono::steady_clock::time_point{} + 1h;
  Snapshot before = snapshot(t0), after = snapshot(t0 + 2s);
  before.total = {{10, 20}, {5}};
  after.total = {{15, 20}, {9}};
  before.processes = {
      {{"steady", 1}, {{10, 20}, {5}}},
      {{"gone", 0}, {{7, 7}, {7}}},
      {{"restarted", 0}, {{100, 100}, {100}}},
  };
  after.processes = {
      {{"steady", 1}, {{15, 20}, {9}}},
      {{"steady", 0}, {{1, 0}, {0}}},  // the same name with the other flag is another row
      {{"restarted", 0}, {{200, 3}, {150}}},
  };
  // The same name as a process: the tables are compared apart.
  before.kthreads = {{{"gone", 1}, {{1, 1}, {1}}}};
  after.kthreads = {{{"gone", 1}, {{4, 1}, {1}}}};
  before.top = {{{"a", 0}, 10}, {{"b", 0}, 50}};
  after.top = {{{"a", 0}, 25}, {{"b", 0}, 20}, {{"c", 0}, 5}};
  before.bg = {{{"d", 0}, 3}};
  // By id: a path seen only before stays with its id.
  before.cgroups = {
      {9, "/b", {{5, 5}, {5}}}, {1, "/", {{10, 20}, {5}}}, {7, "/gone", {{1, 1}, {1}}}};
  after.cgroups = {
      {1, "/", {{12, 25}, {5}}}, {3, std::nullopt, {{2, 0}, {0}}}, {9, {}, {{1, 9}, {9}}}};

  const DiffResult result = diffSnapshots(before, after);
  ASSERT_TRUE(result.diff) << result.error;
  const SnapshotDiff& diff = *result.diff;
  EXPECT_EQ(diff.parts, unsigned{kAllParts | kCgroupsPart});
  EXPECT_EQ(diff.freqs, kFreqs);
  EXPECT_EQ(diff.elapsed, 2s);
  EXPECT_EQ(text(diff.total), "[5,0][4]");
  EXPECT_EQ(diff.totalChange, RowChange::kDelta);
  // Busiest in between first; a reset row counts its after values, not a wrapped difference.
  EXPECT_EQ(text(diff.processes),
            "restarted/0 reset [200,3][150] 353\n"
            "steady/1 delta [5,0][4] 9\n"
            "steady/0 appeared [1,0][0] 1\n"
            "gone/0 vanished [0,0][0] 0\n");
  EXPECT_EQ(text(diff.kthreads), "gone/1 delta [3,0][0] 3\n");
  EXPECT_EQ(text(diff.top), "b reset 20\na delta 15\nc appeared 5\n");
  EXPECT_EQ(text(diff.bg), "d vanished 0\n");
  EXPECT_EQ(text(diff.cgroups),
            "1 / delta [2,5][0]\n"
            "3 - appeared [2,0][0]\n"
            "7 /gone vanished [0,0][0]\n"
            "9 /b reset [1,9][9]\n");

  // The whole system's counters restart too, after `reset total`.
  std::swap(before.total, after.total);
  const DiffResult reset = diffSnapshots(before, after);
  ASSERT_TRUE(reset.diff) << reset.error;
  EXPECT_EQ(text(reset.diff->total), "[10,20][5]");
  EXPECT_EQ(reset.diff->totalChange, RowChange::kReset);
}

TEST(SnapshotDiffTest, ComparesOnlyWhatBothHold) {
  const auto t0 = std::chrono::steady_clock::time_point{} + 1h;
  Snapshot before = snapshot(t0), after = snapshot(t0 + 1s);
  before.processes = {{{"p", 0}, {{1, 0}, {0}}}};
  before.top = {{{"p", 0}, 1}};
  before.cgroups = {{1, "/", {{1, 0}, {0}}}};

  // A table the later snapshot did not read is not a table whose rows all vanished.
  after.parts = kTotalPart | kKthreadsPart;
  DiffResult result = diffSnapshots(before, after);
  ASSERT_TRUE(result.diff) << result.error;
  EXPECT_EQ(result.diff->parts, unsigned{kTotalPart | kKthreadsPart});
  EXPECT_TRUE(result.diff->processes.empty());
  EXPECT_TRUE(result.diff->top.empty());
  EXPECT_TRUE(result.diff->cgroups.empty());

  // Time vectors of other frequency tables do not line up.
  after = snapshot(t0 + 1s);
  after.freqs = {{300000, 1000000}, {500000, 800000}};
  result = diffSnapshots(before, after);
  EXPECT_FALSE(result.diff);
  EXPECT_NE(result.error.find("frequency table changed"), std::string::npos) << result.error;

  // Swapped arguments.
  result = diffSnapshots(snapshot(t0 + 1s), snapshot(t0));
  EXPECT_FALSE(result.diff);
  EXPECT_NE(result.error.find("taken before"), std::string::npos) << result.error;
}

}  // namespace
}  // namespace zelk::cli
