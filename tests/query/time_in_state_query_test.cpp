// The time-in-state queries on real per-CPU maps: the single-key reads, and the process and
// kernel-thread tables (one walk, two flag rules).
#include <bpf/bpf.h>
#include <gtest/gtest.h>

#include <cstring>

#include "library_test.h"

namespace com::zelkora {
namespace {

using namespace zelk::testbed;

class QueryTest : public LibraryTest {
 protected:
  // An entry with `time` at one CPU block's slot.
  void put(MapId map, const void* key, uint64_t time, uint32_t block = 0, uint32_t slot = 1) {
    PerCpuValue value = perCpuValue();
    value[block].slot[slot] = time;
    ASSERT_TRUE(update(maps_.fd(map), key, value.data()));
  }
  void put(MapId map, const process_key_t& key, uint64_t time) { put(map, &key, time); }
};

TEST_F(QueryTest, NameAndFlagSelectTheEntryAndAnAbsentOneGivesZeros) {
  addMachinePolicy({100, 200});
  EXPECT_FALSE(getTotalCpuFreqTimes().has_value()) << "no value in an empty map";
  EXPECT_FALSE(getCpuFreqTimesFromProcess("ghost", false).has_value());
  EXPECT_FALSE(getCpuFreqTimesFromKthread("ghost").has_value());
  const uint32_t otherTotal = 1;
  put(MapId::TotalTime, &otherTotal, 1);
  put(MapId::ProcessTime, processKey("a", 0), 10);
  put(MapId::ProcessTime, processKey("a", 1), 20);
  put(MapId::ProcessTime, processKey("0123456789abcdef", 0), 7);
  put(MapId::KthreadTime, processKey("k", 0), 30);
  put(MapId::KthreadTime, processKey("k", 1), 40);
  put(MapId::KthreadTime, processKey("0123456789abcde", 1), 9);
  EXPECT_EQ(getCpuFreqTimesFromProcess("a", false), (TimeInStateVector{{0, 10}}));
  EXPECT_EQ(getCpuFreqTimesFromProcess("a", true), (TimeInStateVector{{0, 20}}));
  EXPECT_EQ(getCpuFreqTimesFromKthread("k"), (TimeInStateVector{{0, 40}}));
  // Names are cut to 16 bytes.
  EXPECT_EQ(getCpuFreqTimesFromProcess("0123456789abcdefX", false), (TimeInStateVector{{0, 7}}));
  EXPECT_EQ(getCpuFreqTimesFromKthread("0123456789abcdeX"), (TimeInStateVector{{0, 0}}));
  EXPECT_EQ(getTotalCpuFreqTimes(), (TimeInStateVector{{0, 0}}));
  EXPECT_EQ(getCpuFreqTimesFromProcess("ghost", false), (TimeInStateVector{{0, 0}}));
}

TEST_F(QueryTest, BlocksAreTakenInPolicyListOrderNotByCpuNumber) {
  if (possibleCpus() < 2) GTEST_SKIP() << "needs two possible CPUs";
  // policy0 lists CPU 1 (block 0), policy1 lists CPU 0 (block 1).
  addPolicy("policy1", {300}, {0});
  addPolicy("policy0", {100, 200}, {1});
  PerCpuValue value = perCpuValue();
  value[0].slot[0] = 7;
  value[0].slot[1] = 9;
  value[1].slot[0] = 13;
  value[1].slot[1] = 1000;  // past policy1's one frequency
  const uint32_t key = 0;
  ASSERT_TRUE(update(maps_.fd(MapId::TotalTime), &key, value.data()));
  EXPECT_EQ(getTotalCpuFreqTimes(), (TimeInStateVector{{7, 9}, {13}}));
}

struct Table {
  const char* name;
  MapId map;
  std::optional<TimeInStateTable> (*query)();
  bool merged;  // every record counts under flag 1
};
void PrintTo(const Table& table, std::ostream* out) { *out << table.name; }

class TaskTableTest : public QueryTest, public ::testing::WithParamInterface<Table> {
 protected:
  int fd() const { return maps_.fd(GetParam().map); }
};

// Slot j of task i's record with `flag` holds i * 100 + j + flag * 10.
std::vector<uint64_t> row(int i, std::initializer_list<uint64_t> flags) {
  std::vector<uint64_t> times(kFreqSlots);
  for (uint64_t flag : flags) {
    for (size_t j = 0; j < kFreqSlots; ++j) times[j] += i * 100 + j + flag * 10;
  }
  return times;
}

TEST_P(TaskTableTest, WalkOfManyBatchesKeepsOrMergesFlagsAndNamesEndAtNulOr16Bytes) {
  // Enough keys for several of the walk's batches, each name's two records wherever the kernel's
  // order puts them.
  std::vector<uint64_t> freqs(kFreqSlots);
  for (size_t j = 0; j < freqs.size(); ++j) freqs[j] = 100000 * (j + 1);
  addMachinePolicy(freqs);
  const auto empty = GetParam().query();
  EXPECT_TRUE(empty.has_value() && empty->empty());
  constexpr int kNames = 1500;
  PerCpuValue value = perCpuValue();
  for (int i = 0; i < kNames; ++i) {
    for (uint64_t flag : {0, 1}) {
      const auto times = row(i, {flag});
      std::copy(times.begin(), times.end(), value[0].slot);
      const process_key_t key = processKey("task" + std::to_string(i), flag);
      ASSERT_TRUE(update(fd(), &key, value.data()));
    }
  }
  // Two keys of one name, the second with bytes after its NUL, in another CPU's block.
  process_key_t stale = processKey("sh", 0);
  memcpy(stale.comm + 3, "old", 3);
  put(GetParam().map, &stale, 4, /*block=*/possibleCpus() - 1, /*slot=*/0);
  put(GetParam().map, processKey("sh", 0), 3);
  put(GetParam().map, processKey("0123456789abcdef", 0), 8);

  const bool merged = GetParam().merged;
  const auto table = GetParam().query();
  ASSERT_TRUE(table.has_value());
  ASSERT_EQ(table->size(), static_cast<size_t>(merged ? kNames + 2 : 2 * kNames + 2));
  std::vector<uint64_t> sh(kFreqSlots), longName(kFreqSlots);
  sh[0] = 4;
  sh[1] = 3;
  longName[1] = 8;
  EXPECT_EQ(table->at({"sh", merged}), TimeInStateVector{sh});
  EXPECT_EQ(table->at({"0123456789abcdef", merged}), TimeInStateVector{longName});
  for (int i = 0; i < kNames; ++i) {
    const std::string name = "task" + std::to_string(i);
    if (merged) {
      ASSERT_EQ(table->at({name, 1}), TimeInStateVector{row(i, {0, 1})}) << name;
    } else {
      ASSERT_EQ(table->at({name, 0}), TimeInStateVector{row(i, {0})}) << name;
      ASSERT_EQ(table->at({name, 1}), TimeInStateVector{row(i, {1})}) << name;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Tables, TaskTableTest,
    ::testing::Values(Table{"Process", MapId::ProcessTime, getProcessCpuFreqTimes, false},
                      Table{"Kthread", MapId::KthreadTime, getKthreadCpuFreqTimes, true}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace com::zelkora
