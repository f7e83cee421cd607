// The single-key reads: getTotalCpuFreqTimes, getCpuFreqTimesFromProcess and
// getCpuFreqTimesFromKthread on real per-CPU maps.
#include <gtest/gtest.h>

#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;

class SingleKeyQueryTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
  }
  void put(MapId map, const void* key, uint64_t time) {
    zelk::testbed::PerCpuValue value = zelk::testbed::perCpuValue();
    value[0].slot[1] = time;
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(map), key, value.data()));
  }
  void put(MapId map, const std::string& comm, uint64_t flag, uint64_t time) {
    const process_key_t key = zelk::testbed::processKey(comm, flag);
    put(map, &key, time);
  }
  zelk::testbed::Maps maps_;
};

TEST_F(SingleKeyQueryTest, NameAndFlagSelectTheEntryAndLongNamesAreCutTo16Bytes) {
  zelk::testbed::addMachinePolicy({100, 200});
  put(MapId::ProcessTime, "a", 0, 10);
  put(MapId::ProcessTime, "a", 1, 20);
  put(MapId::ProcessTime, "0123456789abcdef", 0, 7);
  put(MapId::KthreadTime, "k", 0, 30);
  put(MapId::KthreadTime, "k", 1, 40);
  put(MapId::KthreadTime, "0123456789abcde", 1, 9);
  EXPECT_EQ(getCpuFreqTimesFromProcess("a", false), (TimeInStateVector{{0, 10}}));
  EXPECT_EQ(getCpuFreqTimesFromProcess("a", true), (TimeInStateVector{{0, 20}}));
  EXPECT_EQ(getCpuFreqTimesFromKthread("k"), (TimeInStateVector{{0, 40}}));
  EXPECT_EQ(getCpuFreqTimesFromProcess("0123456789abcdefX", false), (TimeInStateVector{{0, 7}}));
  EXPECT_EQ(getCpuFreqTimesFromKthread("0123456789abcdeX"), (TimeInStateVector{{0, 0}}));
}

TEST_F(SingleKeyQueryTest, AbsentKeyGivesZerosBesideOthersAndNoValueInAnEmptyMap) {
  zelk::testbed::addMachinePolicy({100, 200});
  EXPECT_FALSE(getTotalCpuFreqTimes().has_value());
  EXPECT_FALSE(getCpuFreqTimesFromProcess("ghost", false).has_value());
  EXPECT_FALSE(getCpuFreqTimesFromKthread("ghost").has_value());
  const uint32_t otherTotal = 1;
  put(MapId::TotalTime, &otherTotal, 1);
  put(MapId::ProcessTime, "other", 0, 1);
  put(MapId::KthreadTime, "other", 1, 1);
  EXPECT_EQ(getTotalCpuFreqTimes(), (TimeInStateVector{{0, 0}}));
  EXPECT_EQ(getCpuFreqTimesFromProcess("ghost", false), (TimeInStateVector{{0, 0}}));
  EXPECT_EQ(getCpuFreqTimesFromKthread("ghost"), (TimeInStateVector{{0, 0}}));
}

TEST_F(SingleKeyQueryTest, BlocksAreTakenInPolicyListOrderNotByCpuNumber) {
  if (zelk::testbed::possibleCpus() < 2) GTEST_SKIP() << "needs two possible CPUs";
  // policy0 lists CPU 1 (block 0), policy1 lists CPU 0 (block 1).
  zelk::testbed::addPolicy("policy1", {300}, {0});
  zelk::testbed::addPolicy("policy0", {100, 200}, {1});
  zelk::testbed::PerCpuValue value = zelk::testbed::perCpuValue();
  value[0].slot[0] = 7;
  value[0].slot[1] = 9;
  value[1].slot[0] = 13;
  value[1].slot[1] = 1000;  // past policy1's one frequency
  const uint32_t key = 0;
  ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::TotalTime), &key, value.data()));
  EXPECT_EQ(getTotalCpuFreqTimes(), (TimeInStateVector{{7, 9}, {13}}));
}

}  // namespace
}  // namespace com::zelkora
