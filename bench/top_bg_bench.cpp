// getProcessTopTimes against the same walks of the pid maps and the top time map.
#include <benchmark/benchmark.h>

#include <string>

#include "floors.h"
#include "own_allocations.h"
#include "paired.h"
#include "registry.h"
#include "zelkcpufreqtime.h"

namespace zelk::bench {
namespace {

using Table = std::optional<com::zelkora::TimeTable>;

void topBenchmark(benchmark::State& state, size_t names) {
  const TopBgFds fds = {mapFd(testbed::MapId::PidAdj), mapFd(testbed::MapId::PidComm),
                        mapFd(testbed::MapId::PidAdjUpdate), mapFd(testbed::MapId::ClearTime),
                        mapFd(testbed::MapId::TopTime)};
  runPaired(
      state, static_cast<double>(names), [] {},
      [&] { return topBgFloor(fds, /*isTop=*/true, names); }, com::zelkora::getProcessTopTimes,
      [&](const Table& table) { return table && table->size() == names; },
      [](const Table& table) { return ownAllocations(table); });
}

}  // namespace

void registerTopBgBenchmarks(const BenchOptions& options) {
  const size_t pids = options.smoke ? 20 : 2000;
  const size_t names = options.smoke ? 10 : 1000;
  putTopBgWorld(pids, names);
  const std::string name =
      "getProcessTopTimes/pids:" + std::to_string(pids) + "/names:" + std::to_string(names);
  configure(benchmark::RegisterBenchmark(
                name.c_str(), [names](benchmark::State& state) { topBenchmark(state, names); }),
            options);
}

}  // namespace zelk::bench
