// getCpuFreqTimesFromProcess and getCpuFreqTimesFromKthread on real per-CPU maps.
#include <gtest/gtest.h>

#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;
using zelk::testbed::PerCpuValue;

class SingleTaskQueryTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
  }
  void put(MapId map, const std::string& comm, uint64_t flag, uint32_t block, uint32_t slot,
           uint64_t time) {
    PerCpuValue value = zelk::testbed::perCpuValue();
    value[block].slot[slot] = time;
    const process_key_t key = zelk::testbed::processKey(comm, flag);
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(map), &key, value.data()));
  }
  zelk::testbed::Maps maps_;
};

TEST_F(SingleTaskQueryTest, FoldsIntoTheTasksPolicy) {
  if (zelk::testbed::possibleCpus() < 2) GTEST_SKIP() << "needs two possible CPUs";
  zelk::testbed::addPolicy("policy0", {100, 200}, {0});
  zelk::testbed::addPolicy("policy1", {300, 400, 500}, {1});
  put(MapId::ProcessTime, "camera", 0, /*block=*/1, /*slot=*/1, 2);
  EXPECT_EQ(getCpuFreqTimesFromProcess("camera", false), (TimeInStateVector{{0, 0}, {0, 2, 0}}));
}

TEST_F(SingleTaskQueryTest, FlagSelectsTheEntry) {
  zelk::testbed::addMachinePolicy({100});
  put(MapId::ProcessTime, "a", 0, 0, 0, 10);
  put(MapId::ProcessTime, "a", 1, 0, 0, 20);
  put(MapId::KthreadTime, "k", 0, 0, 0, 30);
  put(MapId::KthreadTime, "k", 1, 0, 0, 40);
  EXPECT_EQ(getCpuFreqTimesFromProcess("a", false), (TimeInStateVector{{10}}));
  EXPECT_EQ(getCpuFreqTimesFromProcess("a", true), (TimeInStateVector{{20}}));
  EXPECT_EQ(getCpuFreqTimesFromKthread("k"), (TimeInStateVector{{40}}));
}

TEST_F(SingleTaskQueryTest, LongNameIsLookedUpByItsFirst16Bytes) {
  zelk::testbed::addMachinePolicy({100});
  put(MapId::ProcessTime, "0123456789abcdef", 0, 0, 0, 7);
  EXPECT_EQ(getCpuFreqTimesFromProcess("0123456789abcdefXYZ", false), (TimeInStateVector{{7}}));
  // The 16-byte key has no NUL, so it does not match the record of a 15-byte prefix.
  put(MapId::KthreadTime, "0123456789abcde", 1, 0, 0, 9);
  EXPECT_EQ(getCpuFreqTimesFromKthread("0123456789abcdeX"), (TimeInStateVector{{0}}));
}

TEST_F(SingleTaskQueryTest, AbsentTaskGivesZerosBesideOthersAndNoValueInAnEmptyMap) {
  zelk::testbed::addMachinePolicy({100, 200});
  EXPECT_FALSE(getCpuFreqTimesFromProcess("ghost", false).has_value());
  EXPECT_FALSE(getCpuFreqTimesFromKthread("ghost").has_value());
  put(MapId::ProcessTime, "other", 0, 0, 0, 1);
  put(MapId::KthreadTime, "other", 1, 0, 0, 1);
  EXPECT_EQ(getCpuFreqTimesFromProcess("ghost", false), (TimeInStateVector{{0, 0}}));
  EXPECT_EQ(getCpuFreqTimesFromKthread("ghost"), (TimeInStateVector{{0, 0}}));
}

TEST_F(SingleTaskQueryTest, EmptyNameIsSixteenZeroBytes) {
  zelk::testbed::addMachinePolicy({100});
  put(MapId::ProcessTime, "", 1, 0, 0, 5);
  EXPECT_EQ(getCpuFreqTimesFromProcess("", true), (TimeInStateVector{{5}}));
}

}  // namespace
}  // namespace com::zelkora
