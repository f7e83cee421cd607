// Whole-map clears against walks of the same map on other threads. The map is refilled only
// under its lock held exclusively, so a walk that sees neither an empty nor a full table, or
// fails, has walked a half-cleared map.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "core/state.h"
#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;

constexpr int kKeys = 100;

class ClearConcurrencyTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
    zelk::testbed::addMachinePolicy({100});
    ASSERT_TRUE(ensureGlobals());
  }
  // Two threads walk with `query` while this one clears and refills 150 times.
  template <typename Query>
  void race(bool (*clear)(), RwLock& lock, void (*putKey)(int fd, int i), MapId map, Query query) {
    const int fd = maps_.fd(map);
    auto refill = [&] {
      std::unique_lock<RwLock> exclusive(lock);
      for (int i = 0; i < kKeys; ++i) putKey(fd, i);
    };
    refill();
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0}, reads{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
      readers.emplace_back([&] {
        while (!stop.load()) {
          const auto table = query();
          if (!table || (!table->empty() && table->size() != kKeys)) ++bad;
          ++reads;  // back to back: a waiting clearer must still get the lock
        }
      });
    }
    for (int i = 0; i < 150; ++i) {
      EXPECT_TRUE(clear());
      refill();
    }
    stop = true;
    for (auto& reader : readers) reader.join();
    EXPECT_EQ(bad, 0) << "of " << reads << " walks";
    EXPECT_GT(reads, 0);
  }
  zelk::testbed::Maps maps_;
};

TEST_F(ClearConcurrencyTest, ProcessWalks) {
  race(
      clearProcessTimes, gProcessTimeLock,
      [](int fd, int i) {
        const process_key_t key = zelk::testbed::processKey(std::to_string(i), 0);
        zelk::testbed::update(fd, &key, zelk::testbed::perCpuValue().data());
      },
      MapId::ProcessTime, getProcessCpuFreqTimes);
}

TEST_F(ClearConcurrencyTest, TopTimeWalks) {
  race(
      clearTopAndBgTimes, gTopBgTimeLock,
      [](int fd, int i) {
        const process_info_t key = zelk::testbed::processInfo(std::to_string(i));
        const uint64_t time = 1;
        zelk::testbed::update(fd, &key, &time);
      },
      MapId::TopTime, getProcessTopTimes);
}

}  // namespace
}  // namespace com::zelkora
