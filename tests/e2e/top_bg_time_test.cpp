// Foreground and background time per name, kept by the kernel object from real processes'
// oom_score_adj writes, renames, forks and exits, and read through the library.
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "e2e_bed.h"
#include "maps.h"
#include "zelkcpufreqtime_class_time.h"

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

// A rename and an oom_score_adj write of the same process, on two CPUs at once, each close the
// period that began at the process's last change: it must be counted once. The two events are
// brought together at offsets swept across a few microseconds, so that some of them overlap.
TEST_F(TopBgTimeTest, RacingRenameAndAdjWriteCountThePeriodOnce) {
  constexpr int kTrials = 120;
  constexpr milliseconds kPeriod(10);
  auto* go =
      static_cast<std::atomic<int>*>(mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                                          MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(go, MAP_FAILED);
  new (go) std::atomic<int>(-1);
  const auto pinTo = [](int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof(set), &set) == 0;
  };
  const auto offsetNs = [](int trial) { return (trial % 41 - 20) * 200; };  // -4 to +4 us
  const auto busyFor = [](int ns) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::nanoseconds(ns);
    while (std::chrono::steady_clock::now() < end) {
    }
  };

  const uint64_t forked = monotonicNs();
  Child child([&](Child& link) {
    if (!pinTo(1)) _exit(3);
    setOomScoreAdj(0);
    setName("zelkrcA");
    link.tell(0);
    for (int trial = 0; trial < kTrials; ++trial) {
      while (go->load() < trial) {
      }
      busyFor(std::max(0, -offsetNs(trial)));
      setName(trial % 2 == 0 ? "zelkrcB" : "zelkrcA");
    }
  });
  ASSERT_TRUE(child.next().has_value());
  ASSERT_TRUE(pinTo(0));
  const android::base::unique_fd adj(open(
      ("/proc/" + std::to_string(child.pid()) + "/oom_score_adj").c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_GE(adj.get(), 0);
  for (int trial = 0; trial < kTrials; ++trial) {
    sleepFor(kPeriod);
    const char* value = trial % 2 == 0 ? "900" : "0";
    go->store(trial);
    busyFor(std::max(0, offsetNs(trial)));
    ASSERT_GT(pwrite(adj.get(), value, strlen(value), 0), 0) << strerror(errno);
  }
  ASSERT_EQ(child.wait(), 0);
  munmap(go, sizeof(std::atomic<int>));
  uint64_t counted = 0;
  for (const char* name : {"zelkrcA", "zelkrcB"}) counted += top(name) + bg(name);
  // Taken after the reads: the process ends for the object only when the kernel frees it, which
  // can come after the wait, and until then the reads count its last period up to their moment.
  const uint64_t lived = monotonicNs() - forked;
  printf("lived at most %.3f ms, counted %.3f ms under its names\n", lived / 1e6, counted / 1e6);
  EXPECT_LE(counted, lived) << "a period was counted twice";
  EXPECT_GE(counted, kTrials * kPeriod.count() * kMs);
}

// A subreaper (init, systemd) forks while orphans are reparented to it, each linked behind its
// newest child: every new process must still be tracked.
TEST_F(TopBgTimeTest, ProcessesForkedWhileOrphansArriveAreTracked) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  const pid_t orphans = fork();
  ASSERT_GE(orphans, 0);
  if (orphans == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
      const pid_t parent = fork();
      if (parent == 0) {
        if (fork() == 0) _exit(0);  // reparented to the test when its parent exits
        _exit(0);
      }
      if (parent > 0) waitpid(parent, nullptr, 0);
    }
  }
  const android::base::unique_fd comms(bpf_obj_get(pinPath(MapId::PidComm).c_str()));
  constexpr int kForks = 3000;
  int untracked = 0;
  for (int i = 0; i < kForks; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      pause();
      _exit(0);
    }
    ASSERT_GT(pid, 0) << strerror(errno);
    char comm[16];
    if (bpf_map_lookup_elem(comms.get(), &pid, comm) != 0) ++untracked;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {  // the orphans
    }
  }
  kill(orphans, SIGKILL);
  waitpid(orphans, nullptr, 0);
  EXPECT_EQ(untracked, 0) << "of " << kForks;
}

// Two tasks of one name in the foreground: the parts query sums both open periods, and its
// stored part grows only when a period closes, so that it never falls between clears.
TEST_F(TopBgTimeTest, TimePartsSumEveryOpenPeriodAndKeepTheClosedOnesApart) {
  const auto partsOf = [](const std::string& name) {
    const auto table = getProcessTopTimeParts();
    EXPECT_TRUE(table.has_value());
    const auto entry = table ? table->find({name, 0}) : ClassTimePartsTable::const_iterator{};
    return table && entry != table->end() ? entry->second : ClassTimeParts{};
  };
  const auto child = [] {
    return std::make_unique<Child>([](Child& link) {
      setName("zelkpart");
      setOomScoreAdj(0);
      link.tell(0);
      link.awaitGo();
      setOomScoreAdj(900);
      link.tell(0);
      link.awaitGo();
    });
  };
  const uint64_t firstForked = monotonicNs();
  auto first = child();
  ASSERT_TRUE(first->next().has_value());
  const uint64_t firstTold = monotonicNs();
  sleepFor(milliseconds(200));
  const uint64_t secondForked = monotonicNs();
  auto second = child();
  ASSERT_TRUE(second->next().has_value());
  const uint64_t secondTold = monotonicNs();
  sleepFor(milliseconds(100));

  const uint64_t before = monotonicNs();
  const ClassTimeParts both = partsOf("zelkpart");
  const uint64_t after = monotonicNs();
  EXPECT_EQ(both.closedNs, 0u);
  EXPECT_GE(both.openNs, (before - firstTold) + (before - secondTold)) << "both tasks' periods";
  EXPECT_LE(both.openNs, (after - firstForked) + (after - secondForked));

  first->go();  // to the background: its foreground period closes
  ASSERT_TRUE(first->next().has_value());
  const uint64_t closedBy = monotonicNs();
  const ClassTimeParts one = partsOf("zelkpart");
  EXPECT_GE(one.closedNs, before - firstTold);
  EXPECT_LE(one.closedNs, closedBy - firstForked);
  EXPECT_LT(one.openNs, closedBy - secondForked + 1) << "the second task's period only";
  EXPECT_GE(partsOf("zelkpart").closedNs, one.closedNs);
  const auto background = getProcessBgTimeParts();
  ASSERT_TRUE(background.has_value());
  EXPECT_GT(background->at({"zelkpart", 0}).openNs, 0u);
  first->go();
  second->go();
  ASSERT_TRUE(second->next().has_value());
  second->go();
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
