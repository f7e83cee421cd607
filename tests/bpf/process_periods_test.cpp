// Foreground/background periods and the pid maps, driven by real processes: oom_score_adj
// writes, renames, forks, threads and exits.
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <set>

#include "object_bed.h"
#include "object_setup.h"
#include "scripted_child.h"

namespace zelk::testbed {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kWait(5000);
constexpr double kMs = 1e6;

class ProcessPeriodsTest : public ObjectTest {
 protected:
  void SetUp() override {
    ObjectTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(exercise::configure({exercise::wholeMachinePolicy({1000000}, 1)}), "");
    ASSERT_EQ(attachment_.attach(), "");
  }

  double topMs(const char* name) { return totalMs(MapId::TopTime, name); }
  double bgMs(const char* name) { return totalMs(MapId::BgTime, name); }

  bool tracked(pid_t pid) {
    int16_t adj;
    return bpf_map_lookup_elem(mapFd(MapId::PidAdj), &pid, &adj) == 0;
  }

  // Reaps the child and waits for the kernel to free it (an RCU grace period after exit).
  void reap(Child& child) {
    const pid_t pid = child.pid();
    ASSERT_EQ(child.wait(kWait), 0);
    ASSERT_TRUE(eventually([&] { return !tracked(pid); }, kWait)) << "pid " << pid << " kept";
    for (MapId id : {MapId::PidComm, MapId::PidAdjUpdate}) {
      uint64_t value[2];
      EXPECT_NE(bpf_map_lookup_elem(mapFd(id), &pid, value), 0) << catalogue(id).name;
    }
  }

 private:
  double totalMs(MapId id, const char* name) {
    const auto key = processInfo(name);
    return static_cast<double>(lookupU64(mapFd(id), &key).value_or(0)) / kMs;
  }

  exercise::Attachment attachment_;
};

TEST_F(ProcessPeriodsTest, OomScoreAdjSplitsTopAndBackground) {
  Child child([](ChildLink&) {
    setName("zelkadj");
    setOomScoreAdj(0);
    sleepFor(milliseconds(300));
    setOomScoreAdj(900);
    sleepFor(milliseconds(300));
  });
  reap(child);
  EXPECT_NEAR(topMs("zelkadj"), 300, 60);
  EXPECT_NEAR(bgMs("zelkadj"), 300, 60);
}

TEST_F(ProcessPeriodsTest, ClearTimeStartsPeriodsAnew) {
  Child child([](ChildLink& link) {
    setName("zelkclr");
    setOomScoreAdj(0);
    link.tell(0);
    sleepFor(milliseconds(300));
    setOomScoreAdj(900);
  });
  ASSERT_TRUE(child.next(kWait).has_value());
  sleepFor(milliseconds(150));
  const uint32_t zero = 0;
  const uint64_t clearTime = monotonicNs();
  ASSERT_TRUE(update(mapFd(MapId::ClearTime), &zero, &clearTime));
  reap(child);
  // Only the foreground time after the clear counts; the child exits right after going
  // background.
  EXPECT_NEAR(topMs("zelkclr"), 150, 40);
  EXPECT_LT(bgMs("zelkclr"), 100);
}

TEST_F(ProcessPeriodsTest, RenameMovesLaterTimeToTheNewName) {
  Child child([](ChildLink&) {
    setOomScoreAdj(0);
    setName("zelkold");
    spin(milliseconds(50));
    sleepFor(milliseconds(250));
    setName("zelknew");
    spin(milliseconds(50));
    sleepFor(milliseconds(250));
  });
  reap(child);
  EXPECT_NEAR(topMs("zelkold"), 300, 60);
  EXPECT_NEAR(topMs("zelknew"), 300, 60);
  for (const char* name : {"zelkold", "zelknew"}) {
    const auto key = processKey(name, 1);
    const auto times = lookupTimes(mapFd(MapId::ProcessTime), &key);
    ASSERT_TRUE(times.has_value()) << name;
    EXPECT_GT(totalTime(*times), 10 * kMs) << name;
  }
}

void* blockOnPipe(void* fd) {
  char byte;
  if (read(*static_cast<int*>(fd), &byte, 1) < 0) return nullptr;
  return nullptr;
}

TEST_F(ProcessPeriodsTest, ForkedProcessInheritsClassAndThreadsShareTheirProcess) {
  Child child([](ChildLink& link) {
    setName("zelkfork");
    setOomScoreAdj(900);
    int hold[2];
    if (pipe(hold) != 0) _exit(1);
    const pid_t grandchild = fork();
    if (grandchild == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      close(hold[1]);
      blockOnPipe(&hold[0]);
      _exit(0);
    }
    pthread_t thread;
    if (pthread_create(&thread, nullptr, blockOnPipe, &hold[0]) != 0) _exit(1);
    link.tell(grandchild);
    link.awaitGo();
    close(hold[1]);  // releases both
    pthread_join(thread, nullptr);
    waitpid(grandchild, nullptr, 0);
  });
  const auto grandchild = child.next(kWait);
  ASSERT_TRUE(grandchild.has_value());
  const pid_t pid = static_cast<pid_t>(*grandchild);

  int16_t adj = 0;
  ASSERT_TRUE(lookup(mapFd(MapId::PidAdj), &pid, &adj));
  EXPECT_EQ(adj, 900);
  com::zelkora::process_info_t name;
  ASSERT_TRUE(lookup(mapFd(MapId::PidComm), &pid, &name));
  const auto expected = processInfo("zelkfork");
  EXPECT_EQ(memcmp(&name, &expected, sizeof(name)), 0);
  // Only the two processes have entries, not the thread.
  std::set<pid_t> trackedPids;
  for (pid_t key, *previous = nullptr;
       bpf_map_get_next_key(mapFd(MapId::PidAdj), previous, &key) == 0; previous = &key) {
    trackedPids.insert(key);
  }
  const std::string tasks = "/proc/" + std::to_string(child.pid()) + "/task";
  for (const auto& entry : std::filesystem::directory_iterator(tasks)) {
    const pid_t tid = std::stoi(entry.path().filename());
    EXPECT_EQ(trackedPids.count(tid), tid == child.pid() ? 1u : 0u) << "task " << tid;
  }

  child.go();
  reap(child);
  EXPECT_TRUE(eventually([&] { return !tracked(pid); }, kWait));
  EXPECT_GT(bgMs("zelkfork"), 0);
}

}  // namespace
}  // namespace zelk::testbed
