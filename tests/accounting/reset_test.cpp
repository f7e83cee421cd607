// The six resets, and clearMap beneath them, on real maps: what each removes, what it leaves,
// how it fails.
#include <android/log.h>
#include <bpf/bpf.h>
#include <gtest/gtest.h>

#include "accounting/clear_map.h"
#include "accounting/clock.h"
#include "log_capture.h"
#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;
using zelk::testbed::processKey;

class ResetTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
    zelk::testbed::addMachinePolicy({100});
  }
  void TearDown() override { gClearMapClock = getTimeSinceBoot; }
  // A per-CPU entry of a time-in-state map, or a plain time of the top or background map.
  void put(MapId map, const void* key) {
    const uint64_t time = 5;
    const bool perCpu = map != MapId::TopTime && map != MapId::BgTime;
    const void* value = perCpu ? static_cast<const void*>(value_.data()) : &time;
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(map), key, value));
  }
  void put(MapId map, const process_key_t& key) { put(map, &key); }
  void putName(MapId map, const std::string& name) {
    const process_info_t key = zelk::testbed::processInfo(name);
    put(map, &key);
  }
  bool has(MapId map, const std::string& comm, uint64_t flag) {
    const process_key_t key = processKey(comm, flag);
    zelk::testbed::PerCpuValue value = zelk::testbed::perCpuValue();
    return bpf_map_lookup_elem(maps_.fd(map), &key, value.data()) == 0;
  }
  size_t keys(MapId map) const {
    return zelk::testbed::countKeys(maps_.fd(map), zelk::testbed::catalogue(map).keySize);
  }
  // clearTopAndBgTimes, whose clear time must lie between clock readings taken around it.
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

TEST_F(ResetTest, WholeMapResetsEmptyOnlyTheirMapSilently) {
  EXPECT_TRUE(clearProcessTimes()) << "empty map";
  for (int i = 0; i < 300; ++i) {
    put(MapId::ProcessTime, processKey(std::to_string(i), i % 2));
    put(MapId::KthreadTime, processKey(std::to_string(i), 1));
  }
  EXPECT_TRUE(clearProcessTimes());
  EXPECT_EQ(keys(MapId::ProcessTime), 0u);
  EXPECT_EQ(keys(MapId::KthreadTime), 300u);
  EXPECT_TRUE(clearKthreadTimes());
  EXPECT_EQ(keys(MapId::KthreadTime), 0u);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ResetTest, SingleEntryResetRemovesOnlyItsNameAndFlag) {
  for (uint64_t flag : {0, 1}) {
    put(MapId::ProcessTime, processKey("a", flag));
    put(MapId::KthreadTime, processKey("k", flag));
  }
  put(MapId::ProcessTime, processKey("0123456789abcdef", 0));

  EXPECT_TRUE(clearTimesFromProcess("a", false));
  EXPECT_FALSE(has(MapId::ProcessTime, "a", 0));
  EXPECT_TRUE(has(MapId::ProcessTime, "a", 1));
  EXPECT_TRUE(clearTimesFromProcess("0123456789abcdefX", false));
  EXPECT_FALSE(has(MapId::ProcessTime, "0123456789abcdef", 0));
  EXPECT_TRUE(clearTimesFromKthread("k"));
  EXPECT_TRUE(has(MapId::KthreadTime, "k", 0));
  EXPECT_FALSE(has(MapId::KthreadTime, "k", 1));
  EXPECT_TRUE(clearTimesFromProcess("absent", true)) << "nothing to clear is a success";
  EXPECT_EQ(keys(MapId::ProcessTime), 1u);
}

TEST_F(ResetTest, SingleEntryResetNeverCreatesTheEntry) {
  // In a full map, creating the absent entry would fail with E2BIG.
  const uint32_t capacity = zelk::testbed::catalogue(MapId::ProcessTime).maxEntries;
  for (uint32_t i = 0; i < capacity; ++i) {
    put(MapId::ProcessTime, processKey(std::to_string(i), 0));
  }
  EXPECT_TRUE(clearTimesFromProcess("absent", false));
  EXPECT_EQ(keys(MapId::ProcessTime), capacity);
}

TEST_F(ResetTest, RefusedZeroingKeepsTheEntry) {
  put(MapId::ProcessTime, processKey("a", 0));
  const uint32_t totalKey = 0;
  put(MapId::TotalTime, &totalKey);
  ASSERT_EQ(maps_.freeze(MapId::ProcessTime), "");
  ASSERT_EQ(maps_.freeze(MapId::TotalTime), "");
  EXPECT_FALSE(clearTimesFromProcess("a", false));
  EXPECT_TRUE(has(MapId::ProcessTime, "a", 0));
  EXPECT_FALSE(clearTotalCpuTime());
  EXPECT_EQ(keys(MapId::TotalTime), 1u);
}

TEST_F(ResetTest, ClearTotalCpuTimeRemovesOnlyTheFirstKey) {
  EXPECT_TRUE(clearTotalCpuTime()) << "empty map";
  for (uint32_t key : {0, 1}) put(MapId::TotalTime, &key);
  uint32_t first = 0;
  ASSERT_EQ(bpf_map_get_next_key(maps_.fd(MapId::TotalTime), nullptr, &first), 0);
  EXPECT_TRUE(clearTotalCpuTime());
  uint32_t left = 0;
  ASSERT_EQ(bpf_map_get_next_key(maps_.fd(MapId::TotalTime), nullptr, &left), 0);
  EXPECT_EQ(left, 1 - first);
  EXPECT_EQ(keys(MapId::TotalTime), 1u);
}

TEST_F(ResetTest, ClearTopAndBgTimesAndItsFailureOnAFrozenTopMap) {
  putName(MapId::TopTime, "camera");
  putName(MapId::BgTime, "camera");
  EXPECT_TRUE(clearTopAndBgTimesTimed());
  EXPECT_EQ(keys(MapId::TopTime), 0u);
  EXPECT_EQ(keys(MapId::BgTime), 0u);

  // The clear time is kept, and the background map left full.
  putName(MapId::TopTime, "camera");
  putName(MapId::BgTime, "camera");
  putName(MapId::BgTime, "music");
  ASSERT_EQ(maps_.freeze(MapId::TopTime), "");  // deletes now fail with EPERM
  EXPECT_FALSE(clearTopAndBgTimesTimed());
  EXPECT_EQ(keys(MapId::TopTime), 1u);
  EXPECT_EQ(keys(MapId::BgTime), 2u);
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
  EXPECT_EQ(zelk::testbed::withoutLine(lines[0].text),
            "[clearMap:N] Error clearing map topMap, err: Operation not permitted.");
}

// Each reading is gPassLength after the previous one.
uint64_t gNow = 0;
uint64_t gPassLength = 0;
uint64_t steppingClock() { return gNow += gPassLength; }

TEST_F(ResetTest, OnlyAClearPassLongerThanOneSecondIsLogged) {
  gClearMapClock = steppingClock;
  gPassLength = 1000000000;
  EXPECT_TRUE(clearProcessTimes());
  EXPECT_TRUE(log_.lines().empty()) << "exactly one second is not slow";

  gPassLength = 1000000001;
  EXPECT_TRUE(clearProcessTimes());
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, ANDROID_LOG_WARN);
  EXPECT_EQ(zelk::testbed::withoutLine(lines[0].text),
            "[clearMap:N] Cleared map processMap in time interval 1000000001");
}

}  // namespace
}  // namespace com::zelkora
