// startTrackingCpuFreqTime against real maps, real pinned programs and real tracepoints.
#include <bpf/bpf.h>
#include <gtest/gtest.h>

#include <map>
#include <utility>

#include "background_threads.h"
#include "core/map_records.h"
#include "kernel/bpf_lock.h"
#include "log_capture.h"
#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "programs.h"
#include "self_status.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using namespace std::chrono_literals;
using zelk::testbed::MapId;
using zelk::testbed::objectTracepoints;

constexpr const char kSuccessLine[] =
    "[startTrackingCpuFreqTime:N] zelkCputimeInState tracking success.";
constexpr const char kFailedLine[] =
    "[startTrackingCpuFreqTime:N] zelkCputimeInState tracking failed.";
constexpr const char kTriggerLine[] = "[doPollPsi:N] Trigger: some 500000 1000000";

using FreqKey = std::pair<uint32_t, uint32_t>;  // policy ordinal, kHz

class TrackingStartTest : public zelk::testbed::KernelTest {
 protected:
  zelk::testbed::NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
  }
  // A background thread uses the library's map descriptors while it seeds; it must end before
  // the process exits and closes them.
  void TearDown() override { threads_.ended(log_); }
  bool threadsEnd() { return threads_.ended(log_); }
  size_t newThreads() const { return threads_.running(); }

  std::map<uint32_t, uint32_t> cpuPolicies() const { return read32(MapId::CpuPolicy); }
  std::map<uint32_t, uint32_t> currentFreqIndices() const { return read32(MapId::PolicyFreqIdx); }
  std::map<FreqKey, uint32_t> freqIndices() const {
    std::map<FreqKey, uint32_t> entries;
    const int fd = maps_.fd(MapId::FreqToIdx);
    freq_key_t key;
    const void* previous = nullptr;
    while (bpf_map_get_next_key(fd, previous, &key) == 0) {
      uint32_t value = 0;
      zelk::testbed::lookup(fd, &key, &value);
      entries[{key.policy, key.freq}] = value;
      previous = &key;
    }
    return entries;
  }
  std::vector<uint64_t> lastUpdate() const {
    std::vector<uint64_t> value(zelk::testbed::possibleCpus());
    const uint32_t key = 0;
    zelk::testbed::lookup(maps_.fd(MapId::CpuLastUpdate), &key, value.data());
    return value;
  }

  zelk::testbed::Maps maps_;
  zelk::testbed::LogCapture log_;
  zelk::testbed::BackgroundThreads threads_;

 private:
  std::map<uint32_t, uint32_t> read32(MapId id) const {
    std::map<uint32_t, uint32_t> entries;
    uint32_t key;
    const void* previous = nullptr;
    while (bpf_map_get_next_key(maps_.fd(id), previous, &key) == 0) {
      zelk::testbed::lookup(maps_.fd(id), &key, &entries[key]);
      previous = &key;
    }
    return entries;
  }
};

// Two clusters; the big one lists its top frequency as available and as boost, so it appears
// twice in its table.
void addTwoClusters() {
  zelk::testbed::addPolicy("policy0", {300000, 576000, 1017600}, {0, 1, 2, 3});
  zelk::testbed::writeCpufreqFile("policy0/scaling_cur_freq", "576000\n");
  zelk::testbed::addPolicy("policy4", {500000, 1200000, 2400000}, {4, 5, 6, 7});
  zelk::testbed::writeCpufreqFile("policy4/scaling_boost_frequencies", "2400000\n");
  zelk::testbed::writeCpufreqFile("policy4/scaling_cur_freq", "2400000\n");
}

std::vector<std::string> texts(const zelk::testbed::LogCapture& log) {
  std::vector<std::string> found;
  for (const auto& line : log.lines()) found.push_back(zelk::testbed::withoutLine(line.text));
  return found;
}

TEST_F(TrackingStartTest, WritesTheLayoutKeyByKeyAndAttachesEveryProgram) {
  addTwoClusters();
  ASSERT_EQ(zelk::testbed::pinPrograms(), "");
  // Stale entries from an earlier configuration are replaced.
  const uint32_t cpu0 = 0, stalePolicy = 9;
  zelk::testbed::update(maps_.fd(MapId::CpuPolicy), &cpu0, &stalePolicy);
  std::vector<uint64_t> staleTimes(zelk::testbed::possibleCpus(), 0xdead);
  zelk::testbed::update(maps_.fd(MapId::CpuLastUpdate), &cpu0, staleTimes.data());

  ASSERT_TRUE(startTrackingCpuFreqTime());

  EXPECT_EQ(cpuPolicies(), (std::map<uint32_t, uint32_t>{
                               {0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 1}, {5, 1}, {6, 1}, {7, 1}}));
  EXPECT_EQ(freqIndices(), (std::map<FreqKey, uint32_t>{{{0, 300000}, 1},
                                                        {{0, 576000}, 2},
                                                        {{0, 1017600}, 3},
                                                        {{1, 500000}, 1},
                                                        {{1, 1200000}, 2},
                                                        {{1, 2400000}, 4}}))
      << "a frequency listed twice keeps the index written last";
  EXPECT_EQ(lastUpdate(), std::vector<uint64_t>(zelk::testbed::possibleCpus(), 0));
  EXPECT_EQ(currentFreqIndices(), (std::map<uint32_t, uint32_t>{{0, 2}, {1, 3}}))
      << "the current frequency takes the index of its first occurrence";

  const auto success = log_.matching("tracking");
  ASSERT_EQ(success.size(), 1u);
  EXPECT_EQ(success[0].priority, ANDROID_LOG_INFO);
  EXPECT_EQ(zelk::testbed::withoutLine(success[0].text), kSuccessLine);

  // The kernel refuses a second attachment of a program to the same tracepoint: each one is
  // attached already.
  for (const auto& tp : objectTracepoints()) {
    EXPECT_FALSE(zelk::testbed::attachPinnedProgram(tp)) << tp.event << " was not attached";
  }
  // The write locks went with the descriptors.
  for (MapId id :
       {MapId::CpuPolicy, MapId::FreqToIdx, MapId::CpuLastUpdate, MapId::PolicyFreqIdx}) {
    android::base::unique_fd fd(android::bpf::mapRetrieveWO(zelk::testbed::pinPath(id).c_str()));
    EXPECT_GE(fd.get(), 0) << zelk::testbed::pinPath(id) << " is still locked";
  }
  // Attached programs are in use whatever becomes of their pins.
  zelk::testbed::unpinProgram(objectTracepoints()[0]);
  EXPECT_TRUE(isTrackingCpuFreqTimeSupported());
}

TEST_F(TrackingStartTest, SecondStartReturnsTrueWithoutWritingAttachingOrLogging) {
  addTwoClusters();
  ASSERT_EQ(zelk::testbed::pinPrograms(), "");
  ASSERT_TRUE(startTrackingCpuFreqTime());
  ASSERT_TRUE(threadsEnd());

  // Undo what the first start wrote, and make any attach fail loudly.
  for (uint32_t cpu = 0; cpu < 8; ++cpu) bpf_map_delete_elem(maps_.fd(MapId::CpuPolicy), &cpu);
  const uint32_t zero = 0;
  const std::vector<uint64_t> marker(zelk::testbed::possibleCpus(), 77);
  zelk::testbed::update(maps_.fd(MapId::CpuLastUpdate), &zero, marker.data());
  for (const auto& tp : objectTracepoints()) zelk::testbed::unpinProgram(tp);
  log_.clear();

  EXPECT_TRUE(startTrackingCpuFreqTime());
  EXPECT_EQ(newThreads(), 0u);
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_TRUE(cpuPolicies().empty());
  EXPECT_EQ(lastUpdate(), marker);
}

TEST_F(TrackingStartTest, CurrentFrequencyThatIsNotOneTableEntryFailsBeforeAttaching) {
  addTwoClusters();
  ASSERT_EQ(zelk::testbed::pinPrograms(), "");
  for (const char* current : {"1234\n", "500000 1200000\n", "", "fast\n"}) {
    SCOPED_TRACE(std::string("scaling_cur_freq \"") + current + "\"");
    zelk::testbed::writeCpufreqFile("policy4/scaling_cur_freq", current);
    EXPECT_FALSE(startTrackingCpuFreqTime());
    EXPECT_TRUE(log_.lines().empty()) << "fails silently";
    EXPECT_EQ(newThreads(), 0u) << "starts no thread";
    EXPECT_EQ(currentFreqIndices(), (std::map<uint32_t, uint32_t>{{0, 2}}))
        << "the first policy's entry was written before the failure, and stays";
  }
  // Had any of the failed starts attached a program, the kernel would now refuse it again.
  zelk::testbed::writeCpufreqFile("policy4/scaling_cur_freq", "1200000\n");
  EXPECT_TRUE(startTrackingCpuFreqTime());
  EXPECT_EQ(currentFreqIndices(), (std::map<uint32_t, uint32_t>{{0, 2}, {1, 2}}));
}

TEST_F(TrackingStartTest, MissingThirdProgramLeavesTheFirstTwoAttachedAndStillStartsTheThread) {
  addTwoClusters();
  ASSERT_EQ(zelk::testbed::pinPrograms({"sched_process_free"}), "");

  EXPECT_FALSE(startTrackingCpuFreqTime());
  EXPECT_TRUE(zelk::testbed::waitUntil([&] { return log_.count("Trigger:") == 1; }, 10s))
      << "the background thread runs after a failed attach too";
  ASSERT_TRUE(threadsEnd());
  const std::vector<std::string> lines = texts(log_);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[0],
            "[attachTracepointProgram:N] Failed to retrieve program sched_process_free, "
            "No such file or directory");
  EXPECT_EQ(lines[1], kFailedLine);
  EXPECT_EQ(lines[2], kTriggerLine);
  EXPECT_EQ(zelk::testbed::countKeys(maps_.fd(MapId::PidComm), 4), 0u)
      << "no seeding while tracking has not started";

  const auto& tp = objectTracepoints();
  EXPECT_FALSE(zelk::testbed::attachPinnedProgram(tp[0])) << "sched_switch stays attached";
  EXPECT_FALSE(zelk::testbed::attachPinnedProgram(tp[1])) << "cpu_frequency stays attached";
  EXPECT_TRUE(zelk::testbed::attachPinnedProgram(tp[3])) << "sched_process_fork was never tried";

  // The retry attaches from the first program again, which the kernel refuses.
  ASSERT_EQ(zelk::testbed::pinProgram(tp[2]), "");
  log_.clear();
  EXPECT_FALSE(startTrackingCpuFreqTime());
  EXPECT_TRUE(zelk::testbed::waitUntil([&] { return log_.count("Trigger:") == 1; }, 10s))
      << "each call that reaches the log line starts one more thread";
  const std::vector<std::string> retry = texts(log_);
  ASSERT_GE(retry.size(), 2u);
  // The kernel's EEXIST for a program that is already on the tracepoint.
  EXPECT_EQ(retry[0],
            "[attachTracepointProgram:N] Failed to attach program sched_switch, File exists");
  EXPECT_EQ(retry[1], kFailedLine);
}

TEST_F(TrackingStartTest, ConfigurationMapLockedByAnotherDescriptionFailsTheStart) {
  addTwoClusters();
  ASSERT_EQ(zelk::testbed::pinPrograms(), "");
  // Held the way another configuring process would hold it: by its own open file description.
  android::base::unique_fd locked(
      android::bpf::mapRetrieveWO(zelk::testbed::pinPath(MapId::PolicyFreqIdx).c_str()));
  ASSERT_GE(locked.get(), 0);

  EXPECT_FALSE(startTrackingCpuFreqTime());
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(newThreads(), 0u);
  EXPECT_EQ(cpuPolicies().size(), 8u) << "maps before the locked one are written";
  EXPECT_TRUE(currentFreqIndices().empty());

  locked.reset();
  EXPECT_TRUE(startTrackingCpuFreqTime());
}

TEST_F(TrackingStartTest, RefusedConfigurationWriteFailsTheStart) {
  addTwoClusters();
  ASSERT_EQ(zelk::testbed::pinPrograms(), "");
  ASSERT_EQ(maps_.freeze(MapId::CpuLastUpdate), "");  // user-space updates now fail with EPERM

  EXPECT_FALSE(startTrackingCpuFreqTime());
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(newThreads(), 0u);
  EXPECT_TRUE(currentFreqIndices().empty()) << "the start stops at the refused write";
}

TEST_F(TrackingStartTest, PolicyWithoutCpusGetsNoCurrentFrequencyEntry) {
  zelk::testbed::addPolicy("policy0", {300000, 600000}, {0, 1});
  zelk::testbed::addPolicy("policy2", {100000, 200000}, {});
  ASSERT_EQ(zelk::testbed::pinPrograms(), "");

  ASSERT_TRUE(startTrackingCpuFreqTime());
  EXPECT_EQ(cpuPolicies(), (std::map<uint32_t, uint32_t>{{0, 0}, {1, 0}}));
  EXPECT_EQ(freqIndices(),
            (std::map<FreqKey, uint32_t>{
                {{0, 300000}, 1}, {{0, 600000}, 2}, {{1, 100000}, 1}, {{1, 200000}, 2}}));
  EXPECT_EQ(currentFreqIndices(), (std::map<uint32_t, uint32_t>{{0, 1}}));
}

}  // namespace
}  // namespace com::zelkora
