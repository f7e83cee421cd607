// clearProcessTimes against deleting the first key until there is none. The map is refilled
// before each timed clear, outside the timing.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "floors.h"
#include "own_allocations.h"
#include "paired.h"
#include "registry.h"
#include "zelkcpufreqtime.h"

namespace zelk::bench {
namespace {

void clearBenchmark(benchmark::State& state, size_t keys) {
  const testbed::MapId map = testbed::MapId::ProcessTime;
  drainMap(map);
  runPaired(
      state, 1, [&] { putTaskKeys(map, keys); }, [&] { return clearFloor(mapFd(map), keys); },
      com::zelkora::clearProcessTimes,
      // The clear must have emptied the map, not just returned true.
      [&](bool cleared) { return cleared && drainMap(map) == 0; },
      [](bool cleared) { return ownAllocations(cleared); });
}

}  // namespace

void registerClearBenchmarks(const BenchOptions& options) {
  const std::vector<size_t> sizes =
      options.smoke ? std::vector<size_t>{10} : std::vector<size_t>{1000, 10000};
  for (size_t keys : sizes) {
    configure(benchmark::RegisterBenchmark(
                  ("clearProcessTimes/keys:" + std::to_string(keys)).c_str(),
                  [keys](benchmark::State& state) { clearBenchmark(state, keys); }),
              options);
  }
}

}  // namespace zelk::bench
