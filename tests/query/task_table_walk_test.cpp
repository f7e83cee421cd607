// The whole-map walks while their keys disappear under them: key by key, a vanished key fails the
// query; in batches, whole buckets are copied under their locks and a vanished key is just absent.
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "core/state.h"
#include "library_test.h"
#include "query/batch_walk.h"
#include "zelkcpufreqtime_cgroups.h"

namespace com::zelkora {
namespace {

using namespace zelk::testbed;

struct Table {
  const char* name;
  MapId map;
  std::optional<TimeInStateTable> (*query)();
  uint64_t flag;  // of the keys that the single-entry clear removes
  bool (*clear)(const std::string& name);
};
void PrintTo(const Table& table, std::ostream* out) { *out << table.name; }

bool pinToCpu(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  return pthread_setaffinity_np(pthread_self(), sizeof(set), &set) == 0;
}

// The delete must land between two system calls of the walk, so the walk and the churn run at
// the same time on CPUs of their own; a CPU shared between them gives the churn only whole time
// slices, in which the walk just does not see the key.
class TaskWalkTest : public LibraryTest, public ::testing::WithParamInterface<Table> {
 protected:
  static constexpr int kKeys = 256;
  void SetUp() override {
    LibraryTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    if (sysconf(_SC_NPROCESSORS_ONLN) < 2) GTEST_SKIP() << "needs two online CPUs";
    ASSERT_TRUE(pinToCpu(0));
    addMachinePolicy({100, 200});
    ASSERT_TRUE(ensureGlobals());
    for (int i = 0; i < kKeys; ++i) {
      names_.push_back("n" + std::to_string(i));
      keys_.push_back(processKey(names_.back(), GetParam().flag));
      values_.push_back(perCpuValue());
      values_.back()[0].slot[1] = 1000 + i;
      ASSERT_TRUE(update(fd(), &keys_.back(), values_.back().data()));
    }
  }
  void TearDown() override {
    setPerElementWalks(false);
    LibraryTest::TearDown();
  }
  int fd() const { return maps_.fd(GetParam().map); }

  std::vector<std::string> names_;
  std::vector<process_key_t> keys_;
  std::vector<PerCpuValue> values_;
};

TEST_P(TaskWalkTest, KeyDeletedDuringThePerElementWalkFailsTheQuery) {
  // A key that the walk was just given disappears before its lookup, as a lock-free single-entry
  // clear can make it: the query must fail, not drop the key.
  setPerElementWalks(true);
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    if (!pinToCpu(1)) return;
    for (int i = 0; !stop.load(); i = (i + 1) % kKeys) {
      bpf_map_delete_elem(fd(), &keys_[i]);
      bpf_map_update_elem(fd(), &keys_[i], values_[i].data(), BPF_ANY);
    }
  });
  const bool failed =
      waitUntil([&] { return !GetParam().query().has_value(); }, std::chrono::seconds(20));
  stop = true;
  churn.join();
  EXPECT_TRUE(failed) << "no walk failed while keys kept disappearing under it";
  // At rest both paths read the same table.
  const auto byElements = GetParam().query();
  setPerElementWalks(false);
  const auto byBatches = GetParam().query();
  ASSERT_TRUE(byElements.has_value() && byBatches.has_value());
  ASSERT_EQ(byElements->size(), static_cast<size_t>(kKeys));
  ASSERT_EQ(byBatches->size(), byElements->size());
  for (const auto& [key, times] : *byElements) EXPECT_EQ(byBatches->at(key), times) << key.comm;
}

TEST_P(TaskWalkTest, BatchWalkSucceedsWithWrittenValuesWhileAnotherProcessDeletesAndClears) {
  // Another process deletes names and re-adds them, and clears others through the library,
  // which zeroes an entry before deleting it: each query succeeds, every entry holds a value
  // written for it, and the name never deleted is always there.
  const process_key_t keptKey = processKey("kept", GetParam().flag);
  PerCpuValue kept = perCpuValue();
  kept[0].slot[0] = 7;
  ASSERT_TRUE(update(fd(), &keptKey, kept.data()));
  Child churn([&](Child& self) {
    if (!pinToCpu(1)) return;
    self.tell(1);
    for (int i = 0;; i = (i + 1) % kKeys) {
      if (i % 2 == 0) {
        bpf_map_delete_elem(fd(), &keys_[i]);
      } else {
        GetParam().clear(names_[i]);
      }
      bpf_map_update_elem(fd(), &keys_[i], values_[i].data(), BPF_ANY);
    }
  });
  ASSERT_EQ(churn.next(), 1);

  int queries = 0;
  bool sawGap = false;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (queries < 200 || (!sawGap && std::chrono::steady_clock::now() < end)) {
    const auto table = GetParam().query();
    ++queries;
    ASSERT_TRUE(table.has_value()) << "query " << queries << " failed";
    ASSERT_EQ(table->at({"kept", GetParam().flag}), (TimeInStateVector{{7, 0}}));
    sawGap |= table->size() < kKeys + 1;
    for (const auto& [key, times] : *table) {
      if (key.comm == "kept") continue;
      ASSERT_EQ(key.comm[0], 'n') << key.comm;
      const uint64_t written = 1000 + std::stoul(key.comm.substr(1));
      sawGap |= times[0][1] == 0;
      ASSERT_TRUE((times == TimeInStateVector{{0, written}} || times == TimeInStateVector{{0, 0}}))
          << key.comm << " holds " << times[0][0] << ", " << times[0][1];
    }
  }
  EXPECT_TRUE(sawGap) << "no query met a deleted or cleared name in " << queries;
}

// The top map's stored totals and the live tasks of the pid maps, whose names another process
// deletes and re-adds (a live task as a process that ends and another that starts): the key-by-key
// walk comes to fail, the batch walk always succeeds with the totals written and the tasks kept.
using TopTimesWalkTest = LibraryTest;
TEST_F(TopTimesWalkTest, ByElementsFailsAndInBatchesHoldsTheWrittenTotalsUnderChurn) {
  if (sysconf(_SC_NPROCESSORS_ONLN) < 2) GTEST_SKIP() << "needs two online CPUs";
  ASSERT_TRUE(pinToCpu(0));
  addMachinePolicy({100});
  ASSERT_TRUE(ensureGlobals());
  const int fd = maps_.fd(MapId::TopTime);
  const int adjFd = maps_.fd(MapId::PidAdj), commFd = maps_.fd(MapId::PidComm);
  constexpr int kNames = 256;
  constexpr int16_t kTopAdj = 0;
  std::vector<process_info_t> names, liveNames;
  for (int i = 0; i < kNames; ++i) {
    names.push_back(processInfo("n" + std::to_string(i)));
    const uint64_t total = 1000 + i;
    ASSERT_TRUE(update(fd, &names.back(), &total));
    liveNames.push_back(processInfo("p" + std::to_string(i)));
    const uint32_t pid = 1000 + i;
    ASSERT_TRUE(update(commFd, &pid, &liveNames.back()) && update(adjFd, &pid, &kTopAdj));
  }
  const process_info_t kept = processInfo("kept"), keptLive = processInfo("keptlive");
  const uint64_t keptTotal = 7;
  const uint32_t keptPid = 7, zero = 0;
  ASSERT_TRUE(update(fd, &kept, &keptTotal));
  ASSERT_TRUE(update(commFd, &keptPid, &keptLive) && update(adjFd, &keptPid, &kTopAdj));
  const uint64_t clearTime = 1;
  ASSERT_TRUE(update(maps_.fd(MapId::ClearTime), &zero, &clearTime));
  Child churn([&](Child& self) {
    if (!pinToCpu(1)) return;
    self.tell(1);
    for (int i = 0;; i = (i + 1) % kNames) {
      const uint64_t total = 1000 + i;
      const uint32_t pid = 1000 + i;
      bpf_map_delete_elem(fd, &names[i]);
      bpf_map_update_elem(fd, &names[i], &total, BPF_ANY);
      bpf_map_delete_elem(commFd, &pid);
      bpf_map_delete_elem(adjFd, &pid);
      bpf_map_update_elem(adjFd, &pid, &kTopAdj, BPF_ANY);
      bpf_map_update_elem(commFd, &pid, &liveNames[i], BPF_ANY);
    }
  });
  ASSERT_EQ(churn.next(), 1);

  setPerElementWalks(true);
  EXPECT_TRUE(waitUntil([] { return !getProcessTopTimes().has_value(); }, std::chrono::seconds(20)))
      << "no key-by-key walk failed while names kept disappearing under it";
  setPerElementWalks(false);
  bool sawGap = false, sawLiveGap = false;
  for (int query = 0; query < 200 || (!sawLiveGap && query < 20000); ++query) {
    const auto table = getProcessTopTimes();
    ASSERT_TRUE(table.has_value()) << "query " << query << " failed";
    ASSERT_EQ(table->at({"kept", 0}), keptTotal);
    ASSERT_GT(table->at({"keptlive", 0}), 0u);
    size_t stored = 0, live = 0;
    for (const auto& [key, total] : *table) {
      if (key.comm[0] == 'n') {
        ++stored;
        ASSERT_EQ(total, 1000 + std::stoul(key.comm.substr(1))) << key.comm;
      } else if (key.comm[0] == 'p') {
        ++live;
        ASSERT_GT(total, 0u) << key.comm;
      }
    }
    sawGap |= stored < kNames;
    sawLiveGap |= live < kNames;
  }
  EXPECT_TRUE(sawGap) << "no batch walk met a deleted name";
  EXPECT_TRUE(sawLiveGap) << "no batch walk met an ended task";
}

// The cgroup table over several batch calls reads as it does key by key, value for value.
using CgroupWalkTest = LibraryTest;
TEST_F(CgroupWalkTest, InBatchesAsKeyByKey) {
  addMachinePolicy({100, 200});
  ASSERT_TRUE(ensureGlobals());
  const int fd = maps_.fd(MapId::CgroupTime);
  constexpr uint64_t kCgroups = 600;
  for (uint64_t id = 1; id <= kCgroups; ++id) {
    PerCpuValue value = perCpuValue();
    value.front().slot[0] = id;
    value.back().slot[1] = 2 * id;
    ASSERT_TRUE(update(fd, &id, value.data()));
  }
  const auto byBatches = getCgroupCpuFreqTimes();
  setPerElementWalks(true);
  const auto byElements = getCgroupCpuFreqTimes();
  setPerElementWalks(false);
  ASSERT_TRUE(byBatches.has_value() && byElements.has_value());
  ASSERT_EQ(byBatches->size(), kCgroups);
  EXPECT_EQ(*byBatches, *byElements);
  for (const auto& [id, times] : *byBatches) {
    ASSERT_EQ(times, (TimeInStateVector{{id, 2 * id}})) << id;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Tables, TaskWalkTest,
    ::testing::Values(Table{"Process", MapId::ProcessTime, getProcessCpuFreqTimes, 0,
                            [](const std::string& name) {
                              return clearTimesFromProcess(name, false);
                            }},
                      Table{"Kthread", MapId::KthreadTime, getKthreadCpuFreqTimes, 1,
                            [](const std::string& name) { return clearTimesFromKthread(name); }}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace com::zelkora
