// Lazy initialisation: discovery plus the nine map opens, its retries and its single run.
#include <bpf/bpf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "core/possible_cpus.h"
#include "core/state.h"
#include "log_capture.h"
#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "self_status.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;
using Table = std::vector<std::vector<uint64_t>>;

class InitGlobalsTest : public zelk::testbed::KernelTest {
 protected:
  zelk::testbed::Maps maps_;
  zelk::testbed::LogCapture log_;
};

TEST_F(InitGlobalsTest, FirstCallDiscoversAndOpensEverything) {
  ASSERT_EQ(maps_.create(), "");
  const Table table = zelk::testbed::addPhoneTree();
  EXPECT_FALSE(gGlobalsReady.load());
  EXPECT_EQ(getCpuFreqs(), table);
  EXPECT_TRUE(gGlobalsReady.load());
  EXPECT_EQ(gPolicyCount, 3u);
  EXPECT_GE(gCpuBlockCount, gCpuCount);
  EXPECT_GE(gCpuBlockCount, readPossibleCpuCount().value_or(0));
  for (const auto* fd : {&gProcessTimeFd, &gKthreadTimeFd, &gTotalTimeFd, &gTopTimeFd, &gBgTimeFd,
                         &gPidAdjUpdateFd, &gClearTimeFd, &gProAdjFd, &gProCommFd}) {
    EXPECT_GE(fd->get(), 0);
  }
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(InitGlobalsTest, LaterSysfsChangesAreNotSeen) {
  ASSERT_EQ(maps_.create(), "");
  zelk::testbed::addPolicy("policy0", {100, 200}, {0});
  zelk::testbed::addPolicy("policy1", {300}, {1});
  ASSERT_EQ(getCpuFreqs(), (Table{{100, 200}, {300}}));
  ASSERT_EQ(system("rm -r /sys/devices/system/cpu/cpufreq/policy1"), 0);
  zelk::testbed::addPolicy("policy0", {999}, {0});
  EXPECT_EQ(getCpuFreqs(), (Table{{100, 200}, {300}}));
}

TEST_F(InitGlobalsTest, FailedDiscoveryIsRetriedOnTheNextCall) {
  ASSERT_EQ(maps_.create(), "");
  EXPECT_EQ(getCpuFreqs(), std::nullopt) << "no policy yet";
  zelk::testbed::addPolicy("policy0", {100}, {0});
  EXPECT_EQ(getCpuFreqs(), (Table{{100}}));
  EXPECT_TRUE(log_.lines().empty()) << "discovery logs nothing";
}

class MissingMapTest : public InitGlobalsTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(MissingMapTest, EachAttemptLogsOneErrorWithThePathAndRetriesFromScratch) {
  const MapId missing = zelk::testbed::kLibraryMaps[GetParam()];
  zelk::testbed::MapOptions options;
  options.omit = {missing};
  ASSERT_EQ(maps_.create(options), "");
  zelk::testbed::addPolicy("policy0", {100, 200}, {0});
  zelk::testbed::addPolicy("policy1", {300}, {1});
  const std::string expected = "[initGlobals:N] Failed to open bpf map " +
                               zelk::testbed::pinPath(missing) + ": No such file or directory";

  EXPECT_EQ(getCpuFreqs(), std::nullopt);
  const size_t fdsAfterFirstAttempt = zelk::testbed::openDescriptorCount();
  EXPECT_EQ(getTotalCpuFreqTimes(), std::nullopt);
  EXPECT_EQ(zelk::testbed::openDescriptorCount(), fdsAfterFirstAttempt)
      << "a new attempt replaces the descriptors of the last one";
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 2u) << "one line per attempt";
  for (const auto& line : lines) {
    EXPECT_EQ(line.priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(zelk::testbed::withoutLine(line.text), expected);
  }

  ASSERT_EQ(maps_.pin(missing), "");
  EXPECT_EQ(getCpuFreqs(), (Table{{100, 200}, {300}})) << "each policy once after the retry";
  EXPECT_EQ(gRelatedCpus, (Table{{0}, {1}}));
  EXPECT_EQ(log_.lines().size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(EveryLibraryMap, MissingMapTest, ::testing::Range<size_t>(0, 9));

struct WrongShape {
  MapId id;
  zelk::testbed::MapDef def;
  const char* mismatch;
};

class WrongShapeTest : public InitGlobalsTest, public ::testing::WithParamInterface<WrongShape> {};

TEST_P(WrongShapeTest, IsRefusedLikeAMissingMapAndTheRightOneIsTakenLater) {
  const WrongShape& wrong = GetParam();
  zelk::testbed::MapOptions options;
  options.replace = {{wrong.id, wrong.def}};
  ASSERT_EQ(maps_.create(options), "");
  zelk::testbed::addPolicy("policy0", {100}, {0});

  const size_t fds = zelk::testbed::openDescriptorCount();
  EXPECT_EQ(getCpuFreqs(), std::nullopt);
  EXPECT_EQ(getTotalCpuFreqTimes(), std::nullopt);
  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(zelk::testbed::withoutLine(lines[0].text), "[initGlobals:N] Unexpected bpf map " +
                                                           zelk::testbed::pinPath(wrong.id) + ": " +
                                                           wrong.mismatch);
  EXPECT_EQ(zelk::testbed::openDescriptorCount(), fds + 8) << "the eight maps before it stay open";

  maps_.unpin(wrong.id);
  ASSERT_EQ(maps_.pin(wrong.id), "");
  EXPECT_EQ(getCpuFreqs(), (Table{{100}}));
}

INSTANTIATE_TEST_SUITE_P(
    Maps, WrongShapeTest,
    ::testing::Values(WrongShape{MapId::PidComm,
                                 {"pid_to_comm_map", BPF_MAP_TYPE_HASH, 4, 32, 16},
                                 "value size 32, expected 16"},
                      WrongShape{
                          MapId::PidComm,
                          {"pid_to_comm_map", BPF_MAP_TYPE_PERCPU_HASH, 8, 16, 16},
                          "key size 8, expected 4; map type 5 is per-CPU, expected not per-CPU"},
                      WrongShape{MapId::PidComm,
                                 {"pid_to_comm_map", BPF_MAP_TYPE_LRU_PERCPU_HASH, 4, 16, 16},
                                 "map type 10 is per-CPU, expected not per-CPU"}));

TEST_F(InitGlobalsTest, ShapeOfTimeInStateMapsIsCheckedToo) {
  zelk::testbed::MapOptions options;
  options.replace = {{MapId::ProcessTime, {"process_time", BPF_MAP_TYPE_HASH, 24, 256, 16}}};
  ASSERT_EQ(maps_.create(options), "");
  zelk::testbed::addPolicy("policy0", {100}, {0});
  EXPECT_EQ(getCpuFreqs(), std::nullopt);
  ASSERT_EQ(log_.lines().size(), 1u);
  EXPECT_EQ(zelk::testbed::withoutLine(log_.lines()[0].text),
            "[initGlobals:N] Unexpected bpf map " + zelk::testbed::pinPath(MapId::ProcessTime) +
                ": map type 1 is not per-CPU, expected per-CPU");
}

TEST_F(InitGlobalsTest, ProgramPinnedAtAMapPathIsRefused) {
  zelk::testbed::MapOptions options;
  options.omit = {MapId::ClearTime};
  ASSERT_EQ(maps_.create(options), "");
  zelk::testbed::addPolicy("policy0", {100}, {0});
  struct bpf_insn insns[2] = {};
  insns[0].code = BPF_ALU64 | BPF_MOV | BPF_K;
  insns[1].code = BPF_JMP | BPF_EXIT;
  android::base::unique_fd prog(
      bpf_prog_load(BPF_PROG_TYPE_TRACEPOINT, "decoy", "GPL", insns, 2, nullptr));
  ASSERT_GE(prog.get(), 0);
  ASSERT_EQ(bpf_obj_pin(prog.get(), zelk::testbed::pinPath(MapId::ClearTime).c_str()), 0);

  EXPECT_EQ(getTotalCpuFreqTimes(), std::nullopt);
  ASSERT_EQ(log_.lines().size(), 1u);
  EXPECT_EQ(zelk::testbed::withoutLine(log_.lines()[0].text),
            "[initGlobals:N] Unexpected bpf map " + zelk::testbed::pinPath(MapId::ClearTime) +
                ": not a map");
}

TEST_F(InitGlobalsTest, ConcurrentFirstCallsRunOneDiscovery) {
  ASSERT_EQ(maps_.create(), "");
  // A FIFO for the frequency file: each discovery blocks on it until the test writes, so a second
  // discovery would hang instead of passing unnoticed.
  zelk::testbed::writeCpufreqFile("policy0/related_cpus", "0\n");
  const std::string fifo = "/sys/devices/system/cpu/cpufreq/policy0/scaling_available_frequencies";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);

  std::promise<pid_t> tid1, tid2;
  auto call = [](std::promise<pid_t>* tid) {
    tid->set_value(gettid());
    return getCpuFreqs();
  };
  auto first = std::async(std::launch::async, call, &tid1);
  auto second = std::async(std::launch::async, call, &tid2);
  // Both threads asleep: one in the FIFO's open, the other on the init mutex.
  ASSERT_TRUE(zelk::testbed::waitUntilSleeping(tid1.get_future().get(), std::chrono::seconds(5)));
  ASSERT_TRUE(zelk::testbed::waitUntilSleeping(tid2.get_future().get(), std::chrono::seconds(5)));

  const auto feed = [&](const char* text, int extraFlags) {
    const int fd = open(fifo.c_str(), O_WRONLY | O_CLOEXEC | extraFlags);
    if (fd < 0) return false;
    EXPECT_GT(write(fd, text, strlen(text)), 0);
    close(fd);
    return true;
  };
  ASSERT_TRUE(feed("100 200 \n", 0));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  const bool bothDone = first.wait_until(deadline) == std::future_status::ready &&
                        second.wait_until(deadline) == std::future_status::ready;
  if (!bothDone) {
    feed("999 \n", O_NONBLOCK);  // release the second discovery so the threads can end
    ADD_FAILURE() << "a second discovery ran";
  }
  EXPECT_EQ(first.get(), (Table{{100, 200}}));
  EXPECT_EQ(second.get(), (Table{{100, 200}}));
}

}  // namespace
}  // namespace com::zelkora
