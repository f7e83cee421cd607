// Allocations of the walks, counted with a replaced operator new: per table entry and per call,
// never per map key.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "core/state.h"
#include "maps.h"
#include "namespace.h"
#include "zelkcpufreqtime.h"

namespace {
std::atomic<size_t> gAllocations{0};
}  // namespace

void* operator new(size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;

// Per call: the value buffer, the zero template, the table's bucket arrays as it grows.
constexpr size_t kPerCall = 48;
constexpr int kNames = 2000;

// 16 characters: too long for the inline buffer.
std::string longName(int i) {
  std::string name = "long-task-" + std::to_string(i);
  name.resize(16, '.');
  return name;
}

template <typename Query>
size_t allocationsOf(Query query) {
  const size_t before = gAllocations.load();
  const auto table = query();
  const size_t used = gAllocations.load() - before;
  EXPECT_EQ(table ? table->size() : 0u, static_cast<size_t>(kNames));
  return used;
}

class AllocationTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
    zelk::testbed::addPolicy("policy0", {300000, 576000, 1036800}, {0, 1});
    zelk::testbed::addPolicy("policy2", {710400, 1401600}, {2});
    zelk::testbed::addPolicy("policy3", {844800, 2841600}, {3});
    ASSERT_TRUE(ensureGlobals());
  }
  zelk::testbed::Maps maps_;
};

TEST_F(AllocationTest, TimeInStateWalk) {
  // Two map keys per name (flags 0 and 1) meet in one kernel-thread entry.
  const zelk::testbed::PerCpuValue value = zelk::testbed::perCpuValue();
  for (int i = 0; i < kNames; ++i) {
    for (uint64_t flag : {0, 1}) {
      const process_key_t key = zelk::testbed::processKey(longName(i), flag);
      ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::KthreadTime), &key, value.data()));
    }
  }
  // Node, name, the outer vector and one per policy.
  EXPECT_LE(allocationsOf(getKthreadCpuFreqTimes), kNames * (3 + gPolicyCount) + kPerCall);
}

TEST_F(AllocationTest, TopTimeWalkWithLongAndShortNames) {
  // Every name has a stored total and a third are live too, so both walks meet known and new
  // names, long and short, in the kernel's order. A short name needs no allocation of its own,
  // even right after a long one.
  const uint32_t zero = 0;
  const uint64_t clearTime = 1;
  ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::ClearTime), &zero, &clearTime));
  size_t longNames = 0;
  for (int32_t i = 0; i < kNames; ++i) {
    const bool isLong = i % 2 == 0;
    longNames += isLong;
    const process_info_t name =
        zelk::testbed::processInfo(isLong ? longName(i) : "t" + std::to_string(i));
    const int16_t adj = 0;
    const uint64_t total = 5;
    if (i % 3 == 0) {
      ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::PidComm), &i, &name));
      ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::PidAdj), &i, &adj));
    }
    ASSERT_TRUE(zelk::testbed::update(maps_.fd(MapId::TopTime), &name, &total));
  }
  // A node each, and a name for the long ones.
  EXPECT_LE(allocationsOf(getProcessTopTimes), kNames + longNames + kPerCall);
}

}  // namespace
}  // namespace com::zelkora
