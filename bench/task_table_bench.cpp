// getProcessCpuFreqTimes and getKthreadCpuFreqTimes against walks of the same map, key by key
// and in batches.
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

using Table = std::optional<com::zelkora::TimeInStateTable>;

struct TableQuery {
  const char* name;
  testbed::MapId map;
  Table (*query)();
};

const TableQuery kQueries[] = {
    {"getProcessCpuFreqTimes", testbed::MapId::ProcessTime, com::zelkora::getProcessCpuFreqTimes},
    {"getKthreadCpuFreqTimes", testbed::MapId::KthreadTime, com::zelkora::getKthreadCpuFreqTimes},
};

void walkBenchmark(benchmark::State& state, const TableQuery& query, size_t keys) {
  drainMap(query.map);
  putTaskKeys(query.map, keys);
  testbed::PerCpuValue value = testbed::perCpuValue();
  std::vector<com::zelkora::process_key_t> batchKeys(kBatchFloorEntries);
  std::vector<com::zelkora::time_in_state_block_t> batchValues(size_t{kBatchFloorEntries} *
                                                               value.size());
  runPaired(
      state, static_cast<double>(keys), [] {},
      [&] { return walkFloor(mapFd(query.map), value.data(), keys); }, query.query,
      [&](const Table& table) { return table && table->size() == keys; },
      [](const Table& table) { return ownAllocations(table); },
      [&] { return batchWalkFloor(mapFd(query.map), batchKeys.data(), batchValues.data(), keys); });
}

}  // namespace

void registerTaskTableBenchmarks(const BenchOptions& options) {
  const std::vector<size_t> sizes =
      options.smoke ? std::vector<size_t>{10} : std::vector<size_t>{100, 1000, 10000};
  for (const TableQuery& query : kQueries) {
    for (size_t keys : sizes) {
      const std::string name = std::string(query.name) + "/keys:" + std::to_string(keys);
      configure(benchmark::RegisterBenchmark(
                    name.c_str(),
                    [&query, keys](benchmark::State& state) { walkBenchmark(state, query, keys); }),
                options);
    }
  }
}

}  // namespace zelk::bench
