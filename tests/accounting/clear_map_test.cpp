// clearMap on real maps of both key types: emptying, its error line and its slow-pass warning.
#include "accounting/clear_map.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "log_capture.h"
#include "maps.h"
#include "namespace.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;

// Fills `map` with `count` entries of zero values; keys are built by hand.
void fill(const zelk::testbed::Maps& maps, MapId map, int count) {
  const zelk::testbed::MapDef& def = zelk::testbed::catalogue(map);
  const bool perCpu = def.type == BPF_MAP_TYPE_PERCPU_HASH;
  const std::vector<unsigned char> value(def.valueSize *
                                         (perCpu ? zelk::testbed::possibleCpus() : 1));
  for (int i = 0; i < count; ++i) {
    const std::string name = "task" + std::to_string(i);
    if (def.keySize == sizeof(process_key_t)) {
      const process_key_t key = zelk::testbed::processKey(name, i % 2);
      ASSERT_TRUE(zelk::testbed::update(maps.fd(map), &key, value.data()));
    } else {
      const process_info_t key = zelk::testbed::processInfo(name);
      ASSERT_TRUE(zelk::testbed::update(maps.fd(map), &key, value.data()));
    }
  }
}

template <typename KeyT>
struct MapOf;
template <>
struct MapOf<process_key_t> {
  static constexpr MapId kMap = MapId::ProcessTime;
};
template <>
struct MapOf<process_info_t> {
  static constexpr MapId kMap = MapId::TopTime;
};

class ClearMapTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
  }
  void TearDown() override { gClearMapClock = savedClock_; }
  // The library's own kind of descriptor, on a duplicate of the test bed's map.
  android::base::unique_fd libraryFd(MapId map) const {
    return android::base::unique_fd(dup(maps_.fd(map)));
  }
  size_t keys(MapId map) const {
    return zelk::testbed::countKeys(maps_.fd(map), zelk::testbed::catalogue(map).keySize);
  }
  zelk::testbed::Maps maps_;
  zelk::testbed::LogCapture log_;
  uint64_t (*const savedClock_)() = gClearMapClock;
};

template <typename KeyT>
class ClearMapKeysTest : public ClearMapTest {};
using KeyTypes = ::testing::Types<process_key_t, process_info_t>;
TYPED_TEST_SUITE(ClearMapKeysTest, KeyTypes);

TYPED_TEST(ClearMapKeysTest, EmptiesTheMapSilently) {
  constexpr MapId map = MapOf<TypeParam>::kMap;
  for (int count : {0, 1, 300}) {
    fill(this->maps_, map, count);
    ASSERT_EQ(this->keys(map), static_cast<size_t>(count));
    EXPECT_TRUE(clearMap(this->libraryFd(map), TypeParam{}, "someMap")) << count;
    EXPECT_EQ(this->keys(map), 0u) << count;
  }
  EXPECT_TRUE(this->log_.lines().empty());
}

uint64_t gClockReads = 0;
uint64_t countingClock() { return ++gClockReads; }

TEST_F(ClearMapTest, MapNotOpenFailsSilentlyWithoutReadingTheClock) {
  gClearMapClock = countingClock;
  gClockReads = 0;
  EXPECT_FALSE(clearMap(android::base::unique_fd(), process_info_t{}, "topMap"));
  EXPECT_EQ(gClockReads, 0u);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ClearMapTest, RefusedDeleteFailsWithTheErrorLine) {
  fill(maps_, MapId::ProcessTime, 3);
  ASSERT_EQ(maps_.freeze(MapId::ProcessTime), "");  // deletes now fail with EPERM
  EXPECT_FALSE(clearMap(libraryFd(MapId::ProcessTime), process_key_t{}, "processMap"));
  EXPECT_EQ(keys(MapId::ProcessTime), 3u);
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
  EXPECT_EQ(lines[0].tag, "libzelkcpufreqtime");
  EXPECT_EQ(zelk::testbed::withoutLine(lines[0].text),
            "[clearMap:N] Error clearing map processMap, err: Operation not permitted.");
}

// A clock that reads `gPassStart` and then `gPassStart + gPassLength`.
uint64_t gPassStart = 0;
uint64_t gPassLength = 0;
uint64_t passClock() {
  const uint64_t now = gPassStart;
  gPassStart += gPassLength;
  return now;
}

TEST_F(ClearMapTest, OnlyAPassLongerThanOneSecondIsLogged) {
  gClearMapClock = passClock;
  gPassStart = 5000;
  gPassLength = 1000000000;
  fill(maps_, MapId::TopTime, 2);
  EXPECT_TRUE(clearMap(libraryFd(MapId::TopTime), process_info_t{}, "topMap"));
  EXPECT_TRUE(log_.lines().empty()) << "exactly one second is not slow";

  gPassStart = 5000;
  gPassLength = 1000000001;
  fill(maps_, MapId::TopTime, 2);
  EXPECT_TRUE(clearMap(libraryFd(MapId::TopTime), process_info_t{}, "topMap"));
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, ANDROID_LOG_WARN);
  EXPECT_EQ(zelk::testbed::withoutLine(lines[0].text),
            "[clearMap:N] Cleared map topMap in time interval 1000000001");
}

}  // namespace
}  // namespace com::zelkora
