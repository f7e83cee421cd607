// Foreground and background time per name, kept by the kernel object from real processes'
// oom_score_adj writes, renames, forks and exits, and read through the library.
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "e2e_bed.h"
#include "maps.h"

namespace zelk::testbed {
namespace {

using namespace com::zelkora;
using TopBgTimeTest = TrackingTest;

constexpr MapId kPidMaps[] = {MapId::PidAdj, MapId::PidComm, MapId::PidAdjUpdate};

uint64_t top(const std::string& name) { return timeOf(getProcessTopTimes(), name); }
uint64_t bg(const std::string& name) { return timeOf(getProcessBgTimes(), name); }

// A process's last period stays open until the kernel frees it, and the library counts it
// meanwhile: the times below hold just after the exit whether or not the free has come.
TEST_F(TopBgTimeTest, OomScoreAdjSplitsTopAndBackgroundAndTheOpenPeriodCounts) {
  const uint64_t forked = monotonicNs();
  Child child([](Child& link) {
    setName("zelkadj");
    setOomScoreAdj(0);
    link.tell(0);
    sleepFor(milliseconds(300));
    setOomScoreAdj(900);
    sleepFor(milliseconds(300));
  });
  ASSERT_TRUE(child.next().has_value());
  const uint64_t told = monotonicNs();
  sleepFor(milliseconds(100));
  const uint64_t before = monotonicNs();
  const uint64_t open = top("zelkadj");
  const uint64_t after = monotonicNs();
  // In the first sleep nothing is stored yet: this is the open period, begun between the fork
  // and the child's word.
  EXPECT_GE(open, before - told);
  EXPECT_LE(open, after - forked);

  ASSERT_EQ(child.wait(), 0);
  const uint64_t topTime = top("zelkadj");
  const uint64_t bgTime = bg("zelkadj");
  printf("zelkadj: top %.1f ms, background %.1f ms\n", topTime / 1e6, bgTime / 1e6);
  EXPECT_NEAR(topTime, 300 * kMs, 60 * kMs);
  EXPECT_NEAR(bgTime, 300 * kMs, 60 * kMs);
}

// Each process ends at its last thread's final switch. The free event alone would miss a few
// ends in a hundred: the kernel skips that program when its RCU callback interrupts a bpf() call
// or another program on its CPU.
TEST_F(TopBgTimeTest, EndedProcessesCloseTheirPeriodsAndAreForgotten) {
  constexpr int kChildren = 50;
  const uint64_t started = monotonicNs();
  // bpf() calls on both CPUs while the processes end: the moments in which the free is skipped.
  std::atomic<bool> stop{false};
  std::vector<std::thread> callers;
  for (int i = 0; i < 2; ++i) {
    callers.emplace_back([&] {
      const android::base::unique_fd fd(bpf_obj_get(pinPath(MapId::PidAdj).c_str()));
      int32_t pid = 1;
      int16_t adj;
      while (!stop) bpf_map_lookup_elem(fd.get(), &pid, &adj);
    });
  }
  std::vector<std::unique_ptr<Child>> children;
  for (int i = 0; i < kChildren; ++i) {
    children.push_back(std::make_unique<Child>([](Child&) {
      setName("zelkend");
      setOomScoreAdj(900);
      sleepFor(milliseconds(100));
    }));
  }
  std::vector<pid_t> pids;
  for (auto& child : children) {
    pids.push_back(child->pid());
    ASSERT_EQ(child->wait(), 0);
  }
  const auto tracked = [&] {
    return std::count_if(pids.begin(), pids.end(), [](pid_t pid) {
      uint64_t value[2];  // room for the largest value, a name
      return std::any_of(std::begin(kPidMaps), std::end(kPidMaps), [&](MapId id) {
        const android::base::unique_fd fd(bpf_obj_get(pinPath(id).c_str()));
        return bpf_map_lookup_elem(fd.get(), &pid, value) == 0;
      });
    });
  };
  EXPECT_TRUE(waitUntil([&] { return tracked() == 0; }, kWait)) << tracked() << " kept";
  stop = true;
  for (auto& caller : callers) caller.join();
  // Every closed period is at least 100 ms, and none is longer than the whole test.
  const uint64_t background = bg("zelkend");
  EXPECT_GE(background, kChildren * 100 * kMs);
  EXPECT_LE(background, kChildren * (monotonicNs() - started));
}

TEST_F(TopBgTimeTest, RenameMovesLaterTimeToTheNewName) {
  Child child([](Child&) {
    setOomScoreAdj(0);
    setName("zelkold");
    spin(milliseconds(50));
    sleepFor(milliseconds(250));
    setName("zelknew");
    spin(milliseconds(50));
    sleepFor(milliseconds(250));
  });
  ASSERT_EQ(child.wait(), 0);
  for (const char* name : {"zelkold", "zelknew"}) {
    EXPECT_NEAR(top(name), 300 * kMs, 60 * kMs) << name;
    EXPECT_GT(sum(getCpuFreqTimesFromProcess(name, /*flag=*/true)), 10 * kMs) << name;
  }
}

TEST_F(TopBgTimeTest, ForkedProcessTakesItsParentsClass) {
  Child child([](Child& link) {
    setName("zelkfork");
    setOomScoreAdj(900);
    if (fork() == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      pause();
      _exit(0);
    }
    setOomScoreAdj(0);  // the forked process stays alone in the background under this name
    link.tell(0);
    pause();
  });
  ASSERT_TRUE(child.next().has_value());
  // Stored totals stay put while nothing changes: only an open period grows.
  const uint64_t first = bg("zelkfork");
  sleepFor(milliseconds(20));
  EXPECT_GE(bg("zelkfork"), first + 20 * kMs) << "the forked process has no background period";
}

TEST_F(TopBgTimeTest, ClearTopAndBgTimesRestartsTheCounts) {
  Child child([](Child& link) {
    setName("zelkclr");
    setOomScoreAdj(900);
    sleepFor(milliseconds(100));
    setOomScoreAdj(0);
    link.tell(0);
    link.awaitGo();
    link.tell(static_cast<int64_t>(monotonicNs()));
    setOomScoreAdj(900);
    link.tell(static_cast<int64_t>(monotonicNs()));
  });
  ASSERT_TRUE(child.next().has_value());
  EXPECT_GT(bg("zelkclr"), 50 * kMs);  // stored
  // The open foreground period grows meanwhile, so a clear that did not restart it would show.
  sleepFor(milliseconds(100));
  const uint64_t beforeClear = monotonicNs();
  ASSERT_TRUE(clearTopAndBgTimes());
  const uint64_t afterClear = monotonicNs();
  const uint64_t open = top("zelkclr");
  EXPECT_EQ(bg("zelkclr"), 0u);
  EXPECT_LE(open, monotonicNs() - beforeClear) << "the open period counts from the clear";

  child.go();
  const auto backgroundFrom = child.next();
  const auto backgroundBy = child.next();
  ASSERT_TRUE(backgroundFrom.has_value() && backgroundBy.has_value());
  // The closed foreground period runs from the clear to the child's write of 900.
  const uint64_t closed = top("zelkclr");
  EXPECT_GE(closed, static_cast<uint64_t>(*backgroundFrom) - afterClear);
  EXPECT_LE(closed, static_cast<uint64_t>(*backgroundBy) - beforeClear);
}

}  // namespace
}  // namespace zelk::testbed
