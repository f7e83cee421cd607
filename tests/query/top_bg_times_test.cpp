// getProcessTopTimes and getProcessBgTimes on real maps: the stored totals plus the live periods
// of each class, counted from the later of a task's last change and the last clear.
#include <gtest/gtest.h>

#include <optional>

#include "core/clock.h"
#include "library_test.h"
#include "query/batch_walk.h"

namespace com::zelkora {

// For comparing whole tables: argument-dependent lookup finds it in the key's namespace.
bool operator==(const process_key_char_t& a, const process_key_char_t& b) {
  return a.comm == b.comm && a.flag == b.flag;
}

namespace {

using namespace zelk::testbed;

constexpr uint64_t kSecond = 1000000000;
constexpr uint32_t kZero = 0;

class TopBgTimesTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    addMachinePolicy({100});
    setUp_ = getTimeSinceBoot();
    ASSERT_GT(setUp_, 100 * kSecond) << "the clock must be far enough from 0 for these times";
  }
  template <typename Key, typename Value>
  void put(MapId map, const Key& key, const Value& value) {
    ASSERT_TRUE(update(maps_.fd(map), &key, &value));
  }
  // A live task; no last-update entry when `lastUpdate` is empty.
  void addTask(int32_t pid, const std::string& comm, int16_t adj,
               std::optional<uint64_t> lastUpdate) {
    put(MapId::PidComm, pid, processInfo(comm));
    put(MapId::PidAdj, pid, adj);
    if (lastUpdate) put(MapId::PidAdjUpdate, pid, *lastUpdate);
  }

  uint64_t setUp_ = 0;
};

TEST_F(TopBgTimesTest, LivePeriodsByClassFromTheLaterOfLastUpdateAndClearTime) {
  const auto none = getProcessTopTimes();
  EXPECT_TRUE(none.has_value() && none->empty()) << "nothing known: engaged and empty";
  const uint64_t clear = setUp_ - 20 * kSecond;
  const struct {
    const char* name;
    int16_t adj;
    std::optional<uint64_t> lastUpdate;
    bool top;
    uint64_t start;
    uint64_t stored = 0;
  } cases[] = {
      {"adj-800", -800, 0, true, clear},
      {"adj-900", -900, 0, false, clear},
      {"adj-1000", -1000, 0, false, clear},
      {"adj-1", -1, 0, false, clear},
      {"adj0", 0, 0, true, clear},
      {"adj199", 199, 0, true, clear},
      {"adj200", 200, 0, false, clear},
      {"adj999", 999, 0, false, clear},
      {"missing", 0, std::nullopt, true, clear},
      {"beforeClear", 0, clear - 5 * kSecond, true, clear},
      {"afterClear", 0, clear + 5 * kSecond, true, clear + 5 * kSecond, 3 * kSecond},
      {"bgAfterClear", 500, clear + 5 * kSecond, false, clear + 5 * kSecond, 3 * kSecond},
      {"future", 0, setUp_ + 100 * kSecond, true, setUp_ + 100 * kSecond},
  };
  int32_t next = 1;
  for (const auto& c : cases) {
    addTask(next++, c.name, c.adj, c.lastUpdate);
    if (c.stored) put(c.top ? MapId::TopTime : MapId::BgTime, processInfo(c.name), c.stored);
  }
  // Records of one name add (bytes after the NUL do not count); names are cut to 16 bytes.
  put(MapId::TopTime, processInfo("camera"), 5 * kSecond);
  process_info_t stale = processInfo("camera");
  stale.comm[10] = 'x';
  put(MapId::TopTime, stale, uint64_t{1});
  put(MapId::BgTime, processInfo("0123456789abcdef"), uint64_t{7});
  // Without a clear time, live periods count nothing: the stored totals alone.
  EXPECT_EQ(getProcessTopTimes(),
            (TimeTable{{{"camera", 0}, 5 * kSecond + 1}, {{"afterClear", 0}, 3 * kSecond}}));
  EXPECT_EQ(getProcessBgTimes(),
            (TimeTable{{{"0123456789abcdef", 0}, 7}, {{"bgAfterClear", 0}, 3 * kSecond}}));

  // Two live tasks of one name: the first that the walk meets stands for it.
  const uint64_t dupStart[] = {clear + 7 * kSecond, clear + 9 * kSecond};
  addTask(100, "dup", 0, dupStart[0]);
  addTask(101, "dup", 0, dupStart[1]);
  int32_t pid = 0;
  for (const void* previous = nullptr;
       bpf_map_get_next_key(maps_.fd(MapId::PidAdj), previous, &pid) == 0 && pid < 100;
       previous = &pid) {
  }
  put(MapId::ClearTime, kZero, clear);
  const uint64_t before = getTimeSinceBoot();
  const auto top = getProcessTopTimes();
  const auto bg = getProcessBgTimes();
  const uint64_t after = getTimeSinceBoot();
  ASSERT_TRUE(top && bg);
  for (const auto& c : cases) {
    const TimeTable& mine = c.top ? *top : *bg;
    EXPECT_EQ((c.top ? *bg : *top).count({c.name, 0}), 0u) << c.name;
    const auto entry = mine.find({c.name, 0});
    ASSERT_NE(entry, mine.end()) << c.name;
    // Live from `start` to the query's clock reading, or nothing when that is earlier.
    EXPECT_GE(entry->second, c.stored + (before > c.start ? before - c.start : 0)) << c.name;
    EXPECT_LE(entry->second, c.stored + (after > c.start ? after - c.start : 0)) << c.name;
  }
  EXPECT_GE(top->at({"dup", 0}), before - dupStart[pid - 100]);
  EXPECT_LE(top->at({"dup", 0}), after - dupStart[pid - 100]);

  // A live pid without a name, as a process that ended between the reads of two pid maps leaves
  // it: read in batches it is absent; read key by key its failed lookup fails the queries.
  put(MapId::PidAdj, int32_t{42}, int16_t{0});
  const auto topWithout = getProcessTopTimes();
  ASSERT_TRUE(topWithout.has_value());
  EXPECT_EQ(topWithout->size(), top->size());
  EXPECT_TRUE(getProcessBgTimes().has_value());
  setPerElementWalks(true);
  EXPECT_FALSE(getProcessTopTimes().has_value());
  EXPECT_FALSE(getProcessBgTimes().has_value());
  setPerElementWalks(false);
}

}  // namespace
}  // namespace com::zelkora
