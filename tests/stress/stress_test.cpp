// Every query and every reset at once, on the same maps, while a writer fills them as the kernel
// object would: results keep their shape, resets succeed, nothing crashes, and under
// ThreadSanitizer nothing races.
#include <bpf/bpf.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;
using namespace std::chrono_literals;

constexpr auto kDuration = 3s;
constexpr int kNames = 64;

std::string nameOf(int i) { return "task" + std::to_string(i); }

class StressTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
    zelk::testbed::addPolicy("policy0", {100, 200, 300}, {0});
    zelk::testbed::addPolicy("policy1", {400, 500}, {1});
    shape_ = *getCpuFreqs();
  }

  // What the kernel object does: counting entries in the time-in-state and time maps, and pids
  // appearing, changing class and going away.
  void writeAsTheKernel(int round) {
    zelk::testbed::PerCpuValue value = zelk::testbed::perCpuValue();
    for (auto& block : value) block.slot[round % 3] = round;
    const int i = round % kNames;
    const process_key_t key = zelk::testbed::processKey(nameOf(i), round % 2);
    bpf_map_update_elem(maps_.fd(MapId::ProcessTime), &key, value.data(), BPF_ANY);
    bpf_map_update_elem(maps_.fd(MapId::KthreadTime), &key, value.data(), BPF_ANY);
    const uint32_t zero = 0;
    bpf_map_update_elem(maps_.fd(MapId::TotalTime), &zero, value.data(), BPF_ANY);
    const process_info_t info = zelk::testbed::processInfo(nameOf(i));
    const uint64_t total = round;
    bpf_map_update_elem(maps_.fd(MapId::TopTime), &info, &total, BPF_ANY);
    bpf_map_update_elem(maps_.fd(MapId::BgTime), &info, &total, BPF_ANY);
    const int32_t pid = 1000 + i;
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

  bool hasShape(const TimeInStateVector& times) const {
    if (times.size() != shape_.size()) return false;
    for (size_t p = 0; p < shape_.size(); ++p) {
      if (times[p].size() != shape_[p].size()) return false;
    }
    return true;
  }

  zelk::testbed::Maps maps_;
  std::vector<std::vector<uint64_t>> shape_;
};

TEST_F(StressTest, QueriesAndResetsRaceAWriter) {
  std::atomic<bool> stop{false};
  std::atomic<long> writes{0}, queries{0}, emptyResults{0}, resets{0}, badShapes{0},
      failedResets{0};

  auto check = [&](const std::optional<TimeInStateVector>& times) {
    if (!times)
      ++emptyResults;  // allowed: the map can be empty, or a key vanish mid-walk
    else if (!hasShape(*times))
      ++badShapes;
  };
  auto checkTable = [&](const std::optional<TimeInStateTable>& table) {
    if (!table) return void(++emptyResults);
    for (const auto& [key, times] : *table) {
      if (!hasShape(times) || key.comm.size() > 16) ++badShapes;
    }
  };
  const std::vector<std::function<void(int)>> queryLoops = {
      [&](int) { check(getTotalCpuFreqTimes()); },
      [&](int) { checkTable(getProcessCpuFreqTimes()); },
      [&](int) { checkTable(getKthreadCpuFreqTimes()); },
      [&](int i) { check(getCpuFreqTimesFromProcess(nameOf(i % kNames), i % 2)); },
      [&](int i) { check(getCpuFreqTimesFromKthread(nameOf(i % kNames))); },
      [&](int) {
        const auto top = getProcessTopTimes();
        const auto bg = getProcessBgTimes();
        emptyResults += !top + !bg;
      },
  };
  const std::vector<std::function<bool(int)>> resetLoops = {
      [](int) { return clearProcessTimes(); },
      [](int) { return clearKthreadTimes(); },
      [](int) { return clearTotalCpuTime(); },
      [](int) { return clearTopAndBgTimes(); },
      [](int i) { return clearTimesFromProcess(nameOf(i % kNames), i % 2); },
      [](int i) { return clearTimesFromKthread(nameOf(i % kNames)); },
  };

  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int round = 0; !stop; ++round, ++writes) writeAsTheKernel(round);
  });
  for (const auto& loop : queryLoops) {
    threads.emplace_back([&, loop] {
      for (int i = 0; !stop; ++i, ++queries) loop(i);
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; !stop; ++i, ++resets) {
      if (!resetLoops[i % resetLoops.size()](i)) ++failedResets;
      std::this_thread::sleep_for(1ms);  // resets are rare next to queries
    }
  });
  std::this_thread::sleep_for(kDuration);
  stop = true;
  for (auto& thread : threads) thread.join();

  EXPECT_EQ(badShapes, 0);
  EXPECT_EQ(failedResets, 0);
  EXPECT_GT(writes, 0);
  EXPECT_GT(resets, 6);
  RecordProperty("writes", std::to_string(writes));
  RecordProperty("queries", std::to_string(queries));
  RecordProperty("resets", std::to_string(resets));
  printf("writes %ld, queries %ld (%ld empty), resets %ld\n", writes.load(), queries.load(),
         emptyResults.load(), resets.load());
}

}  // namespace
}  // namespace com::zelkora
