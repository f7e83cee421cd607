// clearMap on real maps of both key types: emptying, its error line and its slow-pass warning.
#include "accounting/clear_map.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "accounting/clock.h"
#include "log_capture.h"
#include "maps.h"
#include "namespace.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;

class ClearMapTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
  }
  void TearDown() override { gClearMapClock = getTimeSinceBoot; }
  // The top map (process_info_t keys) and the process map (process_key_t keys).
  void fill(int count) {
    const zelk::testbed::PerCpuValue perCpu = zelk::testbed::perCpuValue();
    const uint64_t time = 1;
    for (int i = 0; i < count; ++i) {
      const process_info_t name = zelk::testbed::processInfo("task" + std::to_string(i));
      const process_key_t task = zelk::testbed::processKey("task" + std::to_string(i), i % 2);
      ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::TopTime), &name, &time));
      ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::ProcessTime), &task, perCpu.data()));
    }
  }
  size_t keys(MapId map) const {
    return zelk::testbed::countKeys(maps_.fd(map), zelk::testbed::catalogue(map).keySize);
  }
  // The library's kind of descriptor, on a duplicate of the test bed's.
  android::base::unique_fd fd(MapId map) const {
    return android::base::unique_fd(dup(maps_.fd(map)));
  }
  zelk::testbed::Maps maps_;
  zelk::testbed::LogCapture log_;
};

TEST_F(ClearMapTest, EmptiesMapsOfBothKeyTypesSilently) {
  for (int count : {0, 300}) {
    fill(count);
    EXPECT_TRUE(clearMap(fd(MapId::TopTime), process_info_t{}, "topMap"));
    EXPECT_TRUE(clearMap(fd(MapId::ProcessTime), process_key_t{}, "processMap"));
    EXPECT_EQ(keys(MapId::TopTime), 0u);
    EXPECT_EQ(keys(MapId::ProcessTime), 0u);
  }
  EXPECT_TRUE(log_.lines().empty());
}

uint64_t gClockReads = 0;
uint64_t countingClock() { return ++gClockReads; }

TEST_F(ClearMapTest, MapNotOpenFailsSilentlyWithoutReadingTheClock) {
  gClearMapClock = countingClock;
  EXPECT_FALSE(clearMap(android::base::unique_fd(), process_info_t{}, "topMap"));
  EXPECT_EQ(gClockReads, 0u);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ClearMapTest, RefusedDeleteFailsWithTheErrorLine) {
  fill(3);
  ASSERT_EQ(maps_.freeze(MapId::ProcessTime), "");  // deletes now fail with EPERM
  EXPECT_FALSE(clearMap(fd(MapId::ProcessTime), process_key_t{}, "processMap"));
  EXPECT_EQ(keys(MapId::ProcessTime), 3u);
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
  EXPECT_EQ(zelk::testbed::withoutLine(lines[0].text),
            "[clearMap:N] Error clearing map processMap, err: Operation not permitted.");
}

// Each reading is gPassLength after the previous one.
uint64_t gNow = 0;
uint64_t gPassLength = 0;
uint64_t steppingClock() { return gNow += gPassLength; }

TEST_F(ClearMapTest, OnlyAPassLongerThanOneSecondIsLogged) {
  gClearMapClock = steppingClock;
  gPassLength = 1000000000;
  EXPECT_TRUE(clearMap(fd(MapId::TopTime), process_info_t{}, "topMap"));
  EXPECT_TRUE(log_.lines().empty()) << "exactly one second is not slow";

  gPassLength = 1000000001;
  EXPECT_TRUE(clearMap(fd(MapId::TopTime), process_info_t{}, "topMap"));
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, ANDROID_LOG_WARN);
  EXPECT_EQ(zelk::testbed::withoutLine(lines[0].text),
            "[clearMap:N] Cleared map topMap in time interval 1000000001");
}

}  // namespace
}  // namespace com::zelkora
