// Whole-map clears against walks of the same map on other threads. The test refills a map only
// under the map's lock held exclusively, so a reader that sees anything but an empty or a full
// map has seen a half-cleared one.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
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
constexpr int kClears = 150;
constexpr int kReaders = 2;

struct Outcome {
  std::atomic<int> failures{0};
  std::atomic<int> partial{0};
  std::atomic<int> reads{0};
};

class ClearConcurrencyTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
    zelk::testbed::addMachinePolicy({100});
    ASSERT_TRUE(ensureGlobals());
  }
  // Runs `clearAndRefill` kClears times while kReaders threads run `read`, which returns the
  // table's size or -1 for a failed query.
  template <typename Clear, typename Read>
  void race(Clear clearAndRefill, Read read, Outcome& outcome) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
      readers.emplace_back([&] {
        while (!stop.load()) {
          const int size = read();
          if (size < 0) ++outcome.failures;
          if (size != 0 && size != kKeys) ++outcome.partial;
          ++outcome.reads;
          // The lock prefers readers; back-to-back readers would starve the clearer.
          std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
      });
    }
    for (int i = 0; i < kClears; ++i) clearAndRefill();
    stop = true;
    for (auto& reader : readers) reader.join();
  }
  zelk::testbed::Maps maps_;
};

TEST_F(ClearConcurrencyTest, ProcessWalksNeverSeeAHalfClearedMap) {
  const int fd = maps_.fd(MapId::ProcessTime);
  const zelk::testbed::PerCpuValue value = zelk::testbed::perCpuValue();
  auto refill = [&] {
    std::unique_lock<std::shared_mutex> lock(gProcessTimeLock);
    for (int i = 0; i < kKeys; ++i) {
      const process_key_t key = zelk::testbed::processKey("task" + std::to_string(i), 0);
      zelk::testbed::update(fd, &key, value.data());
    }
  };
  refill();
  Outcome outcome;
  race(
      [&] {
        EXPECT_TRUE(clearProcessTimes());
        refill();
      },
      [] {
        const auto table = getProcessCpuFreqTimes();
        return table ? static_cast<int>(table->size()) : -1;
      },
      outcome);
  EXPECT_EQ(outcome.failures, 0);
  EXPECT_EQ(outcome.partial, 0);
  EXPECT_GT(outcome.reads, 0);
}

TEST_F(ClearConcurrencyTest, TopTimeWalksNeverSeeAHalfClearedMap) {
  const int fd = maps_.fd(MapId::TopTime);
  auto refill = [&] {
    std::unique_lock<std::shared_mutex> lock(gTopBgTimeLock);
    for (int i = 0; i < kKeys; ++i) {
      const process_info_t key = zelk::testbed::processInfo("task" + std::to_string(i));
      const uint64_t time = i;
      zelk::testbed::update(fd, &key, &time);
    }
  };
  refill();
  Outcome outcome;
  race(
      [&] {
        EXPECT_TRUE(clearTopAndBgTimes());
        refill();
      },
      [] {
        const auto table = getProcessTopTimes();
        return table ? static_cast<int>(table->size()) : -1;
      },
      outcome);
  EXPECT_EQ(outcome.failures, 0);
  EXPECT_EQ(outcome.partial, 0);
  EXPECT_GT(outcome.reads, 0);
}

}  // namespace
}  // namespace com::zelkora
