// The object's CPU time accounting on the real scheduler, checked against the kernel's own
// per-task runtime (/proc/<pid>/schedstat) and busy time (/proc/stat).
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <string>

#include "child_process.h"
#include "object_bed.h"
#include "object_setup.h"

namespace zelk::testbed {
namespace {

using exercise::wholeMachinePolicy;
using std::chrono::milliseconds;

const std::vector<uint32_t> kFreqs = {300000, 600000, 900000, 1200000, 1500000};
constexpr milliseconds kWait(5000);

class CpuTimeTest : public ObjectTest {
 protected:
  void SetUp() override {
    ObjectTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(exercise::configure({wholeMachinePolicy(kFreqs, /*currentIndex=*/3)}), "");
    ASSERT_EQ(attachment_.attach(), "");
  }

  std::optional<PerCpuValue> processTimes(const char* name) {
    const auto key = processKey(name, /*flag=*/1);  // adj 0: foreground
    return lookupTimes(mapFd(MapId::ProcessTime), &key);
  }

  exercise::Attachment attachment_;
};

// A foreground child named `name` that spins `phases` times for `spinFor`, telling the test
// and waiting for its go after each phase; it then blocks until killed.
Child spinner(const char* name, int phases, milliseconds spinFor) {
  return Child([=](ChildLink& link) {
    setOomScoreAdj(0);
    setName(name);
    for (int i = 0; i < phases; ++i) {
      spin(spinFor);
      link.tell(i);
      link.awaitGo();
    }
  });
}

// The child's runtime once it has switched out after telling its phase.
uint64_t runtimeAfterPhase(Child& child) {
  EXPECT_TRUE(child.next(kWait).has_value()) << "the child did not finish spinning";
  EXPECT_TRUE(waitUntilBlocked(child.pid(), kWait));
  return runtimeNs(child.pid()).value_or(0);
}

TEST_F(CpuTimeTest, ProcessTimeMatchesSchedstatAtCurrentIndex) {
  Child child = spinner("zelkspin", 1, milliseconds(500));
  const uint64_t runtime = runtimeAfterPhase(child);
  ASSERT_GT(runtime, 0u);

  const auto times = processTimes("zelkspin");
  ASSERT_TRUE(times.has_value()) << "no process entry for zelkspin";
  EXPECT_NEAR(static_cast<double>(totalTime(*times)), runtime, 0.02 * runtime);
  // Current index 3 is slot 2; nothing anywhere else.
  EXPECT_EQ(slotTime(*times, 2), totalTime(*times));

  const auto kthreadKey = processKey("zelkspin", 1);
  EXPECT_FALSE(lookupTimes(mapFd(MapId::KthreadTime), &kthreadKey).has_value());
  const auto background = processKey("zelkspin", 0);
  EXPECT_FALSE(lookupTimes(mapFd(MapId::ProcessTime), &background).has_value());
}

TEST_F(CpuTimeTest, FrequencyChangeMovesLaterTimeToItsSlot) {
  Child child = spinner("zelkfreq", 2, milliseconds(200));
  const uint64_t first = runtimeAfterPhase(child);
  ASSERT_EQ(exercise::setCurrentIndex(/*policy=*/0, /*index=*/5), "");
  child.go();
  const uint64_t second = runtimeAfterPhase(child) - first;

  const auto times = processTimes("zelkfreq");
  ASSERT_TRUE(times.has_value());
  EXPECT_NEAR(static_cast<double>(slotTime(*times, 2)), first, 0.02 * first);
  EXPECT_NEAR(static_cast<double>(slotTime(*times, 4)), second, 0.02 * second);
  EXPECT_EQ(slotTime(*times, 2) + slotTime(*times, 4), totalTime(*times));
}

// A CPU or index the configuration does not cover must count nothing rather than land in a
// wrong slot or block.
struct Unusable {
  const char* what;
  uint32_t index;
  bool cpus;
};

void PrintTo(const Unusable& unusable, std::ostream* out) { *out << unusable.what; }

class UnusableConfigurationTest : public ObjectTest,
                                  public ::testing::WithParamInterface<Unusable> {};

TEST_P(UnusableConfigurationTest, CountsNothing) {
  exercise::Policy policy = wholeMachinePolicy(kFreqs, GetParam().index);
  if (!GetParam().cpus) policy.cpus.clear();
  ASSERT_EQ(exercise::configure({policy}), "");
  exercise::Attachment attachment;
  ASSERT_EQ(attachment.attach(), "");

  Child child = spinner("zelknone", 1, milliseconds(100));
  runtimeAfterPhase(child);
  const auto key = processKey("zelknone", 1);
  EXPECT_FALSE(lookupTimes(mapFd(MapId::ProcessTime), &key).has_value());
  EXPECT_EQ(countKeys(mapFd(MapId::TotalTime), 4), 0u);
}

INSTANTIATE_TEST_SUITE_P(Guards, UnusableConfigurationTest,
                         ::testing::Values(Unusable{"IndexZero", 0, true},
                                           Unusable{"IndexPastSlots", 33, true},
                                           Unusable{"NoCpus", 3, false}),
                         [](const auto& info) { return std::string(info.param.what); });

// Busy jiffies of all CPUs (everything but idle and iowait), in nanoseconds.
uint64_t busyNs() {
  std::ifstream stat("/proc/stat");
  std::string cpu;
  uint64_t user, nice, system, idle, iowait, irq, softirq, steal;
  stat >> cpu >> user >> nice >> system >> idle >> iowait >> irq >> softirq >> steal;
  return (user + nice + system + irq + softirq + steal) * (1000000000ull / sysconf(_SC_CLK_TCK));
}

TEST_F(CpuTimeTest, TotalAgreesWithProcStatBusyTime) {
  const uint32_t zero = 0;
  const uint64_t startTotal = totalTime(lookupTimes(mapFd(MapId::TotalTime), &zero).value());
  const uint64_t startBusy = busyNs();
  {
    // Load every CPU, so the interval's busy time dwarfs the jiffy granularity.
    std::vector<std::unique_ptr<Child>> load;
    for (uint32_t i = 0; i < possibleCpus(); ++i) {
      load.push_back(std::make_unique<Child>([](ChildLink&) { spin(milliseconds(1000)); }));
    }
    for (auto& child : load) EXPECT_EQ(child->wait(kWait), 0);
  }
  const uint64_t total =
      totalTime(lookupTimes(mapFd(MapId::TotalTime), &zero).value()) - startTotal;
  const uint64_t busy = busyNs() - startBusy;
  EXPECT_NEAR(static_cast<double>(total), busy, 0.05 * busy);
}

TEST_F(CpuTimeTest, KernelThreadsAreKeptApartFromProcesses) {
  Child child = spinner("zelkuser", 1, milliseconds(50));
  runtimeAfterPhase(child);
  // Something in the kernel (kworkers, RCU, ksoftirqd) runs within a second.
  const int kthreads = mapFd(MapId::KthreadTime);
  ASSERT_TRUE(eventually([&] { return countKeys(kthreads, 24) > 0; }, milliseconds(2000)));

  std::set<std::string> processNames;
  com::zelkora::process_key_t key, next;
  for (const void* previous = nullptr;
       bpf_map_get_next_key(mapFd(MapId::ProcessTime), previous, &next) == 0; previous = &key) {
    key = next;
    processNames.insert(std::string(key.comm, strnlen(key.comm, sizeof(key.comm))));
  }
  EXPECT_TRUE(processNames.count("zelkuser"));
  size_t kthreadsWithTime = 0;
  for (const void* previous = nullptr; bpf_map_get_next_key(kthreads, previous, &next) == 0;
       previous = &key) {
    key = next;
    const std::string name(key.comm, strnlen(key.comm, sizeof(key.comm)));
    EXPECT_EQ(key.flag, 1u) << name;
    EXPECT_FALSE(processNames.count(name)) << name << " is both a process and a kernel thread";
    kthreadsWithTime += totalTime(lookupTimes(kthreads, &key).value_or(PerCpuValue())) > 0;
  }
  EXPECT_GT(kthreadsWithTime, 0u);
}

}  // namespace
}  // namespace zelk::testbed
