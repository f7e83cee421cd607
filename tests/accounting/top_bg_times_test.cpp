// getProcessTopTimes and getProcessBgTimes: stored totals plus live periods from the pid maps.
#include <bpf/bpf.h>
#include <gtest/gtest.h>

#include <map>
#include <optional>

#include "accounting/clock.h"
#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;
using zelk::testbed::processInfo;

constexpr uint64_t kSecond = 1000000000;

using Named = std::map<std::string, uint64_t>;

// The table by name; every key must have flag 0.
std::optional<Named> byName(const std::optional<TimeTable>& table) {
  if (!table) return std::nullopt;
  Named named;
  for (const auto& [key, time] : *table) {
    EXPECT_EQ(key.flag, 0u) << key.comm;
    named[key.comm] = time;
  }
  return named;
}

class TopBgTimesTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
    zelk::testbed::addMachinePolicy({100});
    setUp_ = getTimeSinceBoot();
    ASSERT_GT(setUp_, 100 * kSecond) << "the clock must be far enough from 0 for these times";
  }
  // A live task; no last-update entry when `lastUpdate` is empty.
  void addTask(int32_t pid, const std::string& comm, int16_t adj,
               std::optional<uint64_t> lastUpdate) {
    const process_info_t name = processInfo(comm);
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::PidComm), &pid, &name));
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::PidAdj), &pid, &adj));
    if (lastUpdate) {
      ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::PidAdjUpdate), &pid, &*lastUpdate));
    }
  }
  void setClearTime(uint64_t time) {
    const uint32_t key = 0;
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::ClearTime), &key, &time));
  }
  void putTotal(MapId map, const process_info_t& key, uint64_t time) {
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(map), &key, &time));
  }
  // Runs `query` between two clock readings.
  TimeTable timed(std::optional<TimeTable> (*query)()) {
    before_ = getTimeSinceBoot();
    std::optional<TimeTable> table = query();
    after_ = getTimeSinceBoot();
    EXPECT_TRUE(table.has_value());
    return table.value_or(TimeTable{});
  }
  // `stored` plus a live period that started at `start`.
  void expectLive(const TimeTable& table, const std::string& comm, uint64_t start,
                  uint64_t stored = 0) {
    const auto entry = table.find({comm, 0});
    ASSERT_NE(entry, table.end()) << comm;
    EXPECT_GE(entry->second, stored + before_ - start) << comm;
    EXPECT_LE(entry->second, stored + after_ - start) << comm;
  }

  zelk::testbed::Maps maps_;
  uint64_t setUp_ = 0;
  uint64_t before_ = 0;
  uint64_t after_ = 0;
};

TEST_F(TopBgTimesTest, StoredTotalsAloneAndRecordsOfOneNameAdd) {
  putTotal(MapId::TopTime, processInfo("camera"), 5 * kSecond);
  process_info_t stale = processInfo("camera");
  stale.comm[10] = 'x';  // after the NUL: the same name
  putTotal(MapId::TopTime, stale, 1);
  putTotal(MapId::BgTime, processInfo("0123456789abcdef"), 7);
  EXPECT_EQ(byName(getProcessTopTimes()), (Named{{"camera", 5 * kSecond + 1}}));
  EXPECT_EQ(byName(getProcessBgTimes()), (Named{{"0123456789abcdef", 7}}));
}

TEST_F(TopBgTimesTest, LiveForegroundTaskAddsToItsStoredTotal) {
  setClearTime(setUp_ - 10 * kSecond);
  const uint64_t lastUpdate = setUp_ - 3 * kSecond;
  addTask(100, "camera", 0, lastUpdate);
  putTotal(MapId::TopTime, processInfo("camera"), 5 * kSecond);
  expectLive(timed(getProcessTopTimes), "camera", lastUpdate, 5 * kSecond);
  EXPECT_EQ(byName(getProcessBgTimes()), Named{});
}

TEST_F(TopBgTimesTest, ClassBoundaries) {
  setClearTime(setUp_ - kSecond);
  const struct {
    int16_t adj;
    bool top;
  } cases[] = {{-800, true}, {-900, false}, {-1000, false}, {-1, false},
               {0, true},    {199, true},   {200, false},   {999, false}};
  int32_t pid = 1;
  for (const auto& c : cases) addTask(pid++, "adj" + std::to_string(c.adj), c.adj, 0);
  const TimeTable top = timed(getProcessTopTimes);
  const TimeTable bg = timed(getProcessBgTimes);
  for (const auto& c : cases) {
    const process_key_char_t key{"adj" + std::to_string(c.adj), 0};
    EXPECT_EQ(top.count(key), c.top ? 1u : 0u) << c.adj;
    EXPECT_EQ(bg.count(key), c.top ? 0u : 1u) << c.adj;
  }
}

TEST_F(TopBgTimesTest, LivePeriodStartsAtTheLaterOfLastUpdateAndClearTime) {
  const uint64_t clear = setUp_ - 20 * kSecond;
  setClearTime(clear);
  addTask(1, "zero", 0, 0);
  addTask(2, "missing", 0, std::nullopt);
  addTask(3, "beforeClear", 0, clear - 5 * kSecond);
  addTask(4, "afterClear", 0, clear + 5 * kSecond);
  addTask(5, "future", 0, setUp_ + 100 * kSecond);  // counts nothing, never a wrapped period
  const TimeTable top = timed(getProcessTopTimes);
  expectLive(top, "zero", clear);
  expectLive(top, "missing", clear);
  expectLive(top, "beforeClear", clear);
  expectLive(top, "afterClear", clear + 5 * kSecond);
  EXPECT_EQ(top.at({"future", 0}), 0u);
}

TEST_F(TopBgTimesTest, FirstPidOfTheWalkGivesTheLivePeriodOfItsName) {
  setClearTime(1);
  const uint64_t updates[2] = {setUp_ - kSecond, setUp_ - 2 * kSecond};
  addTask(10, "dup", 0, updates[0]);
  addTask(20, "dup", 0, updates[1]);
  int32_t first = 0;
  ASSERT_EQ(bpf_map_get_next_key(maps_.fd(MapId::PidAdj), nullptr, &first), 0);
  expectLive(timed(getProcessTopTimes), "dup", updates[first == 10 ? 0 : 1]);
}

TEST_F(TopBgTimesTest, PidWithoutANameFailsTheQuery) {
  setClearTime(1);
  const int32_t pid = 42;
  const int16_t adj = 0;
  ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::PidAdj), &pid, &adj));
  EXPECT_FALSE(getProcessTopTimes().has_value());
  EXPECT_FALSE(getProcessBgTimes().has_value());
}

TEST_F(TopBgTimesTest, NoClearTimeMeansStoredTotalsOnly) {
  EXPECT_EQ(byName(getProcessTopTimes()), Named{}) << "nothing known: engaged and empty";
  addTask(1, "camera", 0, setUp_ - kSecond);
  addTask(2, "music", 500, setUp_ - kSecond);
  putTotal(MapId::TopTime, processInfo("camera"), 5);
  EXPECT_EQ(byName(getProcessTopTimes()), (Named{{"camera", 5}}));
  EXPECT_EQ(byName(getProcessBgTimes()), Named{});
}

}  // namespace
}  // namespace com::zelkora
