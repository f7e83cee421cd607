// Full maps: more distinct names, or processes, than the object's maps hold (sizes lowered at
// load so that this stays fast), and nothing of the time is lost.
#include <sys/resource.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "e2e_bed.h"
#include "zelkcpufreqtime_overflow.h"

namespace zelk::testbed {
namespace {

using namespace com::zelkora;

constexpr uint32_t kNames = 64;
constexpr uint32_t kPids = 64;
constexpr int kChildren = 300;

// Small name maps; pid maps of the default size, which hold every process here.
class OverflowTest : public TrackingTest {
 protected:
  void adjustLoad(loader::LoadOptions& options) const override { options.sizes.names = kNames; }
};

// Small pid maps, full from the start: the seeding alone finds more processes than they hold.
class PidOverflowTest : public TrackingTest {
 protected:
  void adjustLoad(loader::LoadOptions& options) const override { options.sizes.pids = kPids; }
};

std::string childName(int i) { return "zelkof" + std::to_string(i); }

// Children one after the other, each under a name of its own, spinning then sleeping, in the
// foreground class.
void runNamedChildren(int count, milliseconds spinFor, milliseconds sleepFor) {
  for (int i = 0; i < count; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      setName(childName(i).c_str());
      spin(spinFor);
      std::this_thread::sleep_for(sleepFor);
      _exit(0);
    }
    if (pid < 0) {
      ADD_FAILURE() << "fork: " << strerror(errno);
      return;
    }
    waitpid(pid, nullptr, 0);
  }
}

// CPU time of the children reaped so far.
uint64_t childrenCpuNs() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  const auto ns = [](const timeval& tv) {
    return static_cast<uint64_t>(tv.tv_sec) * 1000000000u +
           static_cast<uint64_t>(tv.tv_usec) * 1000u;
  };
  return ns(usage.ru_utime) + ns(usage.ru_stime);
}

uint64_t tableTime(const std::optional<TimeInStateTable>& table, bool overflowOnly) {
  uint64_t total = 0;
  for (const auto& [key, times] : table.value_or(TimeInStateTable{})) {
    if (!overflowOnly || isOverflowEntry(key)) total += sum(times);
  }
  return total;
}

uint64_t namedTime(const std::optional<TimeTable>& table, bool overflowOnly) {
  uint64_t total = 0;
  for (const auto& [key, ns] : table.value_or(TimeTable{})) {
    if (isOverflowEntry(key) || (!overflowOnly && key.comm.rfind("zelkof", 0) == 0)) total += ns;
  }
  return total;
}

// Every process here is in the foreground class, as on most servers, so the map fills with that
// class's names before a background process comes: its time must still have a place.
TEST_F(OverflowTest, ProcessesAndKernelThreadsStillAddUpToTheTotal) {
  setOomScoreAdj(0);
  ASSERT_TRUE(clearTotalCpuTime() && clearProcessTimes() && clearKthreadTimes());
  runNamedChildren(kChildren, milliseconds(2), milliseconds(0));
  const uint64_t childrenRan = childrenCpuNs();
  Child background([](Child&) {
    setOomScoreAdj(900);
    setName("zelkofbg");
    spin(milliseconds(300));
  });
  ASSERT_EQ(background.wait(), 0);
  const uint64_t backgroundRan = childrenCpuNs() - childrenRan;

  // The total last: events in flight then add to it, never only to the tables.
  const auto processes = getProcessCpuFreqTimes();
  const auto kthreads = getKthreadCpuFreqTimes();
  const uint64_t total = sum(getTotalCpuFreqTimes());
  ASSERT_TRUE(processes && kthreads);
  EXPECT_LE(processes->size(), kNames) << "the map holds no more than its size";
  const uint64_t counted = tableTime(processes, false) + tableTime(kthreads, false);
  printf("total %.1f ms, processes + kernel threads %.1f ms (%.2f%%), overflow %.1f ms\n",
         total / 1e6, counted / 1e6, 100.0 * counted / total, tableTime(processes, true) / 1e6);
  EXPECT_GE(counted, 0.995 * total);
  EXPECT_LE(counted, total);
  EXPECT_GE(tableTime(processes, true), kChildren / 2 * 2 * kMs) << "most children overflowed";
  const auto backgroundOverflow = processes->find({kOverflowTaskName, 0});
  ASSERT_NE(backgroundOverflow, processes->end());
  // Its runtime, less what it ran before its name and class were set.
  EXPECT_GE(sum(backgroundOverflow->second), backgroundRan - 5 * kMs);

  const auto counts = getOverflowCounts();
  ASSERT_TRUE(counts.has_value());
  EXPECT_GT(counts->overflowedUpdates, 0u);
  EXPECT_EQ(counts->lostUpdates, 0u);

  // The clear deletes the overflow entry with the rest; it comes back at zero.
  ASSERT_TRUE(clearProcessTimes());
  EXPECT_LT(tableTime(getProcessCpuFreqTimes(), true), 2 * kMs);
}

TEST_F(OverflowTest, TopTimeOfNamesBeyondTheMapGoesToItsOverflowEntry) {
  setOomScoreAdj(0);
  ASSERT_TRUE(clearTopAndBgTimes());
  // Few at a time, so that the pid maps hold every child: only the name maps overflow here.
  runNamedChildren(kChildren, milliseconds(0), milliseconds(4));
  // Each child's period runs from its fork to its end, so at least its 4 ms of sleep; the parent's
  // fork-to-reap time is no bound under load, since reaping can lag far behind.
  const uint64_t lived = kChildren * 4 * kMs;

  const auto top = getProcessTopTimes();
  ASSERT_TRUE(top.has_value());
  const uint64_t counted = namedTime(top, false);
  printf("children lived at least %.1f ms, their names and the overflow hold %.1f ms\n",
         lived / 1e6, counted / 1e6);
  EXPECT_GE(counted, lived);
  EXPECT_GT(namedTime(top, true), lived / 2) << "most children's periods overflowed";

  ASSERT_TRUE(clearTopAndBgTimes());
  EXPECT_LT(namedTime(getProcessTopTimes(), true), namedTime(top, true));
}

TEST_F(PidOverflowTest, ProcessesBeyondThePidMapsAreCountedOnceAndCreditNoOtherName) {
  setOomScoreAdj(0);
  ASSERT_TRUE(clearTopAndBgTimes());
  const uint64_t untrackedBefore =
      getOverflowCounts().value_or(OverflowCounts{}).untrackedProcesses;
  // Twice as many living children as the pid maps hold.
  std::vector<pid_t> pids;
  for (int i = 0; i < static_cast<int>(2 * kPids); ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      setName(childName(i).c_str());
      pause();
      _exit(0);
    }
    ASSERT_GT(pid, 0) << strerror(errno);
    pids.push_back(pid);
  }
  std::this_thread::sleep_for(milliseconds(20));
  const auto start = std::chrono::steady_clock::now();
  for (pid_t pid : pids) kill(pid, SIGKILL);
  for (pid_t pid : pids) waitpid(pid, nullptr, 0);
  const uint64_t bound = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start)
          .count());

  const auto counts = getOverflowCounts();
  ASSERT_TRUE(counts.has_value());
  EXPECT_GE(counts->untrackedProcesses - untrackedBefore, kPids)
      << "at least the half that did not fit";
  // No name holds more than its own child could have lived since the clear, so no child's
  // period went to another child's name.
  const auto top = getProcessTopTimes();
  ASSERT_TRUE(top.has_value());
  size_t childNames = 0;
  for (const auto& [key, ns] : *top) {
    if (key.comm.rfind("zelkof", 0) != 0) continue;
    ++childNames;
    EXPECT_LT(ns, 20 * kMs + bound + 50 * kMs) << key.comm;
  }
  EXPECT_LE(childNames, kPids);

  // An untracked process is counted when it is new, not again at each oom_score_adj write or
  // rename that tries to pick it up while the maps are still full.
  const uint64_t beforeRetries = getOverflowCounts().value_or(OverflowCounts{}).untrackedProcesses;
  Child retrying([](Child&) {
    for (int i = 0; i < 100; ++i) {
      setOomScoreAdj(i % 2 == 0 ? 100 : 0);
      setName(i % 2 == 0 ? "zelkofrb" : "zelkofra");
    }
  });
  ASSERT_EQ(retrying.wait(), 0);
  const uint64_t retried =
      getOverflowCounts().value_or(OverflowCounts{}).untrackedProcesses - beforeRetries;
  // The process itself, and whatever else the machine started meanwhile.
  EXPECT_GE(retried, 1u);
  EXPECT_LT(retried, 20u) << "counted per attempt";
}

}  // namespace
}  // namespace zelk::testbed
