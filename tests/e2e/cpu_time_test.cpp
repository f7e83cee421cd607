// CPU time counted by the kernel object and read through the library, against the kernel's own
// per-task runtime (/proc/<pid>/schedstat) and busy time (/proc/stat).
#include <pthread.h>

#include <filesystem>
#include <set>
#include <vector>

#include "e2e_bed.h"
#include "maps.h"
#include "object_setup.h"
#include "zelkcpufreqtime_overflow.h"

namespace zelk::testbed {
namespace {

using namespace com::zelkora;

using CpuTimeTest = TrackingTest;

// The object counts a CPU's wall time between switches, schedstat the task's own clock, which
// leaves out interrupts and time the hypervisor took: the object may count more by what
// /proc/stat says those took meanwhile (`untasked`, over all CPUs), and otherwise by 2%.
void expectWithin2Percent(const std::string& what, uint64_t counted, uint64_t runtime,
                          uint64_t untasked) {
  printf("%s: counted %.3f ms, schedstat %.3f ms, interrupts and steal %.3f ms\n", what.c_str(),
         counted / 1e6, runtime / 1e6, untasked / 1e6);
  EXPECT_GE(static_cast<double>(counted), 0.98 * runtime) << what;
  EXPECT_LE(static_cast<double>(counted), 1.02 * runtime + untasked) << what;
}

void* spinInThread(void* link) {
  setName("zelkworker");
  spin(milliseconds(500));
  static_cast<Child*>(link)->tell(gettid());
  pause();
  return nullptr;
}

uint64_t processRuntime(pid_t pid) {
  uint64_t total = 0;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    total += runtimeNs(std::stoi(task.path().filename())).value_or(0);
  }
  return total;
}

// The object reads the running task with plain BTF loads where the kernel allows it, and with
// probe reads before 5.11: both builds run here (the object file, or the loader's own).
class ProcessTimeTest : public TrackingTest, public ::testing::WithParamInterface<const char*> {
 protected:
  const char* objectFile() const override { return GetParam(); }
};

TEST_P(ProcessTimeTest, MatchesSchedstatAtTheCurrentFrequencyApartFromKernelThreads) {
  Child child([](Child& link) {
    setOomScoreAdj(0);
    link.tell(0);
    link.awaitGo();
    setName("zelkspin");
    pthread_t worker;
    if (pthread_create(&worker, nullptr, spinInThread, &link) != 0) _exit(1);
    pause();
  });
  const uint64_t renamed = runtimeAtWord(child);
  child.go();
  const auto worker = child.next();
  ASSERT_TRUE(worker.has_value()) << "the worker did not finish spinning";
  ASSERT_TRUE(waitUntilBlocked(static_cast<pid_t>(*worker)));
  ASSERT_TRUE(waitUntilBlocked(child.pid()));
  const uint64_t runtime = processRuntime(child.pid()) - renamed;

  const auto times = getCpuFreqTimesFromProcess("zelkspin", /*flag=*/true);
  ASSERT_TRUE(times.has_value());
  EXPECT_EQ((*times)[0][0], sum(times)) << "all at the current frequency, the first";
  EXPECT_EQ(sum(getCpuFreqTimesFromProcess("zelkspin", /*flag=*/false)), 0u);
  expectWithin2Percent("zelkspin", sum(times), runtime, untaskedSinceStart());

  // Kernel threads have run meanwhile, apart from the processes; the worker thread counts only
  // under its process, and its rename names no top time.
  const auto processes = getProcessCpuFreqTimes();
  const auto kthreads = getKthreadCpuFreqTimes();
  ASSERT_TRUE(processes.has_value() && kthreads.has_value());
  std::set<std::string> processNames;
  for (const auto& [key, times] : *processes) processNames.insert(key.comm);
  EXPECT_TRUE(processNames.count("zelkspin"));
  EXPECT_FALSE(processNames.count("zelkworker")) << "a thread counted as a process";
  size_t kthreadsWithTime = 0;
  for (const auto& [key, times] : *kthreads) {
    if (isOverflowEntry(key)) continue;  // every counting map has one
    EXPECT_FALSE(processNames.count(key.comm)) << key.comm << " is also a process";
    kthreadsWithTime += sum(times) > 0;
  }
  EXPECT_GT(kthreadsWithTime, 0u);
  EXPECT_EQ(timeOf(getProcessTopTimes(), "zelkworker"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Objects, ProcessTimeTest,
                         ::testing::Values(nullptr, ZELK_PROBE_READS_OBJECT), [](const auto& info) {
                           return std::string(info.param ? "ProbeReads" : "BtfLoads");
                         });

// No cpufreq driver here, so power:cpu_frequency never fires: the index is written by hand, as
// its program would. Time goes to the slot of the index in force at switch-out; an index that no
// slot has (0, or past 32) counts nothing anywhere; a clear restarts the count; a new layout
// counts from the next start.
TEST_F(CpuTimeTest, TimeFollowsTheIndexAndRestartsAfterAClear) {
  const auto counted = [] { return getCpuFreqTimesFromProcess("zelkfreq", /*flag=*/true); };
  Child child = spinner("zelkfreq", {500, 500, 100, 100, 200, 200});
  uint64_t runtime = runtimeAtWord(child);
  const auto phase = [&] {
    const uint64_t start = runtime;
    child.go();
    runtime = runtimeAtWord(child);
    return runtime - start;
  };
  const uint64_t first = phase();
  ASSERT_EQ(exercise::setCurrentIndex(/*policy=*/0, /*index=*/4), "");
  const uint64_t second = phase();
  const auto times = counted();
  ASSERT_TRUE(times.has_value());
  EXPECT_EQ((*times)[0][0] + (*times)[0][3], sum(times));
  expectWithin2Percent("zelkfreq at the first", (*times)[0][0], first, untaskedSinceStart());
  expectWithin2Percent("zelkfreq at the fourth", (*times)[0][3], second, untaskedSinceStart());

  for (uint32_t index : {0u, 33u}) {
    ASSERT_EQ(exercise::setCurrentIndex(0, index), "");
    const uint64_t total = sum(getTotalCpuFreqTimes());
    phase();
    EXPECT_EQ(sum(counted()), sum(times)) << index;
    EXPECT_EQ(sum(getTotalCpuFreqTimes()), total) << index;
  }

  ASSERT_EQ(exercise::setCurrentIndex(0, 1), "");
  ASSERT_TRUE(clearProcessTimes());
  EXPECT_EQ(sum(counted()), 0u);
  const uint64_t last = phase();
  EXPECT_NEAR(sum(counted()), last, 0.1 * last) << "a count that survived the clear is larger";

  // A later start that moves every CPU to another policy, at its second frequency: once it has
  // zeroed the clocks, no CPU counts at the policy it had before.
  std::vector<uint32_t> freqs;
  for (uint32_t khz = 300000; freqs.size() < 32; khz += 100000) freqs.push_back(khz);
  ASSERT_EQ(exercise::configure({{{}, freqs, 1}, exercise::wholeMachinePolicy(freqs, 2)}), "");
  const auto before = counted();
  const uint64_t moved = phase();
  const auto after = counted();
  ASSERT_TRUE(before.has_value() && after.has_value());
  EXPECT_EQ((*after)[0][0], (*before)[0][0]) << "counted at the CPUs' former policy";
  EXPECT_NEAR((*after)[0][1] - (*before)[0][1], moved, 0.1 * moved);
}

// A CPU's time is counted when its task switches out: a short sleeper on every CPU makes each
// one switch, so the total is up to date.
void switchEveryCpu() {
  std::vector<std::thread> sleepers;
  for (uint32_t cpu = 0; cpu < possibleCpus(); ++cpu) {
    sleepers.emplace_back([cpu] {
      cpu_set_t set;
      CPU_ZERO(&set);
      CPU_SET(cpu, &set);
      pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
      sleepFor(milliseconds(1));
    });
  }
  for (std::thread& sleeper : sleepers) sleeper.join();
}

// Busy time of all CPUs (all but idle and iowait), in nanoseconds.
uint64_t busyNs() {
  std::ifstream stat("/proc/stat");
  std::string cpu;
  uint64_t user, nice, system, idle, iowait, irq, softirq, steal;
  stat >> cpu >> user >> nice >> system >> idle >> iowait >> irq >> softirq >> steal;
  return (user + nice + system + irq + softirq + steal) * (1000000000ull / sysconf(_SC_CLK_TCK));
}

TEST_F(CpuTimeTest, TotalAgreesWithProcStatBusyTime) {
  switchEveryCpu();
  const uint64_t startTotal = sum(getTotalCpuFreqTimes());
  const uint64_t startBusy = busyNs();
  {
    // Every CPU loaded, so the busy time dwarfs the jiffy granularity.
    std::vector<std::unique_ptr<Child>> load;
    for (uint32_t i = 0; i < possibleCpus(); ++i) {
      load.push_back(std::make_unique<Child>([](Child&) { spin(milliseconds(1000)); }));
    }
    for (auto& child : load) EXPECT_EQ(child->wait(), 0);
  }
  switchEveryCpu();
  const auto times = getTotalCpuFreqTimes();
  const uint64_t busy = busyNs() - startBusy;
  ASSERT_TRUE(times.has_value());
  EXPECT_EQ((*times)[0][0], sum(times));
  const uint64_t total = sum(times) - startTotal;
  printf("total %.1f ms, /proc/stat busy %.1f ms\n", total / 1e6, busy / 1e6);
  EXPECT_NEAR(static_cast<double>(total), busy, 0.05 * busy);
}

}  // namespace
}  // namespace zelk::testbed
