// Long-lived callers under load: every function at once, thousands of times, while a writer fills
// the maps as the kernel object would; failing calls repeated; two processes starting at once.
// Results keep their shape, resets succeed, the process keeps exactly the descriptors it held
// (and, under the sanitizers, leaks and races nothing).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "core/rw_lock.h"
#include "library_test.h"

namespace com::zelkora {
namespace {

using namespace zelk::testbed;
using namespace std::chrono_literals;

constexpr int kNames = 64;
std::string nameOf(int i) { return "task" + std::to_string(i % kNames); }

void callEveryFunction(int i) {
  isNumber(nameOf(i));
  getCpuFreqs();
  isTrackingCpuFreqTimeSupported();
  startTrackingCpuFreqTime();
  getTotalCpuFreqTimes();
  getProcessCpuFreqTimes();
  getKthreadCpuFreqTimes();
  getCpuFreqTimesFromProcess(nameOf(i), i % 2);
  getCpuFreqTimesFromKthread(nameOf(i));
  getProcessTopTimes();
  getProcessBgTimes();
  clearProcessTimes();
  clearKthreadTimes();
  clearTimesFromProcess(nameOf(i), i % 2);
  clearTimesFromKthread(nameOf(i));
  clearTotalCpuTime();
  clearTopAndBgTimes();
}

class StressTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    addPolicy("policy0", {100, 200, 300}, {0});
    addPolicy("policy1", {400, 500}, {1});
    ASSERT_EQ(pinPrograms(), "");
  }

  // What the kernel object does: counting in the time-in-state and time maps, and pids appearing,
  // changing class and going away.
  void writeAsTheKernel(int round) {
    PerCpuValue value = perCpuValue();
    for (auto& block : value) block.slot[round % 3] = round;
    const process_key_t key = processKey(nameOf(round), round % 2);
    bpf_map_update_elem(maps_.fd(MapId::ProcessTime), &key, value.data(), BPF_ANY);
    bpf_map_update_elem(maps_.fd(MapId::KthreadTime), &key, value.data(), BPF_ANY);
    const uint32_t zero = 0;
    bpf_map_update_elem(maps_.fd(MapId::TotalTime), &zero, value.data(), BPF_ANY);
    const process_info_t info = processInfo(nameOf(round));
    const uint64_t total = round;
    bpf_map_update_elem(maps_.fd(MapId::TopTime), &info, &total, BPF_ANY);
    bpf_map_update_elem(maps_.fd(MapId::BgTime), &info, &total, BPF_ANY);
    const int32_t pid = 1000 + round % kNames;
    const int16_t adj = (round % 2) ? 0 : 900;
    if (round % 5 == 0) {  // a process ends: its entries go, its name last
      bpf_map_delete_elem(maps_.fd(MapId::PidAdj), &pid);
      bpf_map_delete_elem(maps_.fd(MapId::PidAdjUpdate), &pid);
      bpf_map_delete_elem(maps_.fd(MapId::PidComm), &pid);
    } else {  // it appears or changes class: its name first
      bpf_map_update_elem(maps_.fd(MapId::PidComm), &pid, &info, BPF_ANY);
      bpf_map_update_elem(maps_.fd(MapId::PidAdjUpdate), &pid, &total, BPF_ANY);
      bpf_map_update_elem(maps_.fd(MapId::PidAdj), &pid, &adj, BPF_ANY);
    }
  }
};

TEST_F(StressTest, EveryFunctionAtOnceRacingAWriter) {
  ASSERT_TRUE(startTrackingCpuFreqTime());
  ASSERT_TRUE(threads_.ended(log_));
  const auto shape = *getCpuFreqs();
  const size_t fds = openDescriptorCount();
  std::atomic<bool> stop{false};
  std::atomic<long> writes{0}, calls{0}, resets{0}, badShapes{0}, failedResets{0};
  // No result is allowed: a map can be empty, or a key vanish mid-walk.
  const auto check = [&](const std::optional<TimeInStateVector>& times) {
    badShapes +=
        times && !std::equal(times->begin(), times->end(), shape.begin(), shape.end(),
                             [](const auto& a, const auto& b) { return a.size() == b.size(); });
  };
  const auto checkTable = [&](const std::optional<TimeInStateTable>& table) {
    for (const auto& [key, times] : table.value_or(TimeInStateTable{})) {
      check(times);
      badShapes += key.comm.size() > 16;
    }
  };
  const std::vector<std::function<void(int)>> callLoops = {
      [&](int) { check(getTotalCpuFreqTimes()); },
      [&](int) { checkTable(getProcessCpuFreqTimes()); },
      [&](int) { checkTable(getKthreadCpuFreqTimes()); },
      [&](int i) { check(getCpuFreqTimesFromProcess(nameOf(i), i % 2)); },
      [&](int i) { check(getCpuFreqTimesFromKthread(nameOf(i))); },
      callEveryFunction,
  };
  const std::vector<std::function<bool(int)>> resetLoops = {
      [](int) { return clearProcessTimes(); },
      [](int) { return clearKthreadTimes(); },
      [](int) { return clearTotalCpuTime(); },
      [](int) { return clearTopAndBgTimes(); },
      [](int i) { return clearTimesFromProcess(nameOf(i), i % 2); },
      [](int i) { return clearTimesFromKthread(nameOf(i)); },
  };

  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int round = 0; !stop; ++round, ++writes) writeAsTheKernel(round);
  });
  for (const auto& loop : callLoops) {
    threads.emplace_back([&, loop] {
      for (int i = 0; !stop; ++i, ++calls) loop(i);
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; !stop; ++i, ++resets) {
      failedResets += !resetLoops[i % resetLoops.size()](i);
      std::this_thread::sleep_for(1ms);  // resets are rare next to queries
    }
  });
  std::this_thread::sleep_for(3s);
  stop = true;
  for (auto& thread : threads) thread.join();

  EXPECT_EQ(badShapes, 0);
  EXPECT_EQ(failedResets, 0);
  EXPECT_GT(writes, 0);
  EXPECT_GT(resets, 6);
  EXPECT_EQ(openDescriptorCount(), fds);
  printf("writes %ld, calls %ld, resets %ld\n", writes.load(), calls.load(), resets.load());
}

TEST_F(StressTest, RepeatedFailingInitialisationsKeepTheDescriptors) {
  maps_.unpin(MapId::PidComm);  // the last: every attempt opens the eight before
  const size_t fds = openDescriptorCount();
  for (int i = 0; i < 1000; ++i) callEveryFunction(i);
  EXPECT_EQ(openDescriptorCount(), fds + 8) << "the last attempt's eight maps, and nothing else";
  EXPECT_EQ(log_.count("Failed to open bpf map"), 1000u * 16);
}

// The lock of each counting map prefers writers: a reset must not wait for ever behind callers
// that query the same map back to back.
TEST(RwLockTest, AWaitingWriterHoldsBackNewReaders) {
  RwLock lock;
  lock.lock_shared();
  std::promise<pid_t> writerTid;
  std::atomic<bool> readAgain{false};
  std::thread writer([&] {
    writerTid.set_value(gettid());
    std::unique_lock<RwLock> exclusive(lock);
  });
  EXPECT_TRUE(waitUntilSleeping(writerTid.get_future().get(), 5s)) << "the writer waits";
  std::thread reader([&] {
    std::shared_lock<RwLock> shared(lock);
    readAgain = true;
  });
  EXPECT_FALSE(waitUntil([&] { return readAgain.load(); }, 200ms)) << "a reader overtook it";
  lock.unlock_shared();
  writer.join();
  reader.join();
  EXPECT_TRUE(readAgain);
}

// Not the library fixture: the fork comes before this process starts any thread, because under
// ThreadSanitizer a child forked after that cannot start the library's thread.
class ConcurrentStartTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
};

TEST_F(ConcurrentStartTest, SecondProcessFailsAtTheWriteLockWhileTheFirstConfigures) {
  Maps maps;
  ASSERT_EQ(maps.create(), "");
  ASSERT_EQ(pinPrograms(), "");
  addMachinePolicy({100, 200});
  // The first process reads the current frequency while it holds all four locks; a FIFO holds it
  // there until the second process has tried.
  const std::string curFreq = "/sys/devices/system/cpu/cpufreq/policy0/scaling_cur_freq";
  ASSERT_EQ(unlink(curFreq.c_str()), 0);
  ASSERT_EQ(mkfifo(curFreq.c_str(), 0600), 0);
  int release[2];
  ASSERT_EQ(pipe2(release, O_CLOEXEC), 0);
  const pid_t first = fork();
  ASSERT_GE(first, 0);
  if (first == 0) {
    const bool started = startTrackingCpuFreqTime();
    char byte;  // keeps the programs attached until the test is done with the second process
    (void)!read(release[0], &byte, 1);
    _exit(started ? 0 : 1);
  }
  // The first process is in the FIFO's open once a writer can open it without blocking.
  int fifo = -1;
  ASSERT_TRUE(waitUntil(
      [&] { return (fifo = open(curFreq.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; }, 10s));

  LogCapture log;
  BackgroundThreads threads;
  ASSERT_TRUE(getCpuFreqs().has_value());  // the nine maps this process keeps open
  const size_t fds = openDescriptorCount();
  EXPECT_FALSE(startTrackingCpuFreqTime());
  EXPECT_TRUE(log.lines().empty()) << "a lock held elsewhere fails silently";
  EXPECT_EQ(threads.running(), 0u) << "no thread for a start that did not configure";
  EXPECT_EQ(openDescriptorCount(), fds);

  ASSERT_EQ(write(fifo, "100\n", 4), 4);
  close(fifo);
  ASSERT_EQ(write(release[1], "x", 1), 1);
  int status = 0;
  ASSERT_EQ(waitpid(first, &status, 0), first);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the first process configured";

  // Its attachments went with it; the frequency file is a plain file again.
  unlink(curFreq.c_str());
  writeCpufreqFile("policy0/scaling_cur_freq", "200\n");
  EXPECT_TRUE(startTrackingCpuFreqTime());
  EXPECT_TRUE(threads.ended(log));
}

}  // namespace
}  // namespace com::zelkora
