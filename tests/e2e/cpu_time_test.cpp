// CPU time counted by the kernel object and read through the library, checked against the
// kernel's own per-task runtime (/proc/<pid>/schedstat) and busy time (/proc/stat).
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "maps.h"
#include "object_setup.h"
#include "scripted_child.h"
#include "tracking_bed.h"

namespace zelk::testbed {
namespace {

using namespace com::zelkora;

class CpuTimeTest : public TrackingTest {};

// A foreground child that, `phases` times, tells the test and spins for `spinFor` on its go; it
// then tells once more and blocks until killed. Time is counted at switch-out under the name
// the task has then, so it takes `name` at the start of a slice: the time counted under it is
// its runtime after its first word.
Child spinner(const char* name, int phases, milliseconds spinFor) {
  return Child([=](ChildLink& link) {
    setOomScoreAdj(0);
    for (int i = 0; i < phases; ++i) {
      link.tell(i);
      link.awaitGo();
      if (i == 0) setName(name);
      spin(spinFor);
    }
    link.tell(phases);
    link.awaitGo();
  });
}

// The child's runtime once it has told the test and switched out.
uint64_t runtimeAtWord(Child& child) {
  EXPECT_TRUE(child.next(kWait).has_value()) << "the child did not tell";
  EXPECT_TRUE(waitUntilBlocked(child.pid(), kWait));
  return runtimeNs(child.pid()).value_or(0);
}

// The object reads the running task with plain BTF loads where the kernel allows it, and with
// probe reads before 5.11; both builds run here.
struct TaskReads {
  const char* what;
  const char* objectFile;  // nullptr: the loader's own object
};

void PrintTo(const TaskReads& reads, std::ostream* out) { *out << reads.what; }

class ProcessTimeTest : public TrackingTest, public ::testing::WithParamInterface<TaskReads> {
 protected:
  const char* objectFile() const override { return GetParam().objectFile; }
};

void* spinInThread(void* link) {
  setName("zelkworker");
  spin(milliseconds(500));
  static_cast<ChildLink*>(link)->tell(gettid());
  pause();
  return nullptr;
}

// Runtime of every task of a process.
uint64_t processRuntime(pid_t pid) {
  uint64_t total = 0;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    total += runtimeNs(std::stoi(task.path().filename())).value_or(0);
  }
  return total;
}

// The object counts a CPU's wall time between switches, schedstat the task's own clock, which
// leaves out interrupts and time the hypervisor took; under load here they differ by up to 1.4%.
void expectWithin2Percent(const std::string& what, uint64_t counted, uint64_t runtime) {
  printf("%s: counted %.3f ms, schedstat %.3f ms\n", what.c_str(), counted / 1e6, runtime / 1e6);
  EXPECT_NEAR(static_cast<double>(counted), runtime, 0.02 * runtime) << what;
}

TEST_P(ProcessTimeTest, MatchesSchedstatAtTheCurrentFrequencyApartFromKernelThreads) {
  Child child([](ChildLink& link) {
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
  const auto worker = child.next(kWait);
  ASSERT_TRUE(worker.has_value()) << "the worker did not finish spinning";
  ASSERT_TRUE(waitUntilBlocked(static_cast<pid_t>(*worker), kWait));
  ASSERT_TRUE(waitUntilBlocked(child.pid(), kWait));
  const uint64_t runtime = processRuntime(child.pid()) - renamed;

  const auto times = getCpuFreqTimesFromProcess("zelkspin", /*flag=*/true);
  ASSERT_TRUE(times.has_value());
  // All at the policy's current frequency, the first; nothing in the background.
  EXPECT_EQ((*times)[0][0], sum(times));
  EXPECT_EQ(sum(getCpuFreqTimesFromProcess("zelkspin", /*flag=*/false)), 0u);
  expectWithin2Percent("zelkspin", sum(times), runtime);

  // Kernel threads (kworkers, RCU, ksoftirqd) have run meanwhile, apart from the processes; the
  // worker thread counts only under its process.
  const auto processes = getProcessCpuFreqTimes();
  const auto kthreads = getKthreadCpuFreqTimes();
  ASSERT_TRUE(processes.has_value() && kthreads.has_value());
  std::set<std::string> processNames;
  for (const auto& [key, times] : *processes) processNames.insert(key.comm);
  EXPECT_TRUE(processNames.count("zelkspin"));
  EXPECT_FALSE(processNames.count("zelkworker")) << "a thread counted as a process";
  size_t kthreadsWithTime = 0;
  for (const auto& [key, times] : *kthreads) {
    EXPECT_FALSE(processNames.count(key.comm)) << key.comm << " is also a process";
    kthreadsWithTime += sum(times) > 0;
  }
  EXPECT_GT(kthreadsWithTime, 0u);
  // A thread has no pid entry of its own, so its rename named no top time.
  EXPECT_EQ(timeOf(getProcessTopTimes(), "zelkworker"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Objects, ProcessTimeTest,
                         ::testing::Values(TaskReads{"BtfLoads", nullptr},
                                           TaskReads{"ProbeReads", ZELK_PROBE_READS_OBJECT}),
                         [](const auto& info) { return std::string(info.param.what); });

// No cpufreq driver here, so power:cpu_frequency never fires: the index is written by hand, as
// its program would write it.
TEST_F(CpuTimeTest, IndexChangeMovesLaterTimeToItsFrequency) {
  // Phases long enough that 2% is well above the scheduler's tick.
  Child child = spinner("zelkfreq", 2, milliseconds(500));
  const uint64_t start = runtimeAtWord(child);
  child.go();
  const uint64_t first = runtimeAtWord(child) - start;
  ASSERT_EQ(exercise::setCurrentIndex(/*policy=*/0, /*index=*/4), "");
  child.go();
  const uint64_t second = runtimeAtWord(child) - start - first;

  const auto times = getCpuFreqTimesFromProcess("zelkfreq", /*flag=*/true);
  ASSERT_TRUE(times.has_value());
  EXPECT_EQ((*times)[0][0] + (*times)[0][3], sum(times));
  expectWithin2Percent("zelkfreq at the first", (*times)[0][0], first);
  expectWithin2Percent("zelkfreq at the fourth", (*times)[0][3], second);
}

TEST_F(CpuTimeTest, ClearProcessTimesRestartsTheCount) {
  Child child = spinner("zelkclear", 2, milliseconds(200));
  const uint64_t start = runtimeAtWord(child);
  child.go();
  const uint64_t cleared = runtimeAtWord(child);
  EXPECT_GT(sum(getCpuFreqTimesFromProcess("zelkclear", true)), (cleared - start) / 2);
  ASSERT_TRUE(clearProcessTimes());
  const auto processes = getProcessCpuFreqTimes();
  ASSERT_TRUE(processes.has_value());
  EXPECT_FALSE(processes->count({"zelkclear", 1}));
  child.go();
  const uint64_t second = runtimeAtWord(child) - cleared;
  // The phases are alike: a count that survived the clear would be about double.
  EXPECT_NEAR(sum(getCpuFreqTimesFromProcess("zelkclear", true)), second, 0.1 * second);
}

// A policy with more frequencies than the object has slots, running at its 33rd; and an index
// of 0, which no frequency has. Neither may land in any slot.
class UnusableIndexTest : public TrackingTest {
 protected:
  void addPolicies() override {
    std::vector<uint64_t> freqs;
    for (uint64_t khz = 100000; freqs.size() < 33; khz += 100000) freqs.push_back(khz);
    addMachinePolicy(freqs);
    writeCpufreqFile("policy0/scaling_cur_freq", std::to_string(freqs.back()) + "\n");
  }
};

TEST_F(UnusableIndexTest, CountsNothing) {
  for (uint32_t index : {33u, 0u}) {
    SCOPED_TRACE(index);
    if (index == 0) {
      ASSERT_EQ(exercise::setCurrentIndex(/*policy=*/0, /*index=*/0), "");
    }
    Child child = spinner("zelknone", 1, milliseconds(100));
    runtimeAtWord(child);
    child.go();
    runtimeAtWord(child);
    // An empty total map is no result at all.
    EXPECT_FALSE(getTotalCpuFreqTimes().has_value());
    const auto processes = getProcessCpuFreqTimes();
    const auto kthreads = getKthreadCpuFreqTimes();
    EXPECT_TRUE(processes.has_value() && processes->empty());
    EXPECT_TRUE(kthreads.has_value() && kthreads->empty());
  }
}

// Time is counted when a task switches out, so a task that has run on alone since its CPU's last
// switch (a CPU-bound process, under no preemption) is not in the total yet: a short sleeper
// moved onto every CPU makes each one switch.
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

// Busy jiffies of all CPUs (everything but idle and iowait), in nanoseconds.
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
    // Load every CPU, so the interval's busy time dwarfs the jiffy granularity.
    std::vector<std::unique_ptr<Child>> load;
    for (uint32_t i = 0; i < possibleCpus(); ++i) {
      load.push_back(std::make_unique<Child>([](ChildLink&) { spin(milliseconds(1000)); }));
    }
    for (auto& child : load) EXPECT_EQ(child->wait(kWait), 0);
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
