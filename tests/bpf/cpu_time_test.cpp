// The object's CPU time accounting on the real scheduler, checked against the kernel's own
// per-task runtime (/proc/<pid>/schedstat) and busy time (/proc/stat).
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "object_bed.h"
#include "object_loader.h"
#include "object_setup.h"
#include "scripted_child.h"

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

// The object reads the running task with plain BTF loads where the kernel allows it, and with
// probe reads before 5.11; both builds run here.
struct TaskReads {
  const char* what;
  const char* objectFile;  // nullptr: the loader's own object
};

void PrintTo(const TaskReads& reads, std::ostream* out) { *out << reads.what; }

class ProcessTimeTest : public CpuTimeTest, public ::testing::WithParamInterface<TaskReads> {
 protected:
  void SetUp() override {
    if (GetParam().objectFile != nullptr) {
      std::ifstream file(GetParam().objectFile, std::ios::binary);
      bytes_.assign(std::istreambuf_iterator<char>(file), {});
      ASSERT_FALSE(bytes_.empty()) << GetParam().objectFile;
    }
    CpuTimeTest::SetUp();
    if (IsSkipped() || HasFatalFailure() || bytes_.empty()) return;
    attachment_.detach();
    loader::LoadOptions options;
    options.replace = true;
    options.object = {bytes_.data(), bytes_.size()};
    ASSERT_EQ(loader::load(options).status, loader::Status::kLoaded);
    ASSERT_EQ(exercise::configure({wholeMachinePolicy(kFreqs, /*currentIndex=*/3)}), "");
    ASSERT_EQ(attachment_.attach(), "");
  }

 private:
  std::string bytes_;
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
  uint64_t sum = 0;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    sum += runtimeNs(std::stoi(task.path().filename())).value_or(0);
  }
  return sum;
}

// Text saying how far `counted` is from the scheduler's `runtime`, or "" within 2%.
std::string offBy2Percent(const std::string& what, uint64_t counted, uint64_t runtime) {
  if (std::abs(static_cast<double>(counted) - runtime) <= 0.02 * runtime) return "";
  char text[160];
  snprintf(text, sizeof(text), "%s: counted %.3f ms, schedstat %.3f ms; ", what.c_str(),
           counted / 1e6, runtime / 1e6);
  return text;
}

// On this shared VM one measurement in some twenty differs from schedstat by 5 to 20 ms, in
// either direction and for reasons outside the object; a measurement out of 2% is taken once
// more with a fresh child, so only a fault that repeats fails.
constexpr int kAttempts = 2;

TEST_P(ProcessTimeTest, MatchesSchedstatUnderTheProcessNameAtCurrentIndex) {
  std::string failures;
  bool within = false;
  for (int attempt = 0; attempt < kAttempts && !within; ++attempt) {
    const std::string name = "zelkspin" + std::to_string(attempt);
    Child child([name](ChildLink& link) {
      setOomScoreAdj(0);
      setName(name.c_str());
      pthread_t worker;
      if (pthread_create(&worker, nullptr, spinInThread, &link) != 0) _exit(1);
      pause();
    });
    const auto worker = child.next(kWait);
    ASSERT_TRUE(worker.has_value()) << "the worker did not finish spinning";
    ASSERT_TRUE(waitUntilBlocked(static_cast<pid_t>(*worker), kWait));
    ASSERT_TRUE(waitUntilBlocked(child.pid(), kWait));
    const uint64_t runtime = processRuntime(child.pid());

    const auto times = processTimes(name.c_str());
    ASSERT_TRUE(times.has_value()) << "no process entry for " << name;
    // Current index 3 is slot 2; nothing anywhere else.
    EXPECT_EQ(slotTime(*times, 2), totalTime(*times));
    const auto background = processKey(name, 0);
    EXPECT_FALSE(lookupTimes(mapFd(MapId::ProcessTime), &background).has_value());
    printf("%s: counted %.3f ms, schedstat %.3f ms\n", name.c_str(), totalTime(*times) / 1e6,
           runtime / 1e6);
    const std::string failure = offBy2Percent(name, totalTime(*times), runtime);
    within = failure.empty();
    failures += failure;
  }
  EXPECT_TRUE(within) << failures;

  // Kernel threads (kworkers, RCU, ksoftirqd) have run meanwhile, apart from the processes.
  std::set<std::string> processNames;
  for (const auto& key : timeKeys(mapFd(MapId::ProcessTime))) processNames.insert(nameOf(key));
  EXPECT_FALSE(processNames.count("zelkworker")) << "a thread counted as a process";
  size_t kthreadsWithTime = 0;
  for (const auto& key : timeKeys(mapFd(MapId::KthreadTime))) {
    EXPECT_EQ(key.flag, 1u) << nameOf(key);
    EXPECT_FALSE(processNames.count(nameOf(key))) << nameOf(key) << " is also a process";
    const auto times = lookupTimes(mapFd(MapId::KthreadTime), &key);
    kthreadsWithTime += times && totalTime(*times) > 0;
  }
  EXPECT_GT(kthreadsWithTime, 0u);
}

INSTANTIATE_TEST_SUITE_P(Objects, ProcessTimeTest,
                         ::testing::Values(TaskReads{"BtfLoads", nullptr},
                                           TaskReads{"ProbeReads", ZELK_PROBE_READS_OBJECT}),
                         [](const auto& info) { return std::string(info.param.what); });

TEST_F(CpuTimeTest, FrequencyChangeMovesLaterTimeToItsSlot) {
  std::string failures;
  bool within = false;
  for (int attempt = 0; attempt < kAttempts && !within; ++attempt) {
    ASSERT_EQ(exercise::setCurrentIndex(/*policy=*/0, /*index=*/3), "");
    const std::string name = "zelkfreq" + std::to_string(attempt);
    // Phases long enough that 2% is well above the scheduler's tick.
    Child child = spinner(name.c_str(), 2, milliseconds(500));
    const uint64_t first = runtimeAfterPhase(child);
    ASSERT_EQ(exercise::setCurrentIndex(/*policy=*/0, /*index=*/5), "");
    child.go();
    const uint64_t second = runtimeAfterPhase(child) - first;

    const auto times = processTimes(name.c_str());
    ASSERT_TRUE(times.has_value());
    EXPECT_EQ(slotTime(*times, 2) + slotTime(*times, 4), totalTime(*times));
    const std::string failure = offBy2Percent(name + " at index 3", slotTime(*times, 2), first) +
                                offBy2Percent(name + " at index 5", slotTime(*times, 4), second);
    within = failure.empty();
    failures += failure;
  }
  EXPECT_TRUE(within) << failures;
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
  const uint32_t zero = 0;
  // No entry yet when nothing has switched out since the programs were attached.
  const auto systemTime = [&] {
    return totalTime(lookupTimes(mapFd(MapId::TotalTime), &zero).value_or(PerCpuValue()));
  };
  switchEveryCpu();
  const uint64_t startTotal = systemTime();
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
  const uint64_t total = systemTime() - startTotal;
  const uint64_t busy = busyNs() - startBusy;
  printf("total map %.1f ms, /proc/stat busy %.1f ms\n", total / 1e6, busy / 1e6);
  EXPECT_NEAR(static_cast<double>(total), busy, 0.05 * busy);
}

}  // namespace
}  // namespace zelk::testbed
