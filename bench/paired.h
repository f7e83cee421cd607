// A library call and its floor, measured in one benchmark. Each iteration runs both, the floor
// first on even iterations and the library first on odd ones, so that both meet the same noise
// and the same cache state; the ratio of their sums is the benchmark's "ratio" counter.
//
// Only the call itself is timed. Setting a map up (`prepare`, run before each of the two timed
// parts) and freeing the returned result happen outside; freeing is reported as "free_ns".
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <functional>

#include "alloc_count.h"
#include "bench_world.h"

namespace zelk::bench {

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// `floor()` returns true when it made the expected calls; `call()` returns the library's result,
// `valid(result)` checks it, and `ownAllocations(result)` counts the allocations that the
// result's own entries need (nodes, names, vectors). Allocations are reported per key: per table
// entry for the walks, per call (`keys` 1) for the rest.
// A second floor, `batchFloor` (the batch walk), runs after the two parts when given, and is
// reported as "batch_floor_ns" and "batch_ratio".
template <typename Prepare, typename Floor, typename Call, typename Valid, typename Own>
void runPaired(benchmark::State& state, double keys, Prepare prepare, Floor floor, Call call,
               Valid valid, Own ownAllocations, const std::function<bool()>& batchFloor = {}) {
  double librarySeconds = 0;
  double floorSeconds = 0;
  double batchFloorSeconds = 0;
  double freeSeconds = 0;
  double allocations = 0;
  double own = 0;
  int64_t iteration = 0;
  for (auto _ : state) {
    double libraryTime = 0;
    for (int part = 0; part < 2; ++part) {
      prepare();
      const bool floorTurn = (part == 0) == (iteration % 2 == 0);
      if (floorTurn) {
        const Clock::time_point start = Clock::now();
        const bool ok = floor();
        floorSeconds += secondsSince(start);
        if (!ok) {
          markFailed();
          state.SkipWithError("the floor did not make the expected calls");
          return;
        }
        continue;
      }
      const size_t allocationsBefore = allocationCount();
      const Clock::time_point start = Clock::now();
      auto result = call();
      libraryTime = secondsSince(start);
      allocations += static_cast<double>(allocationCount() - allocationsBefore);
      if (!valid(result)) {
        markFailed();
        state.SkipWithError("the library call returned a wrong result");
        return;
      }
      own += ownAllocations(result);
      const Clock::time_point freeStart = Clock::now();
      result = decltype(result)();
      freeSeconds += secondsSince(freeStart);
    }
    if (batchFloor) {
      prepare();
      const Clock::time_point start = Clock::now();
      const bool ok = batchFloor();
      batchFloorSeconds += secondsSince(start);
      if (!ok) {
        markFailed();
        state.SkipWithError("the batch floor did not make the expected calls");
        return;
      }
    }
    librarySeconds += libraryTime;
    state.SetIterationTime(libraryTime);
    ++iteration;
  }
  using benchmark::Counter;
  state.counters["floor_ns"] = Counter(floorSeconds * 1e9, Counter::kAvgIterations);
  state.counters["free_ns"] = Counter(freeSeconds * 1e9, Counter::kAvgIterations);
  state.counters["ratio"] = floorSeconds > 0 ? librarySeconds / floorSeconds : 0;
  if (batchFloor) {
    state.counters["batch_floor_ns"] = Counter(batchFloorSeconds * 1e9, Counter::kAvgIterations);
    state.counters["batch_ratio"] = batchFloorSeconds > 0 ? librarySeconds / batchFloorSeconds : 0;
  }
  state.counters["keys"] = keys;
  state.counters["allocs_per_key"] = Counter(allocations / keys, Counter::kAvgIterations);
  state.counters["own_per_key"] = Counter(own / keys, Counter::kAvgIterations);
}

}  // namespace zelk::bench
