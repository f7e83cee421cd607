// getTotalCpuFreqTimes and getCpuFreqTimesFromProcess against one lookup of the same key.
#include <benchmark/benchmark.h>

#include <string>

#include "floors.h"
#include "own_allocations.h"
#include "paired.h"
#include "registry.h"
#include "syscall/bpf_syscall.h"
#include "zelkcpufreqtime.h"

namespace zelk::bench {
namespace {

using Times = std::optional<com::zelkora::TimeInStateVector>;

// Keys in the process map beside the one looked up; a hash lookup hardly depends on it.
constexpr size_t kProcessKeys = 1000;

bool validTimes(const Times& times) { return times && times->size() == policyCount(); }

void totalBenchmark(benchmark::State& state) {
  const uint32_t key = 0;
  testbed::PerCpuValue value = testbed::perCpuValue();
  for (auto& block : value) block.slot[0] = 1;
  if (com::zelkora::mapUpdateElem(mapFd(testbed::MapId::TotalTime), &key, value.data(), BPF_ANY)) {
    markFailed();
    state.SkipWithError("cannot fill the whole-system map");
    return;
  }
  runPaired(
      state, 1, [] {},
      [&] { return lookupFloor(mapFd(testbed::MapId::TotalTime), &key, value.data()); },
      com::zelkora::getTotalCpuFreqTimes, validTimes,
      [](const Times& times) { return ownAllocations(times); });
}

void processBenchmark(benchmark::State& state, size_t keys) {
  drainMap(testbed::MapId::ProcessTime);
  putTaskKeys(testbed::MapId::ProcessTime, keys);
  // An odd index: a short name, whose copy into the by-value argument allocates nothing, and
  // flag 1.
  const size_t index = (keys / 2) | 1;
  const std::string name = taskName(index);
  const com::zelkora::process_key_t key = testbed::processKey(name, 1);
  testbed::PerCpuValue value = testbed::perCpuValue();
  runPaired(
      state, 1, [] {},
      [&] { return lookupFloor(mapFd(testbed::MapId::ProcessTime), &key, value.data()); },
      [&] { return com::zelkora::getCpuFreqTimesFromProcess(name, true); }, validTimes,
      [](const Times& times) { return ownAllocations(times); });
}

}  // namespace

void registerSingleLookupBenchmarks(const BenchOptions& options) {
  configure(benchmark::RegisterBenchmark("getTotalCpuFreqTimes/keys:1", totalBenchmark), options);
  const size_t keys = options.smoke ? 10 : kProcessKeys;
  configure(benchmark::RegisterBenchmark(
                ("getCpuFreqTimesFromProcess/keys:" + std::to_string(keys)).c_str(),
                [keys](benchmark::State& state) { processBenchmark(state, keys); }),
            options);
}

}  // namespace zelk::bench
