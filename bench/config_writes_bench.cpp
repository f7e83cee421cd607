// The tracking start's configuration writes, as absolute times, with their floor.
#include <benchmark/benchmark.h>

#include <string>

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
  runPaired(
      state, 1, [] {}, floor, libraryConfigWrites, [](bool ok) { return ok; },
      [](bool ok) { return ownAllocations(ok); });
}

}  // namespace

void registerConfigWriteBenchmark(const BenchOptions& options) {
  const std::string name = "configWrites/policies:" + std::to_string(policyCount());
  configure(benchmark::RegisterBenchmark(name.c_str(), configWritesBenchmark), options);
}

}  // namespace zelk::bench
