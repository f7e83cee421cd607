// The tool's snapshot without a kernel: what two snapshots say was counted in between, and how
// taking one gets past a failing walk without ever returning part of one.
#include "model/snapshot.h"

#include <gtest/gtest.h>

#include <sstream>

#include "model/snapshot_diff.h"

namespace zelk::cli {
namespace {

using com::zelkora::TimeInStateTable;
using com::zelkora::TimeTable;
using namespace std::chrono_literals;

const FreqTable kFreqs = {{300000, 1000000}, {500000}};

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

Snapshot snapshot(std::chrono::steady_clock::time_point at) {
  Snapshot s;
  s.parts = kAllParts;
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

  const DiffResult result = diffSnapshots(before, after);
  ASSERT_TRUE(result.diff) << result.error;
  const SnapshotDiff& diff = *result.diff;
  EXPECT_EQ(diff.parts, unsigned{kAllParts});
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

  // A table the later snapshot did not read is not a table whose rows all vanished.
  after.parts = kTotalPart | kKthreadsPart;
  DiffResult result = diffSnapshots(before, after);
  ASSERT_TRUE(result.diff) << result.error;
  EXPECT_EQ(result.diff->parts, unsigned{kTotalPart | kKthreadsPart});
  EXPECT_TRUE(result.diff->processes.empty());
  EXPECT_TRUE(result.diff->top.empty());

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

// Fake queries that count their calls; each walk fails its first `failures[i]` calls.
struct FakeLibrary {
  int calls[6] = {};
  int failures[6] = {};
  SnapshotQueries queries() {
    SnapshotQueries q;
    q.freqs = [this]() -> std::optional<FreqTable> { return answer(0, kFreqs); };
    q.total = [this]() -> std::optional<Times> { return answer(1, Times{{1, 2}, {3}}); };
    q.processes = [this]() -> std::optional<TimeInStateTable> {
      return answer(2, TimeInStateTable{{{"p", 0}, {{1, 0}, {0}}}});
    };
    q.kthreads = [this]() -> std::optional<TimeInStateTable> {
      return answer(3, TimeInStateTable{{{"k", 1}, {{0, 1}, {0}}}});
    };
    q.top = [this]() -> std::optional<TimeTable> { return answer(4, TimeTable{{{"p", 0}, 4}}); };
    q.bg = [this]() -> std::optional<TimeTable> { return answer(5, TimeTable{{{"p", 0}, 5}}); };
    return q;
  }
  template <typename T>
  std::optional<T> answer(int i, T value) {
    return ++calls[i] > failures[i] ? std::optional<T>(std::move(value)) : std::nullopt;
  }
};

SnapshotRequest request(unsigned parts, unsigned attempts) {
  SnapshotRequest r;
  r.parts = parts;
  r.attempts = attempts;
  r.pause = 0ms;
  return r;
}

TEST(TakeSnapshotTest, RetriesAFailingWalkAndNeverReturnsPartOfASnapshot) {
  FakeLibrary recovers;
  recovers.failures[2] = 2;  // the process walk races with deletions twice
  TakenSnapshot taken = takeSnapshot(request(kAllParts, 3), recovers.queries());
  ASSERT_TRUE(taken.snapshot) << taken.error;
  EXPECT_EQ(recovers.calls[2], 3);
  EXPECT_EQ(taken.snapshot->parts, unsigned{kAllParts});
  EXPECT_EQ(taken.snapshot->processes.size(), 1u);
  EXPECT_EQ(taken.snapshot->kthreads.size(), 1u);
  EXPECT_EQ(taken.snapshot->bg.size(), 1u);

  FakeLibrary keepsFailing;
  keepsFailing.failures[3] = 1000;
  taken = takeSnapshot(request(kAllParts, 3), keepsFailing.queries());
  EXPECT_FALSE(taken.snapshot);
  EXPECT_EQ(keepsFailing.calls[3], 3);  // bounded
  EXPECT_NE(taken.error.find("getKthreadCpuFreqTimes failed 3 times"), std::string::npos)
      << taken.error;

  // An empty total is also what a map without any entry gives: the message says both.
  FakeLibrary nothingCounted;
  nothingCounted.failures[1] = 1000;
  taken = takeSnapshot(request(kAllParts, 2), nothingCounted.queries());
  EXPECT_FALSE(taken.snapshot);
  EXPECT_EQ(nothingCounted.calls[1], 2);
  EXPECT_NE(taken.error.find("nothing has been counted"), std::string::npos) << taken.error;
}

TEST(TakeSnapshotTest, ReadsOnlyThePartsAskedFor) {
  FakeLibrary library;
  TakenSnapshot taken = takeSnapshot(request(kTotalPart, 3), library.queries());
  ASSERT_TRUE(taken.snapshot) << taken.error;
  EXPECT_EQ(taken.snapshot->freqs, kFreqs);
  EXPECT_EQ(taken.snapshot->total, (Times{{1, 2}, {3}}));
  EXPECT_EQ(taken.snapshot->parts, unsigned{kTotalPart});
  EXPECT_EQ(library.calls[0] + library.calls[1], 2);
  for (int i = 2; i < 6; ++i) EXPECT_EQ(library.calls[i], 0) << i;

  // The frequency table alone, as `show freqs` takes it.
  taken = takeSnapshot(request(0, 3), library.queries());
  ASSERT_TRUE(taken.snapshot) << taken.error;
  EXPECT_EQ(library.calls[1], 1);
}

// A process's two classes are two entries; without a class the view sums them, and leaves the
// flag out.
TEST(TakeTaskTest, BothClassesSummedOrTheOnePicked) {
  FakeLibrary library;
  SnapshotQueries queries = library.queries();
  std::vector<std::pair<std::string, bool>> asked;
  queries.process = [&](std::string name, bool flag) -> std::optional<Times> {
    asked.emplace_back(name, flag);
    return flag ? Times{{5, 0}, {1}} : Times{{0, 7}, {2}};
  };
  queries.kthread = [](std::string) -> std::optional<Times> { return Times{{9, 9}, {9}}; };

  TakenTask taken = takeTask({false, "app", ProcessClass::kBoth}, queries);
  ASSERT_TRUE(taken.task) << taken.error;
  EXPECT_EQ(taken.task->name, "app");
  EXPECT_FALSE(taken.task->flag);
  EXPECT_EQ(taken.task->times, (Times{{5, 7}, {3}}));
  EXPECT_EQ(asked.size(), 2u);

  taken = takeTask({false, "app", ProcessClass::kForeground}, queries);
  ASSERT_TRUE(taken.task) << taken.error;
  EXPECT_EQ(taken.task->flag, std::optional<uint64_t>(1));
  EXPECT_EQ(taken.task->times, (Times{{5, 0}, {1}}));
  taken = takeTask({false, "app", ProcessClass::kBackground}, queries);
  ASSERT_TRUE(taken.task) << taken.error;
  EXPECT_EQ(taken.task->flag, std::optional<uint64_t>(0));
  EXPECT_EQ(taken.task->times, (Times{{0, 7}, {2}}));
  EXPECT_EQ(asked.back(), std::make_pair(std::string("app"), false));

  taken = takeTask({true, "kworker", ProcessClass::kBoth}, queries);
  ASSERT_TRUE(taken.task) << taken.error;
  EXPECT_EQ(taken.task->flag, std::optional<uint64_t>(1));  // as the kernel-thread table has it
}

TEST(TakeTaskTest, SaysWhenNothingHasBeenCountedYet) {
  FakeLibrary library;
  SnapshotQueries queries = library.queries();
  // One class answers, the other fails: no half of a sum.
  queries.process = [](std::string, bool flag) -> std::optional<Times> {
    if (flag) return Times{{1, 0}, {0}};
    return std::nullopt;
  };
  TakenTask taken = takeTask({false, "app", ProcessClass::kBoth}, queries);
  EXPECT_FALSE(taken.task);
  EXPECT_EQ(taken.error,
            "getCpuFreqTimesFromProcess failed (run with -v for the library's messages)");

  queries.processes = []() -> std::optional<TimeInStateTable> { return TimeInStateTable{}; };
  taken = takeTask({false, "app", ProcessClass::kBoth}, queries);
  EXPECT_FALSE(taken.task);
  EXPECT_EQ(taken.error, "no process has been counted yet: is `zelkcputime start` running?");
}

}  // namespace
}  // namespace zelk::cli
