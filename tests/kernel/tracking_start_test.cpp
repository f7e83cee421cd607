// startTrackingCpuFreqTime and isTrackingCpuFreqTimeSupported against real maps, real pinned
// programs and real tracepoints.
#include <android-base/file.h>
#include <unistd.h>

#include <iterator>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "core/map_records.h"
#include "kernel/bpf_lock.h"
#include "kernel/config_maps.h"
#include "library_test.h"

// For maps keyed by the frequency record: argument-dependent lookup finds these in the record's
// namespace, the global one, since the record is the kernel object's C struct.
bool operator<(const zelk_freq_key& a, const zelk_freq_key& b) {
  return std::tie(a.policy, a.freq) < std::tie(b.policy, b.freq);
}
bool operator==(const zelk_freq_key& a, const zelk_freq_key& b) { return !(a < b) && !(b < a); }

namespace com::zelkora {

namespace {

using namespace std::chrono_literals;
using namespace zelk::testbed;
using U32Map = std::map<uint32_t, uint32_t>;

// In the order in which a start must take their write locks: of two processes starting at once,
// the one that gets the first lock gets them all.
constexpr MapId kConfigMaps[] = {MapId::CpuPolicy, MapId::FreqToIdx, MapId::CpuLastUpdate,
                                 MapId::PolicyFreqIdx};

class TrackingStartTest : public LibraryTest {
 protected:
  // Two clusters, the big one listing its top frequency as available and as boost (twice in its
  // table), and a policy without CPUs.
  void SetUp() override {
    LibraryTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    addPolicy("policy0", {300000, 576000, 1017600}, {0, 1, 2, 3});
    writeCpufreqFile("policy0/scaling_cur_freq", "576000\n");
    addPolicy("policy4", {500000, 1200000, 2400000}, {4, 5, 6, 7});
    writeCpufreqFile("policy4/scaling_boost_frequencies", "2400000\n");
    addPolicy("policy8", {100000}, {});
    ASSERT_EQ(pinPrograms(), "");
  }

  // The entries written. An array holds every key, and an entry never written reads 0, which no
  // written index is.
  U32Map read32(MapId id) const {
    U32Map written = entries<uint32_t, uint32_t>(fd(id));
    if (catalogue(id).type != BPF_MAP_TYPE_ARRAY) return written;
    for (auto it = written.begin(); it != written.end();) {
      it = it->second == 0 ? written.erase(it) : std::next(it);
    }
    return written;
  }
  int fd(MapId id) const { return maps_.fd(id); }
  // cpu_last_update_map's only value, one entry per possible CPU.
  std::vector<uint64_t> lastUpdate(std::optional<uint64_t> write = std::nullopt) {
    const uint32_t key = 0;
    std::vector<uint64_t> value(possibleCpus(), write.value_or(0));
    if (write) update(fd(MapId::CpuLastUpdate), &key, value.data());
    lookup(fd(MapId::CpuLastUpdate), &key, value.data());
    return value;
  }
};

TEST_F(TrackingStartTest, WritesTheLayoutKeyByKeyAttachesEveryProgramAndStartsOnce) {
  const uint32_t cpu0 = 0, stalePolicy = 9;  // stale entries of an earlier configuration
  update(fd(MapId::CpuPolicy), &cpu0, &stalePolicy);
  lastUpdate(0xdead);
  // A current frequency that is not one table entry fails the start before it attaches: had it
  // attached a program, the kernel would refuse it in the start that follows.
  for (const char* current : {"1234\n", "500000 1200000\n", ""}) {
    SCOPED_TRACE(std::string("scaling_cur_freq \"") + current + "\"");
    writeCpufreqFile("policy4/scaling_cur_freq", current);
    EXPECT_FALSE(startTrackingCpuFreqTime());
    EXPECT_TRUE(log_.lines().empty());
    EXPECT_EQ(threads_.running(), 0u);
    EXPECT_EQ(read32(MapId::PolicyFreqIdx), (U32Map{{0, 2}})) << "written before the failure";
  }
  writeCpufreqFile("policy4/scaling_cur_freq", "2400000\n");
  ASSERT_TRUE(startTrackingCpuFreqTime());

  EXPECT_EQ(read32(MapId::CpuPolicy),
            (U32Map{{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 1}, {5, 1}, {6, 1}, {7, 1}}));
  const std::map<freq_key_t, uint32_t> freqIndices = {
      {{0, 300000}, 1},  {{0, 576000}, 2},  {{0, 1017600}, 3}, {{1, 500000}, 1},
      {{1, 1200000}, 2}, {{1, 2400000}, 4}, {{2, 100000}, 1}};
  EXPECT_EQ((entries<freq_key_t, uint32_t>(fd(MapId::FreqToIdx))), freqIndices)
      << "a frequency listed twice keeps the index written last";
  EXPECT_EQ(lastUpdate(), std::vector<uint64_t>(possibleCpus(), 0));
  EXPECT_EQ(read32(MapId::PolicyFreqIdx), (U32Map{{0, 2}, {1, 3}}))
      << "the first index of the current frequency; none for the policy without CPUs";
  const auto lines = log_.lines();  // the thread's lines follow
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0].priority, ANDROID_LOG_INFO);
  EXPECT_EQ(withoutLine(lines[0].text),
            "[startTrackingCpuFreqTime:N] zelkCputimeInState tracking success.");

  // The kernel refuses a second attachment of a program to a tracepoint.
  for (const auto& tp : objectTracepoints()) {
    EXPECT_FALSE(attachPinnedProgram(tp)) << tp.event << " was not attached";
  }
  for (MapId id : kConfigMaps) {
    android::base::unique_fd unlocked(android::bpf::mapRetrieveWO(pinPath(id).c_str()));
    EXPECT_GE(unlocked.get(), 0) << pinPath(id) << " is still locked";
  }

  ASSERT_TRUE(threads_.ended(log_));
  // This process on the real /proc: its adj, and its 15-character name cut to 14.
  const auto seeded = entries<int32_t, int16_t>(fd(MapId::PidAdj));
  ASSERT_EQ(seeded.count(getpid()), 1u) << "the pass seeded this process";
  std::string adj, comm;
  ASSERT_TRUE(android::base::ReadFileToString("/proc/self/oom_score_adj", &adj));
  ASSERT_TRUE(android::base::ReadFileToString("/proc/self/comm", &comm));
  EXPECT_EQ(seeded.at(getpid()), std::stoi(adj));
  ASSERT_EQ(comm, "tracking_start_\n");
  const auto names = entries<int32_t, process_info_t>(fd(MapId::PidComm));
  EXPECT_EQ(std::string(names.at(getpid()).comm, 16), std::string("tracking_start\0\0", 16));

  // A second start writes, attaches and logs nothing: undo what the first wrote, unpin the
  // programs.
  for (uint32_t cpu = 0; cpu < 8; ++cpu) bpf_map_delete_elem(fd(MapId::CpuPolicy), &cpu);
  lastUpdate(77);
  for (const auto& tp : objectTracepoints()) unpinProgram(tp);
  log_.clear();
  EXPECT_TRUE(startTrackingCpuFreqTime());
  EXPECT_EQ(threads_.running(), 0u);
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_TRUE(read32(MapId::CpuPolicy).empty());
  EXPECT_EQ(lastUpdate()[0], 77u);
  EXPECT_TRUE(isTrackingCpuFreqTimeSupported()) << "attached programs need no pins";
}

TEST_F(TrackingStartTest, MissingProgramFailsTheSupportCheckAndTheStartAfterTheOnesBeforeIt) {
  const auto& tp = objectTracepoints();
  std::vector<std::string> order;
  for (const auto& program : tp) order.push_back(program.category + ":" + program.event);
  ASSERT_EQ(order, (std::vector<std::string>{"sched:sched_switch", "power:cpu_frequency",
                                             "sched:sched_process_free", "sched:sched_process_fork",
                                             "task:task_rename", "oom:oom_score_adj_update"}))
      << "the order in which the library checks and attaches them";
  for (const auto& program : tp) {
    unpinProgram(program);
    EXPECT_FALSE(isTrackingCpuFreqTimeSupported()) << "without " << program.event;
    ASSERT_EQ(pinProgram(program), "");
  }
  const size_t checkFds = openDescriptorCount();
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(isTrackingCpuFreqTimeSupported());
  unpinProgram(tp[2]);
  for (int i = 0; i < 100; ++i) EXPECT_FALSE(isTrackingCpuFreqTimeSupported());
  EXPECT_EQ(openDescriptorCount(), checkFds);
  EXPECT_TRUE(log_.lines().empty()) << "the check logs nothing of its own";

  // The first two programs stay attached, and the thread starts all the same.
  EXPECT_FALSE(startTrackingCpuFreqTime());
  ASSERT_TRUE(waitUntil([&] { return log_.count("Trigger:") == 1; }, 10s))
      << "the background thread runs after a failed attach too";
  ASSERT_TRUE(threads_.ended(log_));
  const auto lines = log_.lines();
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(withoutLine(lines[0].text),
            "[attachTracepointProgram:N] Failed to retrieve program sched_process_free, "
            "No such file or directory");
  EXPECT_EQ(withoutLine(lines[1].text),
            "[startTrackingCpuFreqTime:N] zelkCputimeInState tracking failed.");
  EXPECT_EQ(withoutLine(lines[2].text), "[doPollPsi:N] Trigger: some 500000 1000000");
  EXPECT_EQ(countKeys(fd(MapId::PidComm), 4), 0u) << "no seeding without tracking";
  // Retries fail at the first program, which the kernel refuses again; none keeps it open.
  const size_t fds = openDescriptorCount();
  for (int i = 0; i < 50; ++i) EXPECT_FALSE(startTrackingCpuFreqTime());
  ASSERT_TRUE(threads_.ended(log_));
  EXPECT_EQ(openDescriptorCount(), fds) << "a program that failed to attach is not kept open";
  EXPECT_EQ(log_.count("Failed to attach program sched_switch, "), 50u);  // errno as BCC left it
  EXPECT_FALSE(attachPinnedProgram(tp[0])) << "sched_switch stays attached";
  EXPECT_FALSE(attachPinnedProgram(tp[1])) << "cpu_frequency stays attached";
  EXPECT_TRUE(attachPinnedProgram(tp[3])) << "sched_process_fork was never tried";
}

// The writers on their own, with tables that are not the library's state, as the tool's sampler
// and zelk-exercise use them.
TEST_F(TrackingStartTest, ConfigWritersWriteTheTablesTheyAreGiven) {
  const PolicyLists cpus = {{6, 7}, {}, {2}};
  ASSERT_TRUE(writeCpuPolicies(fd(MapId::CpuPolicy), cpus));
  EXPECT_EQ(read32(MapId::CpuPolicy), (U32Map{{6, 0}, {7, 0}, {2, 2}}));
  ASSERT_TRUE(writeFreqIndices(fd(MapId::FreqToIdx), {{10, 20, 20}, {30}}));
  const std::map<freq_key_t, uint32_t> written = {{{0, 10}, 1}, {{0, 20}, 3}, {{1, 30}, 1}};
  EXPECT_EQ((entries<freq_key_t, uint32_t>(fd(MapId::FreqToIdx))), written);
  ASSERT_TRUE(writeCurrentFreqIndex(fd(MapId::PolicyFreqIdx), 5, 9));
  EXPECT_EQ(read32(MapId::PolicyFreqIdx), (U32Map{{5, 9}}));
  ASSERT_TRUE(writeZeroLastUpdate(fd(MapId::CpuLastUpdate), possibleCpus()));
  EXPECT_EQ(lastUpdate(), std::vector<uint64_t>(possibleCpus(), 0));

  // A frequency listed twice, or absent, is removed all the same; other policies' stay.
  EXPECT_TRUE(deleteFreqIndices(fd(MapId::FreqToIdx), 0, {20, 20, 10, 99}));
  EXPECT_EQ((entries<freq_key_t, uint32_t>(fd(MapId::FreqToIdx))),
            (std::map<freq_key_t, uint32_t>{{{1, 30}, 1}}));
  ASSERT_EQ(maps_.freeze(MapId::FreqToIdx), "");
  errno = 0;
  EXPECT_FALSE(deleteFreqIndices(fd(MapId::FreqToIdx), 1, {30}));
  EXPECT_EQ(errno, EPERM) << "the failed delete's errno";
  EXPECT_TRUE(log_.lines().empty()) << "the writers log nothing";
}

// A configuration map that refuses the start: write-locked by another open file description (as
// by another configuring process; a missing pin fails the same open), or frozen so that its
// writes fail.
class RefusedConfigMapTest : public TrackingStartTest,
                             public ::testing::WithParamInterface<std::tuple<size_t, bool>> {};

TEST_P(RefusedConfigMapTest, FailsTheStartSilentlyAfterWritingTheMapsBeforeIt) {
  const auto [refused, frozen] = GetParam();
  const MapId id = kConfigMaps[refused];
  lastUpdate(77);
  android::base::unique_fd locked;
  if (frozen) {
    ASSERT_EQ(maps_.freeze(id), "");
  } else {
    locked.reset(android::bpf::mapRetrieveWO(pinPath(id).c_str()));
  }

  ASSERT_TRUE(getCpuFreqs().has_value());  // the nine maps this process keeps open
  const size_t fds = openDescriptorCount();
  EXPECT_FALSE(startTrackingCpuFreqTime());
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(threads_.running(), 0u);
  EXPECT_EQ(openDescriptorCount(), fds);
  const bool written[] = {!read32(MapId::CpuPolicy).empty(), countKeys(fd(MapId::FreqToIdx), 8) > 0,
                          lastUpdate()[0] != 77, !read32(MapId::PolicyFreqIdx).empty()};
  for (size_t i = 0; i < std::size(kConfigMaps); ++i) {
    EXPECT_EQ(written[i], i < refused) << pinPath(kConfigMaps[i]);
  }
  if (frozen) return;
  locked.reset();  // closing the holder releases the lock
  EXPECT_TRUE(startTrackingCpuFreqTime());
}

INSTANTIATE_TEST_SUITE_P(EachMap, RefusedConfigMapTest,
                         ::testing::Combine(::testing::Range<size_t>(0, std::size(kConfigMaps)),
                                            ::testing::Bool()),
                         [](const auto& info) {
                           return std::string(std::get<1>(info.param) ? "frozen_" : "locked_") +
                                  catalogue(kConfigMaps[std::get<0>(info.param)]).name;
                         });

}  // namespace
}  // namespace com::zelkora
