// Lazy initialisation: discovery and the nine map opens with their shape check, retried until
// they succeed once, and run once.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>

#include "core/possible_cpus.h"
#include "core/state.h"
#include "library_test.h"
#include "zelkcpufreqtime_policies.h"

namespace com::zelkora {

// For comparing whole lists: argument-dependent lookup finds these in the record's namespace.
bool operator==(const CpuFreqPolicy& a, const CpuFreqPolicy& b) {
  return a.name == b.name && a.cpus == b.cpus;
}
void PrintTo(const CpuFreqPolicy& policy, std::ostream* out) {
  *out << policy.name << ' ' << ::testing::PrintToString(policy.cpus);
}

namespace {

using namespace zelk::testbed;
using Table = std::vector<std::vector<uint64_t>>;

class InitGlobalsTest : public LibraryTest {};

TEST_F(InitGlobalsTest, RetriesDiscoveryUntilItSucceedsThenNeverAgain) {
  EXPECT_EQ(getCpuFreqs(), std::nullopt) << "no policy yet";
  EXPECT_EQ(getCpuFreqPolicies(), std::nullopt);
  addPolicy("policy0", {100, 200}, {0, 1});
  addPolicy("policy4", {300}, {4});
  addPolicy("policy10", {400}, {});
  const Table freqs = {{100, 200}, {300}, {400}};
  const std::vector<CpuFreqPolicy> policies = {
      {"policy0", {0, 1}}, {"policy4", {4}}, {"policy10", {}}};
  EXPECT_EQ(getCpuFreqPolicies(), policies) << "the policies of getCpuFreqs(), in its order";
  EXPECT_EQ(getCpuFreqs(), freqs);
  EXPECT_GE(gCpuBlockCount, readPossibleCpuCount().value_or(0)) << "a block per possible CPU";
  ASSERT_EQ(system("rm -r /sys/devices/system/cpu/cpufreq/policy4"), 0);
  addPolicy("policy0", {999}, {0});
  EXPECT_EQ(getCpuFreqs(), freqs) << "later changes to sysfs are not seen";
  EXPECT_EQ(getCpuFreqPolicies(), policies);
  EXPECT_TRUE(log_.lines().empty()) << "discovery logs nothing";
}

// A library map that is missing, or an object of another shape at its path (a def without a name
// and with an error stands for a program).
struct Refusal {
  std::string name;
  MapId id;
  MapDef def;
  std::string mismatch;  // empty for a missing map
};
void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }

std::vector<Refusal> refusals() {
  std::vector<Refusal> all = {
      {"ValueSize",
       MapId::PidComm,
       {"impostor", BPF_MAP_TYPE_HASH, 4, 32, 16},
       "value size 32, expected 16"},
      {"KeySizeAndPerCpu",
       MapId::PidComm,
       {"impostor", BPF_MAP_TYPE_PERCPU_HASH, 8, 16, 16},
       "key size 8, expected 4; map type 5 is per-CPU, expected not per-CPU"},
      {"LruPerCpu",
       MapId::PidComm,
       {"impostor", BPF_MAP_TYPE_LRU_PERCPU_HASH, 4, 16, 16},
       "map type 10 is per-CPU, expected not per-CPU"},
      {"NotPerCpu",
       MapId::ProcessTime,
       {"impostor", BPF_MAP_TYPE_HASH, 24, 256, 16},
       "map type 1 is not per-CPU, expected per-CPU"},
      {"Program", MapId::ClearTime, {}, "not a map"},
  };
  for (size_t i = 0; i < kLibraryMapCount; ++i) {
    all.push_back({std::string("Missing_") + catalogue(kAllMaps[i]).name, kAllMaps[i], {}, ""});
  }
  return all;
}

class RefusedMapTest : public InitGlobalsTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(RefusedMapTest, EachAttemptLogsOneErrorWithThePathUntilTheRightMapIsPinned) {
  const Refusal& refusal = GetParam();
  const std::string path = pinPath(refusal.id);
  maps_.unpin(refusal.id);
  if (refusal.def.name != nullptr) {
    ASSERT_EQ(maps_.pin(refusal.id, &refusal.def), "");
  } else if (!refusal.mismatch.empty()) {
    const android::base::unique_fd program(loadTrivialProgram("impostor"));
    ASSERT_EQ(bpf_obj_pin(program.get(), path.c_str()), 0);
  }
  addPolicy("policy0", {100, 200}, {0});
  addPolicy("policy1", {300}, {1});

  const size_t fds = openDescriptorCount();
  EXPECT_EQ(getCpuFreqs(), std::nullopt);
  EXPECT_FALSE(isTrackingCpuFreqTimeSupported());
  EXPECT_EQ(openDescriptorCount(), fds + static_cast<size_t>(refusal.id))
      << "the maps before it stay open, it does not, and an attempt replaces the last one's";
  const std::string error = refusal.mismatch.empty()
                                ? "Failed to open bpf map " + path + ": No such file or directory"
                                : "Unexpected bpf map " + path + ": " + refusal.mismatch;
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 2u) << "one line per attempt";
  for (const auto& line : lines) {
    EXPECT_EQ(line.priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(withoutLine(line.text), "[initGlobals:N] " + error);
  }

  ASSERT_EQ(maps_.pin(refusal.id), "");
  EXPECT_EQ(getCpuFreqs(), (Table{{100, 200}, {300}})) << "each policy once after the retry";
  EXPECT_EQ(gRelatedCpus, (Table{{0}, {1}}));
}

INSTANTIATE_TEST_SUITE_P(MissingMapsAndShapes, RefusedMapTest, ::testing::ValuesIn(refusals()),
                         [](const auto& info) { return info.param.name; });

TEST_F(InitGlobalsTest, ConcurrentFirstCallsRunOneDiscovery) {
  // A FIFO for the frequency file: each discovery blocks on it until the test writes, so a second
  // discovery would hang instead of passing unnoticed.
  writeCpufreqFile("policy0/related_cpus", "0\n");
  const std::string fifo = "/sys/devices/system/cpu/cpufreq/policy0/scaling_available_frequencies";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::promise<pid_t> tid1, tid2;
  const auto call = [](std::promise<pid_t>* tid) {
    tid->set_value(gettid());
    return getCpuFreqs();
  };
  auto first = std::async(std::launch::async, call, &tid1);
  auto second = std::async(std::launch::async, call, &tid2);
  // Both threads asleep: one in the FIFO's open, the other on the init mutex.
  ASSERT_TRUE(waitUntilSleeping(tid1.get_future().get(), std::chrono::seconds(5)));
  ASSERT_TRUE(waitUntilSleeping(tid2.get_future().get(), std::chrono::seconds(5)));

  const auto feed = [&](const char* text, int extraFlags) {
    const android::base::unique_fd fd(open(fifo.c_str(), O_WRONLY | O_CLOEXEC | extraFlags));
    return fd.get() >= 0 && write(fd.get(), text, strlen(text)) > 0;
  };
  ASSERT_TRUE(feed("100 200 \n", 0));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  if (first.wait_until(deadline) != std::future_status::ready ||
      second.wait_until(deadline) != std::future_status::ready) {
    feed("999 \n", O_NONBLOCK);  // release the second discovery so the threads can end
    ADD_FAILURE() << "a second discovery ran";
  }
  EXPECT_EQ(first.get(), (Table{{100, 200}}));
  EXPECT_EQ(second.get(), (Table{{100, 200}}));
}

}  // namespace
}  // namespace com::zelkora
