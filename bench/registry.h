// Each benchmark file registers its cases here, sized by the options (tiny in the smoke run).
#pragma once

#include <benchmark/benchmark.h>

#include "bench_world.h"

namespace zelk::bench {

// Every case reports the library's time, measured by hand around the call alone, in
// microseconds; the smoke run makes one iteration of each.
inline void configure(benchmark::internal::Benchmark* bench, const BenchOptions& options) {
  bench->UseManualTime()->Unit(benchmark::kMicrosecond);
  if (options.smoke) bench->Iterations(1);
}

void registerTaskTableBenchmarks(const BenchOptions& options);
void registerSingleLookupBenchmarks(const BenchOptions& options);
void registerClearBenchmarks(const BenchOptions& options);
void registerTopBgBenchmarks(const BenchOptions& options);
void registerFirstCallBenchmark(const BenchOptions& options);
void registerConfigWriteBenchmark(const BenchOptions& options);

// The body of the child process that the first-call benchmark starts: times the first library
// call of a fresh process and prints it in nanoseconds. Returns the exit code.
int runFirstCallChild();

}  // namespace zelk::bench
