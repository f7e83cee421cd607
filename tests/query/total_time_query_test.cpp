// getTotalCpuFreqTimes on a real per-CPU map.
#include <gtest/gtest.h>

#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;

class TotalTimeQueryTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
    cpus_ = zelk::testbed::possibleCpus();
    ASSERT_GE(cpus_, 1u);
  }
  void put(uint32_t key, const zelk::testbed::PerCpuValue& value) {
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::TotalTime), &key, value.data()));
  }
  zelk::testbed::Maps maps_;
  uint32_t cpus_ = 0;
};

TEST_F(TotalTimeQueryTest, FoldsEveryCpuIntoItsPolicy) {
  zelk::testbed::addMachinePolicy({300000, 600000, 900000});
  zelk::testbed::PerCpuValue value = zelk::testbed::perCpuValue();
  uint64_t expected0 = 0;
  for (uint32_t cpu = 0; cpu < cpus_; ++cpu) {
    value[cpu].slot[0] = 5 + cpu;
    value[cpu].slot[2] = 1;
    value[cpu].slot[3] = 999;  // past the policy's three frequencies
    expected0 += 5 + cpu;
  }
  put(0, value);
  const auto times = getTotalCpuFreqTimes();
  ASSERT_TRUE(times.has_value());
  EXPECT_EQ(*times, (TimeInStateVector{{expected0, 0, cpus_}}));
}

TEST_F(TotalTimeQueryTest, FindsBlocksByPositionInThePolicyLists) {
  if (cpus_ < 2) GTEST_SKIP() << "needs two possible CPUs";
  // The first policy lists CPU 1 and the second CPU 0: blocks are taken in list order over the
  // policies (CPU 1 reads block 0, CPU 0 reads block 1), never by CPU number.
  zelk::testbed::addPolicy("policy1", {300}, {0});
  zelk::testbed::addPolicy("policy0", {100, 200}, {1});
  zelk::testbed::PerCpuValue value = zelk::testbed::perCpuValue();
  value[0].slot[0] = 7;
  value[0].slot[1] = 9;
  value[1].slot[0] = 13;
  put(0, value);
  EXPECT_EQ(getTotalCpuFreqTimes(), (TimeInStateVector{{7, 9}, {13}}));
}

TEST_F(TotalTimeQueryTest, CpuOfNoPolicyAddsNothing) {
  if (cpus_ < 2) GTEST_SKIP() << "needs two possible CPUs";
  zelk::testbed::addPolicy("policy0", {100}, {0});
  zelk::testbed::PerCpuValue value = zelk::testbed::perCpuValue();
  value[0].slot[0] = 1;
  value[1].slot[0] = 1000;
  put(0, value);
  EXPECT_EQ(getTotalCpuFreqTimes(), (TimeInStateVector{{1}}));
}

TEST_F(TotalTimeQueryTest, EmptyMapGivesNoValueButAnotherKeyGivesZeros) {
  zelk::testbed::addMachinePolicy({100, 200});
  EXPECT_FALSE(getTotalCpuFreqTimes().has_value()) << "an empty map is not a zero result";

  zelk::testbed::PerCpuValue value = zelk::testbed::perCpuValue();
  value[0].slot[0] = 77;
  put(1, value);
  EXPECT_EQ(getTotalCpuFreqTimes(), (TimeInStateVector{{0, 0}}));
}

TEST_F(TotalTimeQueryTest, AllZeroRecordKeepsTheTableShape) {
  const auto table = zelk::testbed::addPhoneTree();
  put(0, zelk::testbed::perCpuValue());
  const auto times = getTotalCpuFreqTimes();
  ASSERT_TRUE(times.has_value());
  ASSERT_EQ(times->size(), table.size());
  for (size_t p = 0; p < table.size(); ++p) {
    EXPECT_EQ((*times)[p], std::vector<uint64_t>(table[p].size(), 0)) << "policy " << p;
  }
}

TEST_F(TotalTimeQueryTest, FailsWhenTheLibraryCannotInitialise) {
  // No policy tree at all.
  put(0, zelk::testbed::perCpuValue());
  EXPECT_FALSE(getTotalCpuFreqTimes().has_value());
}

}  // namespace
}  // namespace com::zelkora
