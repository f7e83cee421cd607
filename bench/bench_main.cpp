// The benchmark binary. The library's state is set once per process, so one run uses one policy
// tree: --freqs=N (or ZELK_BENCH_FREQS) picks the frequency count of every policy. --smoke runs
// every case once at a tiny size and fails on any error. Other arguments go to Google Benchmark.
// Must run as root: the process enters its own mount namespace before anything else.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_world.h"
#include "core/decimal.h"
#include "core/map_records.h"
#include "registry.h"
#include "zelkcpufreqtime.h"

namespace {

// A time-in-state record holds 32 frequencies per policy.
bool parseFreqs(const char* text, uint32_t* freqs) {
  return com::zelkora::parseDecimal(text, freqs, uint32_t{ZELK_FREQ_SLOTS}) && *freqs >= 1;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace zelk::bench;
  if (argc == 2 && strcmp(argv[1], "--first-call-child") == 0) return runFirstCallChild();

  BenchOptions options;
  if (const char* env = getenv("ZELK_BENCH_FREQS"); env && !parseFreqs(env, &options.freqCount)) {
    fprintf(stderr, "zelk_bench: ZELK_BENCH_FREQS must be 1 to 32\n");
    return 2;
  }
  std::vector<char*> rest = {argv[0]};
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--smoke") == 0) {
      options.smoke = true;
    } else if (strncmp(argv[i], "--freqs=", 8) == 0) {
      if (!parseFreqs(argv[i] + 8, &options.freqCount)) {
        fprintf(stderr, "zelk_bench: --freqs must be 1 to 32\n");
        return 2;
      }
    } else {
      rest.push_back(argv[i]);
    }
  }

  const std::string error = setUpWorld(options);
  if (!error.empty()) {
    fprintf(stderr, "zelk_bench: cannot set up the maps and the policy tree (run as root): %s\n",
            error.c_str());
    return 1;
  }
  // Initialise here, so that no case's first iteration pays for it; the first-call case starts
  // fresh processes and is not affected.
  if (!com::zelkora::getCpuFreqs()) {
    fprintf(stderr, "zelk_bench: the library cannot initialise on the test bed\n");
    return 1;
  }
  benchmark::AddCustomContext("freqs", std::to_string(options.freqCount));
  benchmark::AddCustomContext("policies", std::to_string(policyCount()));

  // The first call runs first: its children must find the maps as the parent pinned them.
  registerFirstCallBenchmark(options);
  registerTaskTableBenchmarks(options);
  registerSingleLookupBenchmarks(options);
  registerClearBenchmarks(options);
  registerTopBgBenchmarks(options);
  registerConfigWriteBenchmark(options);

  int benchArgc = static_cast<int>(rest.size());
  benchmark::Initialize(&benchArgc, rest.data());
  if (benchmark::ReportUnrecognizedArguments(benchArgc, rest.data())) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return anyFailed() ? 1 : 0;
}
