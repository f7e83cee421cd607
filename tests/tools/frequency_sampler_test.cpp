// The demo on a machine whose cpufreq driver publishes no frequency table (intel_pstate-like):
// the test's tmpfs plays the real policy tree, and its writes to scaling_cur_freq play the
// hardware's frequency changes.
#include "machine/frequency_sampler.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "clocked_spinner.h"
#include "core/map_records.h"
#include "maps.h"
#include "namespace.h"
#include "object_loader.h"
#include "self_status.h"
#include "zelkcpufreqtime.h"

namespace zelk::testbed {
namespace {

using std::chrono::milliseconds;
using Args = std::vector<std::string>;

constexpr int kPeriodMs = 20;

ChildResult runTool(const Args& args) {
  return runProgram(ZELK_TOOL_PATH, args, nullptr, /*withStderr=*/false);
}

uint64_t ownRuntimeNs() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Busy without a break: the slice running at a change is settled before the new index counts.
void busyFor(milliseconds duration) {
  const auto end = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < end) {
  }
}

void setCurrent(uint64_t khz) {
  writeCpufreqFile("policy0/scaling_cur_freq", std::to_string(khz) + "\n");
}

// A child named `name` that, once the demo runs, is busy for 1 s at each frequency in turn,
// writing each as the hardware would while it runs: the change falls inside its slice, where only
// settling the CPUs before the sampler writes the new index keeps the time before it at the old
// frequency. Its runtime per phase goes to `out`, one line each.
pid_t phasedChild(const char* name, const std::vector<uint64_t>& khz, int out) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  prctl(PR_SET_NAME, name, 0, 0, 0);
  // Alone on the last CPU, away from the tool and its sampler thread, so that nothing switches it
  // out at a change.
  if (possibleCpus() >= 2) {
    pinToCpu(0, static_cast<int>(possibleCpus()) - 1);
    setpriority(PRIO_PROCESS, 0, -20);
  }
  std::this_thread::sleep_for(milliseconds(1500));  // the demo loads and starts meanwhile
  setCurrent(khz[0]);
  std::this_thread::sleep_for(milliseconds(5 * kPeriodMs));  // sampled before it counts
  std::string runtimes;
  uint64_t start = ownRuntimeNs();
  for (size_t i = 0; i < khz.size(); ++i) {
    if (i > 0) setCurrent(khz[i]);
    busyFor(milliseconds(1000));
    const uint64_t now = ownRuntimeNs();
    runtimes += std::to_string(now - start) + "\n";
    start = now;
  }
  writeAll(out, runtimes);
  _exit(0);
}

// The child's per-frequency times from the demo's JSON.
std::vector<uint64_t> childTimes(const std::string& json, const std::string& name) {
  std::smatch match;
  const std::regex row("\\{\"name\":\"" + name +
                       "\",\"flag\":[01],\"total_ns\":[0-9]+,\"time_ns\":\\[\\[([0-9,]+)\\]\\]\\}");
  std::vector<uint64_t> times;
  if (!std::regex_search(json, match, row)) return times;
  std::stringstream list(match[1].str());
  for (std::string number; std::getline(list, number, ',');) times.push_back(std::stoull(number));
  return times;
}

class SampledFrequencyTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
  // policy0 over every CPU, as intel_pstate shows it: limits and a current frequency, no table.
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    addTablelessMachinePolicy("intel_pstate", 800000, 3000000, 800000);
  }
};

TEST_F(SampledFrequencyTest, TimeLandsInTheBinOfTheSampledFrequency) {
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const pid_t child = phasedChild("zelkphased", {1200000, 2400000}, pipeFds[1]);
  ASSERT_GT(child, 0);
  if (possibleCpus() >= 2) pinToCpu(0, 0);  // the tool
  close(pipeFds[1]);
  const uint64_t untaskedBefore = untaskedNs();
  const ChildResult run = runTool({"demo", "--seconds", "5", "--json", "--limit", "0",
                                   "--sample-ms", std::to_string(kPeriodMs)});
  const uint64_t untasked = untaskedNs() - untaskedBefore;
  std::string runtimes;
  android::base::ReadFdToString(pipeFds[0], &runtimes);
  close(pipeFds[0]);
  waitpid(child, nullptr, 0);
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(std::regex_search(run.output,
                                std::regex("\"sampled_ms\":20,\"freqs_khz\":\\[\\[800000,900000,")))
      << run.output.substr(0, 300);

  const std::vector<uint64_t> times = childTimes(run.output, "zelkphased");
  ASSERT_EQ(times.size(), 23u) << run.output;
  std::stringstream lines(runtimes);
  uint64_t first = 0, second = 0;
  lines >> first >> second;
  ASSERT_GT(second, 0u) << "the child did not report";
  // The sampler sees a change within a period and settles before it writes the new index.
  const uint64_t slack = 50 * 1000000ull;
  printf("1200 MHz: counted %.1f ms, ran %.1f ms; 2400 MHz: counted %.1f ms, ran %.1f ms\n",
         times[4] / 1e6, first / 1e6, times[16] / 1e6, second / 1e6);
  EXPECT_NEAR(static_cast<double>(times[4]), first, slack);
  EXPECT_NEAR(static_cast<double>(times[16]), second, slack);
  uint64_t all = 0;
  for (uint64_t t : times) all += t;
  // Nothing is lost to sampling: the total is the child's runtime (within 2%, and what
  // interrupts and the hypervisor took, which the object's wall time between switches counts and
  // the task clock does not), and all but its moments between the phases is in the two bins.
  EXPECT_GE(static_cast<double>(all), 0.98 * (first + second));
  EXPECT_LE(static_cast<double>(all), 1.02 * (first + second) + untasked);
  EXPECT_LT(all - times[4] - times[16], slack);
}

TEST_F(SampledFrequencyTest, GarbageInScalingCurFreqSkipsSamplesAndKeepsTheLastBin) {
  writeCpufreqFile("policy0/scaling_cur_freq", "garbage\n");
  const ChildResult run = runTool({"demo", "--seconds", "1", "--sample-ms", "10"});
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(std::regex_search(
      run.output, std::regex("SAMPLED every 10 ms: the time of policy0 \\(intel_pstate, CPUs "
                             "[^)]*\\) in 23 bins from 800 to 3000 MHz")))
      << run.output;
  EXPECT_TRUE(std::regex_search(
      run.output, std::regex("The frequency sampler woke [0-9]+ times in 1 s and used [0-9.]+ ms "
                             "of CPU \\([1-9][0-9]* readings skipped\\)")))
      << run.output;
}

TEST_F(SampledFrequencyTest, WithoutATableStartSaysWhichDriverAndWhatWorks) {
  const ChildResult run = runProgram(ZELK_TOOL_PATH, {"start", "--seconds", "1"});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(
      std::regex_search(run.output, std::regex("zelkcputime: policy0 \\(driver intel_pstate\\) "
                                               "publishes no frequency table.*`zelkcputime demo`")))
      << run.output;
}

// A table, but no frequency events (a driver that never reports its changes): --sample follows
// scaling_cur_freq, where the tracking start alone would keep the first frequency for ever.
class SampledTableTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
};

TEST_F(SampledTableTest, SampleOptionFollowsAPolicyWithATable) {
  addMachinePolicy({1000000, 2000000});
  // As x86 shows it, an APERF/MPERF average and no entry of the table: the library's start looks
  // it up and would refuse it.
  setCurrent(1437512);
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const pid_t child = phasedChild("zelktabled", {2000000}, pipeFds[1]);
  ASSERT_GT(child, 0);
  close(pipeFds[1]);
  const ChildResult run = runTool({"demo", "--seconds", "4", "--json", "--limit", "0", "--sample",
                                   "--sample-ms", std::to_string(kPeriodMs)});
  std::string runtime;
  android::base::ReadFdToString(pipeFds[0], &runtime);
  close(pipeFds[0]);
  waitpid(child, nullptr, 0);
  ASSERT_EQ(run.status, 0) << run.output;
  const std::vector<uint64_t> times = childTimes(run.output, "zelktabled");
  ASSERT_EQ(times.size(), 2u) << run.output;
  const uint64_t ran = std::stoull(runtime);
  printf("2000 MHz: counted %.1f ms, ran %.1f ms; 1000 MHz: %.1f ms\n", times[1] / 1e6, ran / 1e6,
         times[0] / 1e6);
  EXPECT_NEAR(static_cast<double>(times[1]), ran, 2 * kPeriodMs * 1000000.0);
}

// The frequency program writes the index too: on a driver that sends events, or an event that
// matches a bin. A sampled policy's events find no index, and any other writer holds it for a
// period at most.
TEST_F(SampledTableTest, TheSamplerIsASampledPolicysOnlySource) {
  addPolicy("policy0", {1000000, 2000000}, {0});
  addPolicy("policy1", {500000, 900000}, {1});
  setCurrent(2000000);
  const loader::Outcome loaded = loader::load();
  ASSERT_EQ(loaded.status, loader::Status::kLoaded) << loaded.message;
  ASSERT_TRUE(com::zelkora::startTrackingCpuFreqTime());
  const auto freqs = com::zelkora::getCpuFreqs();
  ASSERT_TRUE(freqs && freqs->size() == 2);
  std::vector<cli::SampledPolicy> sampled;
  sampled.push_back(
      {0,
       "policy0",
       android::base::unique_fd(open(
           (std::string(kCpufreqDir) + "/policy0/scaling_cur_freq").c_str(), O_RDONLY | O_CLOEXEC)),
       (*freqs)[0],
       {0}});
  cli::FrequencySampler sampler(std::move(sampled), milliseconds(kPeriodMs));
  ASSERT_EQ(sampler.start(), "");

  const android::base::unique_fd toIndex(bpf_obj_get(pinPath(MapId::FreqToIdx).c_str()));
  const android::base::unique_fd current(bpf_obj_get(pinPath(MapId::PolicyFreqIdx).c_str()));
  ASSERT_GE(toIndex.get(), 0);
  ASSERT_GE(current.get(), 0);
  uint32_t index = 0;
  for (const com::zelkora::freq_key_t key : {com::zelkora::freq_key_t{0, 1000000}, {0, 2000000}}) {
    EXPECT_NE(bpf_map_lookup_elem(toIndex.get(), &key, &index), 0) << key.freq;
  }
  const com::zelkora::freq_key_t unsampled = {1, 900000};
  EXPECT_EQ(bpf_map_lookup_elem(toIndex.get(), &unsampled, &index), 0);
  EXPECT_EQ(index, 2u);

  // An event at 1 GHz, written where the frequency program writes it.
  const uint32_t policy = 0, event = 1;
  ASSERT_EQ(bpf_map_update_elem(current.get(), &policy, &event, BPF_ANY), 0);
  EXPECT_TRUE(waitUntil(
      [&] { return bpf_map_lookup_elem(current.get(), &policy, &index) == 0 && index == 2; },
      milliseconds(20 * kPeriodMs)))
      << "index " << index << " after " << 20 * kPeriodMs << " ms";
  sampler.stop();
}

}  // namespace
}  // namespace zelk::testbed
