// getCpuFreqTimesFromProcess and getCpuFreqTimesFromKthread on real per-CPU maps.
#include <gtest/gtest.h>

#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;

class SingleTaskQueryTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
    zelk::testbed::addMachinePolicy({100, 200});
  }
  void put(MapId map, const std::string& comm, uint64_t flag, uint64_t time) {
    zelk::testbed::PerCpuValue value = zelk::testbed::perCpuValue();
    value[0].slot[1] = time;
    const process_key_t key = zelk::testbed::processKey(comm, flag);
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(map), &key, value.data()));
  }
  zelk::testbed::Maps maps_;
};

TEST_F(SingleTaskQueryTest, NameAndFlagSelectTheEntry) {
  put(MapId::ProcessTime, "a", 0, 10);
  put(MapId::ProcessTime, "a", 1, 20);
  put(MapId::ProcessTime, "", 1, 5);
  put(MapId::KthreadTime, "k", 0, 30);
  put(MapId::KthreadTime, "k", 1, 40);
  EXPECT_EQ(getCpuFreqTimesFromProcess("a", false), (TimeInStateVector{{0, 10}}));
  EXPECT_EQ(getCpuFreqTimesFromProcess("a", true), (TimeInStateVector{{0, 20}}));
  EXPECT_EQ(getCpuFreqTimesFromProcess("", true), (TimeInStateVector{{0, 5}}));
  EXPECT_EQ(getCpuFreqTimesFromKthread("k"), (TimeInStateVector{{0, 40}}));
}

TEST_F(SingleTaskQueryTest, LongNameIsLookedUpByItsFirst16BytesWithoutNul) {
  put(MapId::ProcessTime, "0123456789abcdef", 0, 7);
  put(MapId::KthreadTime, "0123456789abcde", 1, 9);
  EXPECT_EQ(getCpuFreqTimesFromProcess("0123456789abcdefXYZ", false), (TimeInStateVector{{0, 7}}));
  EXPECT_EQ(getCpuFreqTimesFromKthread("0123456789abcdeX"), (TimeInStateVector{{0, 0}}));
}

TEST_F(SingleTaskQueryTest, AbsentTaskGivesZerosBesideOthersAndNoValueInAnEmptyMap) {
  EXPECT_FALSE(getCpuFreqTimesFromProcess("ghost", false).has_value());
  EXPECT_FALSE(getCpuFreqTimesFromKthread("ghost").has_value());
  put(MapId::ProcessTime, "other", 0, 1);
  put(MapId::KthreadTime, "other", 1, 1);
  EXPECT_EQ(getCpuFreqTimesFromProcess("ghost", false), (TimeInStateVector{{0, 0}}));
  EXPECT_EQ(getCpuFreqTimesFromKthread("ghost"), (TimeInStateVector{{0, 0}}));
}

}  // namespace
}  // namespace com::zelkora
