// The six resets on real maps: what each removes, what it leaves, and its failures.
#include <android/log.h>
#include <bpf/bpf.h>
#include <gtest/gtest.h>

#include "accounting/clock.h"
#include "log_capture.h"
#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;

class ResetTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
    zelk::testbed::addMachinePolicy({100});
  }
  // Per-CPU entries for the time-in-state maps, plain times for the top and background maps.
  void put(MapId map, const process_key_t& key) {
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(map), &key, value_.data()));
  }
  void put(uint32_t totalKey) {
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::TotalTime), &totalKey, value_.data()));
  }
  void put(MapId map, const std::string& name) {
    const process_info_t key = zelk::testbed::processInfo(name);
    const uint64_t time = 5;
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(map), &key, &time));
  }
  bool has(MapId map, const std::string& comm, uint64_t flag) {
    const process_key_t key = zelk::testbed::processKey(comm, flag);
    zelk::testbed::PerCpuValue value = zelk::testbed::perCpuValue();
    return bpf_map_lookup_elem(maps_.fd(map), &key, value.data()) == 0;
  }
  size_t keys(MapId map) const {
    return zelk::testbed::countKeys(maps_.fd(map), zelk::testbed::catalogue(map).keySize);
  }
  // Runs clearTopAndBgTimes; the clear time it writes must lie between clock readings around it.
  bool clearTopAndBgTimesTimed() {
    const uint64_t before = getTimeSinceBoot();
    const bool cleared = clearTopAndBgTimes();
    const uint64_t after = getTimeSinceBoot();
    const uint32_t key = 0;
    uint64_t clearTime = 0;
    EXPECT_TRUE(zelk::testbed::lookup(maps_.fd(MapId::ClearTime), &key, &clearTime));
    EXPECT_GE(clearTime, before);
    EXPECT_LE(clearTime, after);
    return cleared;
  }

  zelk::testbed::Maps maps_;
  zelk::testbed::LogCapture log_;
  const zelk::testbed::PerCpuValue value_ = zelk::testbed::perCpuValue();
};

TEST_F(ResetTest, WholeMapResetsEmptyOnlyTheirMap) {
  EXPECT_TRUE(clearProcessTimes()) << "empty map";
  for (int i = 0; i < 50; ++i) {
    put(MapId::ProcessTime, zelk::testbed::processKey(std::to_string(i), i % 2));
    put(MapId::KthreadTime, zelk::testbed::processKey(std::to_string(i), 1));
  }
  EXPECT_TRUE(clearProcessTimes());
  EXPECT_EQ(keys(MapId::ProcessTime), 0u);
  EXPECT_EQ(keys(MapId::KthreadTime), 50u);
  EXPECT_TRUE(clearKthreadTimes());
  EXPECT_EQ(keys(MapId::KthreadTime), 0u);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ResetTest, SingleEntryResetRemovesOnlyItsNameAndFlag) {
  for (uint64_t flag : {0, 1}) {
    put(MapId::ProcessTime, zelk::testbed::processKey("a", flag));
    put(MapId::KthreadTime, zelk::testbed::processKey("k", flag));
  }
  put(MapId::ProcessTime, zelk::testbed::processKey("0123456789abcdef", 0));

  EXPECT_TRUE(clearTimesFromProcess("a", false));
  EXPECT_FALSE(has(MapId::ProcessTime, "a", 0));
  EXPECT_TRUE(has(MapId::ProcessTime, "a", 1));
  EXPECT_TRUE(clearTimesFromProcess("0123456789abcdefXYZ", false)) << "cut to 16 bytes";
  EXPECT_FALSE(has(MapId::ProcessTime, "0123456789abcdef", 0));
  EXPECT_TRUE(clearTimesFromKthread("k"));
  EXPECT_TRUE(has(MapId::KthreadTime, "k", 0));
  EXPECT_FALSE(has(MapId::KthreadTime, "k", 1));
  EXPECT_TRUE(clearTimesFromProcess("absent", true)) << "nothing to clear is a success";
  EXPECT_EQ(keys(MapId::ProcessTime), 1u);
}

TEST_F(ResetTest, SingleEntryResetNeverCreatesTheEntry) {
  // In a full map, creating the absent entry would fail with E2BIG; zeroing with BPF_EXIST does
  // not try.
  const uint32_t capacity = zelk::testbed::catalogue(MapId::ProcessTime).maxEntries;
  for (uint32_t i = 0; i < capacity; ++i) {
    put(MapId::ProcessTime, zelk::testbed::processKey(std::to_string(i), 0));
  }
  EXPECT_TRUE(clearTimesFromProcess("absent", false));
  EXPECT_EQ(keys(MapId::ProcessTime), capacity);
}

TEST_F(ResetTest, RefusedZeroingKeepsTheEntry) {
  put(MapId::ProcessTime, zelk::testbed::processKey("a", 0));
  put(0);
  ASSERT_EQ(maps_.freeze(MapId::ProcessTime), "");
  ASSERT_EQ(maps_.freeze(MapId::TotalTime), "");
  EXPECT_FALSE(clearTimesFromProcess("a", false));
  EXPECT_TRUE(has(MapId::ProcessTime, "a", 0));
  EXPECT_FALSE(clearTotalCpuTime());
  EXPECT_EQ(keys(MapId::TotalTime), 1u);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ResetTest, ClearTotalCpuTimeRemovesOnlyTheFirstKey) {
  EXPECT_TRUE(clearTotalCpuTime()) << "empty map";
  put(0);
  put(1);
  uint32_t first = 0;
  ASSERT_EQ(bpf_map_get_next_key(maps_.fd(MapId::TotalTime), nullptr, &first), 0);
  EXPECT_TRUE(clearTotalCpuTime());
  uint32_t left = 0;
  ASSERT_EQ(bpf_map_get_next_key(maps_.fd(MapId::TotalTime), nullptr, &left), 0);
  EXPECT_EQ(left, 1 - first);
  EXPECT_EQ(keys(MapId::TotalTime), 1u);
}

TEST_F(ResetTest, ClearTopAndBgTimesRecordsTheClearTimeAndEmptiesBothMaps) {
  put(MapId::TopTime, "camera");
  put(MapId::BgTime, "camera");
  EXPECT_TRUE(clearTopAndBgTimesTimed());
  EXPECT_EQ(keys(MapId::TopTime), 0u);
  EXPECT_EQ(keys(MapId::BgTime), 0u);
}

TEST_F(ResetTest, FailedTopClearKeepsTheClearTimeAndTheBackgroundMap) {
  put(MapId::TopTime, "camera");
  put(MapId::BgTime, "camera");
  put(MapId::BgTime, "music");
  ASSERT_EQ(maps_.freeze(MapId::TopTime), "");
  EXPECT_FALSE(clearTopAndBgTimesTimed());
  EXPECT_EQ(keys(MapId::TopTime), 1u);
  EXPECT_EQ(keys(MapId::BgTime), 2u);
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(zelk::testbed::withoutLine(lines[0].text),
            "[clearMap:N] Error clearing map topMap, err: Operation not permitted.");
}

TEST_F(ResetTest, WithoutTheMapsEveryResetFailsWithOnlyTheOpenError) {
  maps_.unpin(MapId::PidComm);
  EXPECT_FALSE(clearProcessTimes());
  EXPECT_FALSE(clearKthreadTimes());
  EXPECT_FALSE(clearTimesFromProcess("a", false));
  EXPECT_FALSE(clearTimesFromKthread("a"));
  EXPECT_FALSE(clearTotalCpuTime());
  EXPECT_FALSE(clearTopAndBgTimes());
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 6u);
  for (const auto& line : lines) {
    EXPECT_EQ(zelk::testbed::withoutLine(line.text),
              "[initGlobals:N] Failed to open bpf map "
              "/sys/fs/bpf/map_zelkCputimeInState_pid_to_comm_map: No such file or directory");
  }
}

}  // namespace
}  // namespace com::zelkora
