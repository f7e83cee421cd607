// The tracking start's configuration writes, as absolute times, with their floor. The library
// side is timed when the library has its configuration writers (ZELK_BENCH_LIBRARY_CONFIG_WRITES,
// set by CMakeLists.txt); without them only the floor runs and the library column stays empty.
#include <benchmark/benchmark.h>

#include "config_writes_floor.h"
#include "core/state.h"
#include "own_allocations.h"
#include "paired.h"
#include "registry.h"

namespace zelk::bench {
namespace {

void configWritesBenchmark(benchmark::State& state) {
  if (!com::zelkora::ensureGlobals()) {
    markFailed();
    state.SkipWithError("the library state is not ready");
    return;
  }
  const ConfigWrites writes = configWritesFromState();
  const auto floor = [&] { return configWritesFloor(writes); };
#ifdef ZELK_BENCH_LIBRARY_CONFIG_WRITES
  runPaired(
      state, 1, [] {}, floor, libraryConfigWrites, [](bool ok) { return ok; },
      [](bool ok) { return ownAllocations(ok); });
#else
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    const bool ok = floor();
    state.SetIterationTime(secondsSince(start));
    if (!ok) {
      markFailed();
      state.SkipWithError("the floor did not make the expected calls");
      return;
    }
  }
  state.counters["floor_only"] = 1;
#endif
}

}  // namespace

void registerConfigWriteBenchmark(const BenchOptions& options) {
  const std::string name = "configWrites/policies:" + std::to_string(policyCount());
  configure(benchmark::RegisterBenchmark(name.c_str(), configWritesBenchmark), options);
}

}  // namespace zelk::bench
