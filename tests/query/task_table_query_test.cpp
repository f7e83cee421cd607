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
  uint64_t tableFlag;  // the flag that a record with flag 0 gets in the table
};

void PrintTo(const Variant& variant, std::ostream* os) { *os << variant.name; }

const Variant kProcess = {"Process", MapId::ProcessTime, getProcessCpuFreqTimes, 0};
const Variant kKthread = {"Kthread", MapId::KthreadTime, getKthreadCpuFreqTimes, 1};

class TaskTableTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
  }
  void put(MapId map, const process_key_t& key, const PerCpuValue& value) {
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(map), &key, value.data()));
  }
  // A value with `time` at slot `slot` of block `block`.
  static PerCpuValue valueAt(uint32_t block, uint32_t slot, uint64_t time) {
    PerCpuValue value = zelk::testbed::perCpuValue();
    value[block].slot[slot] = time;
    return value;
  }
  zelk::testbed::Maps maps_;
};

class BothTablesTest : public TaskTableTest, public ::testing::WithParamInterface<Variant> {};

TEST_P(BothTablesTest, EmptyMapGivesAnEngagedEmptyTable) {
  zelk::testbed::addMachinePolicy({100, 200});
  const auto table = GetParam().query();
  ASSERT_TRUE(table.has_value());
  EXPECT_TRUE(table->empty());
}

TEST_P(BothTablesTest, FoldsEveryCpuOfAPolicyIntoTheEntry) {
  if (zelk::testbed::possibleCpus() < 2) GTEST_SKIP() << "needs two possible CPUs";
  zelk::testbed::addPolicy("policy0", {100, 200}, {0, 1});
  PerCpuValue value = zelk::testbed::perCpuValue();
  value[0].slot[0] = 3;
  value[1].slot[0] = 4;
  value[1].slot[5] = 99;  // past the policy's two frequencies
  put(GetParam().map, zelk::testbed::processKey("surfaceflinger", 0), value);

  const auto table = GetParam().query();
  ASSERT_TRUE(table.has_value());
  ASSERT_EQ(table->size(), 1u);
  EXPECT_EQ(table->at({"surfaceflinger", GetParam().tableFlag}), (TimeInStateVector{{7, 0}}));
}

TEST_P(BothTablesTest, NamesEndAtTheNulAndRecordsOfOneNameMeet) {
  const auto freqTable = zelk::testbed::addPhoneTree();
  // Two records that differ only after the NUL, and a 16-byte name without NUL.
  process_key_t stale = zelk::testbed::processKey("sh", 0);
  memcpy(stale.comm + 3, "old", 3);
  put(GetParam().map, zelk::testbed::processKey("sh", 0), valueAt(0, 0, 10));
  put(GetParam().map, stale, valueAt(0, 0, 5));
  put(GetParam().map, zelk::testbed::processKey("0123456789abcdef", 0), valueAt(0, 1, 8));

  const auto table = GetParam().query();
  ASSERT_TRUE(table.has_value());
  ASSERT_EQ(table->size(), 2u);
  const TimeInStateVector& sh = table->at({"sh", GetParam().tableFlag});
  ASSERT_EQ(sh.size(), freqTable.size());
  for (size_t p = 0; p < freqTable.size(); ++p) ASSERT_EQ(sh[p].size(), freqTable[p].size());
  EXPECT_EQ(sh[0][0], 15u);
  EXPECT_EQ(table->at({"0123456789abcdef", GetParam().tableFlag})[0][1], 8u);
}

TEST_P(BothTablesTest, KeyDeletedDuringTheWalkFailsTheQuery) {
  // The same race as a lock-free single-entry clear: a key that the walk has just been given
  // disappears before its lookup. That must fail the query, not drop the key silently.
  zelk::testbed::addMachinePolicy({100});
  const int fd = maps_.fd(GetParam().map);
  constexpr int kKeys = 256;
  const PerCpuValue value = valueAt(0, 0, 1);
  for (int i = 0; i < kKeys; ++i) {
    put(GetParam().map, zelk::testbed::processKey("task" + std::to_string(i), 0), value);
  }
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    while (!stop.load()) {
      for (int i = 0; i < kKeys && !stop.load(); ++i) {
        const process_key_t key = zelk::testbed::processKey("task" + std::to_string(i), 0);
        bpf_map_delete_elem(fd, &key);
        bpf_map_update_elem(fd, &key, value.data(), BPF_ANY);
      }
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

INSTANTIATE_TEST_SUITE_P(Tables, BothTablesTest, ::testing::Values(kProcess, kKthread),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(TaskTableTest, ProcessTableKeepsFlagsApart) {
  zelk::testbed::addMachinePolicy({100, 200});
  put(MapId::ProcessTime, zelk::testbed::processKey("a", 0), valueAt(0, 0, 1));
  put(MapId::ProcessTime, zelk::testbed::processKey("a", 1), valueAt(0, 1, 2));
  const auto table = getProcessCpuFreqTimes();
  ASSERT_TRUE(table.has_value());
  ASSERT_EQ(table->size(), 2u);
  EXPECT_EQ(table->at({"a", 0}), (TimeInStateVector{{1, 0}}));
  EXPECT_EQ(table->at({"a", 1}), (TimeInStateVector{{0, 2}}));
}

TEST_F(TaskTableTest, KthreadTableMergesFlagsUnderOne) {
  zelk::testbed::addMachinePolicy({100, 200});
  put(MapId::KthreadTime, zelk::testbed::processKey("a", 0), valueAt(0, 0, 1));
  put(MapId::KthreadTime, zelk::testbed::processKey("a", 1), valueAt(0, 0, 2));
  const auto table = getKthreadCpuFreqTimes();
  ASSERT_TRUE(table.has_value());
  ASSERT_EQ(table->size(), 1u);
  EXPECT_EQ(table->at({"a", 1}), (TimeInStateVector{{3, 0}}));
}

TEST_F(TaskTableTest, TaskOnCpusOfNoPolicyGetsZeros) {
  if (zelk::testbed::possibleCpus() < 2) GTEST_SKIP() << "needs two possible CPUs";
  zelk::testbed::addPolicy("policy0", {100}, {0});
  put(MapId::ProcessTime, zelk::testbed::processKey("a", 0), valueAt(1, 0, 50));
  const auto table = getProcessCpuFreqTimes();
  ASSERT_TRUE(table.has_value());
  EXPECT_EQ(table->at({"a", 0}), (TimeInStateVector{{0}}));
}

}  // namespace
}  // namespace com::zelkora
