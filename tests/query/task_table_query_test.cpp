// getProcessCpuFreqTimes and getKthreadCpuFreqTimes on real per-CPU maps.
#include <bpf/bpf.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;
using zelk::testbed::PerCpuValue;

struct Variant {
  const char* name;
  MapId map;
  std::optional<TimeInStateTable> (*query)();
  uint64_t flagOfZero;  // the table flag of a record whose flag is 0
};
void PrintTo(const Variant& variant, std::ostream* os) { *os << variant.name; }

class TaskTableTest : public zelk::testbed::KernelTest,
                      public ::testing::WithParamInterface<Variant> {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
  }
  void put(const process_key_t& key, uint32_t block, uint32_t slot, uint64_t time,
           MapId map = GetParam().map) {
    PerCpuValue value = zelk::testbed::perCpuValue();
    value[block].slot[slot] = time;
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(map), &key, value.data()));
  }
  zelk::testbed::Maps maps_;
};

TEST_P(TaskTableTest, EmptyMapGivesAnEngagedEmptyTable) {
  zelk::testbed::addMachinePolicy({100});
  const auto table = GetParam().query();
  ASSERT_TRUE(table.has_value());
  EXPECT_TRUE(table->empty());
}

TEST_P(TaskTableTest, RecordsOfOneNameMeetInOneEntry) {
  if (zelk::testbed::possibleCpus() < 2) GTEST_SKIP() << "needs two possible CPUs";
  zelk::testbed::addPolicy("policy0", {100, 200}, {0, 1});
  // Bytes after the NUL are not part of the name; a 16-byte name has no NUL at all.
  process_key_t stale = zelk::testbed::processKey("sh", 0);
  memcpy(stale.comm + 3, "old", 3);
  put(zelk::testbed::processKey("sh", 0), /*block=*/0, /*slot=*/0, 3);
  put(stale, /*block=*/1, /*slot=*/0, 4);
  put(zelk::testbed::processKey("0123456789abcdef", 0), 0, 1, 8);

  const auto table = GetParam().query();
  ASSERT_TRUE(table.has_value());
  ASSERT_EQ(table->size(), 2u);
  EXPECT_EQ(table->at({"sh", GetParam().flagOfZero}), (TimeInStateVector{{7, 0}}));
  EXPECT_EQ(table->at({"0123456789abcdef", GetParam().flagOfZero}), (TimeInStateVector{{0, 8}}));
}

TEST_P(TaskTableTest, KeyDeletedDuringTheWalkFailsTheQuery) {
  // As a lock-free single-entry clear can do: a key that the walk has just been given
  // disappears before its lookup. That must fail the query, not drop the key silently.
  zelk::testbed::addMachinePolicy({100});
  const int fd = maps_.fd(GetParam().map);
  constexpr int kKeys = 256;
  const PerCpuValue value = zelk::testbed::perCpuValue();
  for (int i = 0; i < kKeys; ++i) put(zelk::testbed::processKey(std::to_string(i), 0), 0, 0, 1);
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    for (int i = 0; !stop.load(); i = (i + 1) % kKeys) {
      const process_key_t key = zelk::testbed::processKey(std::to_string(i), 0);
      bpf_map_delete_elem(fd, &key);
      bpf_map_update_elem(fd, &key, value.data(), BPF_ANY);
    }
  });
  bool failed = false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!failed && std::chrono::steady_clock::now() < deadline) {
    failed = !GetParam().query().has_value();
  }
  stop = true;
  churn.join();
  EXPECT_TRUE(failed) << "no walk failed while keys kept disappearing under it";
}

INSTANTIATE_TEST_SUITE_P(
    Tables, TaskTableTest,
    ::testing::Values(Variant{"Process", MapId::ProcessTime, getProcessCpuFreqTimes, 0},
                      Variant{"Kthread", MapId::KthreadTime, getKthreadCpuFreqTimes, 1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_P(TaskTableTest, ManyKeysMeetTheirEntriesWhateverTheOrderOfTheWalk) {
  // Enough keys for several batches of the walk, with each name's two records (flags 0 and 1)
  // wherever the kernel's order puts them; a second walk of a smaller map starts from the first
  // walk's size. Every sum must come out exact.
  std::vector<uint64_t> freqs(32);
  for (size_t j = 0; j < freqs.size(); ++j) freqs[j] = 100000 * (j + 1);
  zelk::testbed::addMachinePolicy(freqs);
  const int fd = maps_.fd(GetParam().map);
  constexpr int kNames = 1500;
  PerCpuValue value = zelk::testbed::perCpuValue();
  for (int i = 0; i < kNames; ++i) {
    for (uint64_t flag : {0, 1}) {
      for (size_t j = 0; j < kFreqSlots; ++j) value[0].slot[j] = i * 100 + j + flag * 10;
      const process_key_t key = zelk::testbed::processKey("task" + std::to_string(i), flag);
      ASSERT_TRUE(zelk::testbed::update(fd, &key, value.data()));
    }
  }
  const auto check = [&](int names) {
    const auto table = GetParam().query();
    ASSERT_TRUE(table.has_value());
    const bool merged = GetParam().flagOfZero == 1;
    ASSERT_EQ(table->size(), static_cast<size_t>(merged ? names : 2 * names));
    for (int i = 0; i < names; ++i) {
      const std::string name = "task" + std::to_string(i);
      std::vector<uint64_t> flag0(32), flag1(32);
      for (size_t j = 0; j < kFreqSlots; ++j) {
        flag0[j] = i * 100 + j;
        flag1[j] = i * 100 + j + 10;
      }
      if (merged) {
        for (size_t j = 0; j < kFreqSlots; ++j) flag1[j] += flag0[j];
      } else {
        ASSERT_EQ(table->at({name, 0}), TimeInStateVector{flag0}) << name;
      }
      ASSERT_EQ(table->at({name, 1}), TimeInStateVector{flag1}) << name;
    }
  };
  check(kNames);
  for (int i = kNames / 3; i < kNames; ++i) {
    for (uint64_t flag : {0, 1}) {
      const process_key_t key = zelk::testbed::processKey("task" + std::to_string(i), flag);
      ASSERT_EQ(bpf_map_delete_elem(fd, &key), 0);
    }
  }
  check(kNames / 3);
}

using FlagTest = TaskTableTest;

TEST_F(FlagTest, ProcessTableKeepsFlagsApartAndKthreadTableMergesThemUnderOne) {
  zelk::testbed::addMachinePolicy({100});
  for (MapId map : {MapId::ProcessTime, MapId::KthreadTime}) {
    put(zelk::testbed::processKey("a", 0), 0, 0, 1, map);
    put(zelk::testbed::processKey("a", 1), 0, 0, 2, map);
  }
  const auto processes = getProcessCpuFreqTimes();
  ASSERT_TRUE(processes.has_value());
  ASSERT_EQ(processes->size(), 2u);
  EXPECT_EQ(processes->at({"a", 0}), (TimeInStateVector{{1}}));
  EXPECT_EQ(processes->at({"a", 1}), (TimeInStateVector{{2}}));
  const auto kthreads = getKthreadCpuFreqTimes();
  ASSERT_TRUE(kthreads.has_value());
  ASSERT_EQ(kthreads->size(), 1u);
  EXPECT_EQ(kthreads->at({"a", 1}), (TimeInStateVector{{3}}));
}

}  // namespace
}  // namespace com::zelkora
