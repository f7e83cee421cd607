// Taking a snapshot without a kernel: how it gets past a failing walk without ever returning
// part of one, and the single-task query of either class or both.
#include "model/snapshot.h"

#include <gtest/gtest.h>

#include "task_tables_for_testing.h"

namespace zelk::cli {
namespace {

using com::zelkora::TimeInStateTable;
using com::zelkora::TimeTable;
using namespace std::chrono_literals;

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
