// The resets, with clearMap beneath them, on real maps: what each removes, what it logs, and that
// no walk of a query sees a map half cleared.
#include <android/log.h>
#include <bpf/bpf.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "core/clock.h"
#include "core/state.h"
#include "library_test.h"
#include "reset/clear_map.h"

namespace com::zelkora {

namespace {

using namespace zelk::testbed;

constexpr uint64_t kSecond = 1000000000;
constexpr uint32_t kZero = 0;

class ResetTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    addMachinePolicy({100});
  }
  void TearDown() override {
    gClearMapClock = getTimeSinceBoot;
    LibraryTest::TearDown();
  }
  template <typename Key, typename Value>
  void put(MapId map, const Key& key, const Value& value) {
    ASSERT_TRUE(update(maps_.fd(map), &key, &value));
  }
  // A time-in-state entry.
  void putTis(MapId map, const void* key) { ASSERT_TRUE(update(maps_.fd(map), key, zero_.data())); }
  void putTis(MapId map, const process_key_t& key) { putTis(map, &key); }
  bool has(MapId map, const std::string& comm, uint64_t flag) {
    const process_key_t key = processKey(comm, flag);
    PerCpuValue value = perCpuValue();
    return bpf_map_lookup_elem(maps_.fd(map), &key, value.data()) == 0;
  }
  size_t keys(MapId map) const { return countKeys(maps_.fd(map), catalogue(map).keySize); }
  // clearTopAndBgTimes, whose clear time must lie between clock readings taken around it.
  bool clearTopAndBgTimesTimed() {
    const uint64_t before = getTimeSinceBoot();
    const bool cleared = clearTopAndBgTimes();
    const uint64_t after = getTimeSinceBoot();
    uint64_t clearTime = 0;
    EXPECT_TRUE(lookup(maps_.fd(MapId::ClearTime), &kZero, &clearTime));
    EXPECT_GE(clearTime, before);
    EXPECT_LE(clearTime, after);
    return cleared;
  }
  const PerCpuValue zero_ = perCpuValue();
};

TEST_F(ResetTest, ResetsRemoveExactlyTheirEntriesSilently) {
  // The process map is full: a reset that created an absent entry would fail with E2BIG.
  MapDef full = catalogue(MapId::ProcessTime);
  full.maxEntries = 3;
  ASSERT_EQ(maps_.pin(MapId::ProcessTime, &full), "");
  // Room for a second whole-system key, which only the first key's clear must remove.
  MapDef totals = catalogue(MapId::TotalTime);
  totals.maxEntries = 2;
  ASSERT_EQ(maps_.pin(MapId::TotalTime, &totals), "");
  EXPECT_TRUE(clearTotalCpuTime()) << "an empty map counts as cleared";
  for (uint64_t flag : {0, 1}) {
    putTis(MapId::ProcessTime, processKey("a", flag));
    putTis(MapId::KthreadTime, processKey("k", flag));
  }
  putTis(MapId::ProcessTime, processKey("0123456789abcdef", 0));
  for (int i = 0; i < 300; ++i) putTis(MapId::KthreadTime, processKey(std::to_string(i), i % 2));
  for (uint32_t key : {0, 1}) putTis(MapId::TotalTime, &key);

  EXPECT_TRUE(clearTimesFromProcess("absent", true)) << "nothing to clear is a success";
  EXPECT_TRUE(clearTimesFromProcess("a", false));
  EXPECT_FALSE(has(MapId::ProcessTime, "a", 0));
  EXPECT_TRUE(has(MapId::ProcessTime, "a", 1));
  EXPECT_TRUE(clearTimesFromProcess("0123456789abcdefX", false));
  EXPECT_EQ(keys(MapId::ProcessTime), 1u);
  EXPECT_TRUE(clearTimesFromKthread("k"));
  EXPECT_TRUE(has(MapId::KthreadTime, "k", 0));
  EXPECT_FALSE(has(MapId::KthreadTime, "k", 1));
  uint32_t first = 0, left = 0;
  ASSERT_EQ(bpf_map_get_next_key(maps_.fd(MapId::TotalTime), nullptr, &first), 0);
  EXPECT_TRUE(clearTotalCpuTime());
  ASSERT_EQ(bpf_map_get_next_key(maps_.fd(MapId::TotalTime), nullptr, &left), 0);
  EXPECT_EQ(left, 1 - first) << "only the first key goes";
  EXPECT_EQ(keys(MapId::TotalTime), 1u);
  EXPECT_TRUE(clearKthreadTimes());
  EXPECT_EQ(keys(MapId::KthreadTime), 0u);
  EXPECT_EQ(keys(MapId::ProcessTime), 1u);
  EXPECT_TRUE(clearKthreadTimes()) << "empty map";
  EXPECT_TRUE(log_.lines().empty());

  // Frozen: updates and deletes fail with EPERM.
  ASSERT_EQ(maps_.freeze(MapId::ProcessTime), "");
  ASSERT_EQ(maps_.freeze(MapId::TotalTime), "");
  EXPECT_FALSE(clearTimesFromProcess("a", true));
  EXPECT_TRUE(has(MapId::ProcessTime, "a", 1));
  EXPECT_FALSE(clearTotalCpuTime());
  EXPECT_EQ(keys(MapId::TotalTime), 1u);
}

TEST_F(ResetTest, SingleEntryResetZeroesTheEntryBeforeItDeletesIt) {
  // A per-CPU array takes writes but refuses deletes (EINVAL): the zeros stay, the reset fails.
  MapDef array = catalogue(MapId::TotalTime);
  array.type = BPF_MAP_TYPE_PERCPU_ARRAY;
  array.maxEntries = 1;
  ASSERT_EQ(maps_.pin(MapId::TotalTime, &array), "");
  PerCpuValue value = perCpuValue();
  value[0].slot[0] = 5;
  ASSERT_TRUE(update(maps_.fd(MapId::TotalTime), &kZero, value.data()));
  EXPECT_FALSE(clearTotalCpuTime());
  EXPECT_EQ(getTotalCpuFreqTimes(), (TimeInStateVector{{0}}));
}

// Each reading is gPassLength after the previous one.
uint64_t gNow = 0;
uint64_t gPassLength = 0;
uint64_t steppingClock() { return gNow += gPassLength; }

TEST_F(ResetTest, WholeMapClearsLogOnlyASlowPassOrAFailure) {
  gClearMapClock = steppingClock;
  gPassLength = kSecond;
  EXPECT_TRUE(clearProcessTimes());
  EXPECT_TRUE(log_.lines().empty()) << "exactly one second is not slow";
  gPassLength = kSecond + 1;
  EXPECT_TRUE(clearProcessTimes());
  gClearMapClock = getTimeSinceBoot;

  const uint64_t time = 5;
  put(MapId::TopTime, processInfo("camera"), time);
  put(MapId::BgTime, processInfo("camera"), time);
  EXPECT_TRUE(clearTopAndBgTimesTimed());
  EXPECT_EQ(keys(MapId::TopTime), 0u);
  EXPECT_EQ(keys(MapId::BgTime), 0u);
  // On a frozen top map the clear time is kept, and the background map left full.
  put(MapId::TopTime, processInfo("camera"), time);
  put(MapId::BgTime, processInfo("music"), time);
  ASSERT_EQ(maps_.freeze(MapId::TopTime), "");
  EXPECT_FALSE(clearTopAndBgTimesTimed());
  EXPECT_EQ(keys(MapId::TopTime), 1u);
  EXPECT_EQ(keys(MapId::BgTime), 1u);

  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].priority, ANDROID_LOG_WARN);
  EXPECT_EQ(withoutLine(lines[0].text),
            "[clearMap:N] Cleared map processMap in time interval 1000000001");
  EXPECT_EQ(lines[1].priority, ANDROID_LOG_ERROR);
  EXPECT_EQ(withoutLine(lines[1].text),
            "[clearMap:N] Error clearing map topMap, err: Operation not permitted.");
}

TEST_F(ResetTest, WalksNeverSeeAHalfClearedMap) {
  // The maps are refilled only under their locks held exclusively, so a walk that sees neither an
  // empty nor a full table, or fails, has walked a half-cleared map.
  constexpr int kKeys = 100;
  ASSERT_TRUE(ensureGlobals());
  const auto refill = [&] {
    {
      WriterLock exclusive(gProcessTimeLock);
      for (int i = 0; i < kKeys; ++i) putTis(MapId::ProcessTime, processKey(std::to_string(i), 0));
    }
    WriterLock exclusive(gTopBgTimeLock);
    for (int i = 0; i < kKeys; ++i) put(MapId::TopTime, processInfo(std::to_string(i)), kSecond);
  };
  refill();
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0}, reads{0};
  const auto walk = [&](auto query) {
    while (!stop.load()) {
      const auto table = query();
      if (!table || (!table->empty() && table->size() != kKeys)) ++bad;
      ++reads;  // back to back: a waiting clearer must still get the lock
    }
  };
  std::thread processes(walk, getProcessCpuFreqTimes);
  std::thread tops(walk, getProcessTopTimes);
  for (int i = 0; i < 150; ++i) {
    EXPECT_TRUE(clearProcessTimes());
    EXPECT_TRUE(clearTopAndBgTimes());
    refill();
  }
  stop = true;
  processes.join();
  tops.join();
  EXPECT_EQ(bad, 0) << "of " << reads << " walks";
  EXPECT_GT(reads, 0);
}

}  // namespace
}  // namespace com::zelkora
