// The world every benchmark runs in: a private mount namespace with the kernel object's maps
// pinned at the library's paths, and a cpufreq tree of one policy per possible CPU.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/map_records.h"
#include "maps.h"

namespace zelk::bench {

struct BenchOptions {
  uint32_t freqCount = 16;  // frequencies of every policy
  bool smoke = false;       // tiny sizes, one iteration each: proves the benchmarks still run
};

// "" on success, else what failed. Call once, before any library call.
std::string setUpWorld(const BenchOptions& options);

int mapFd(testbed::MapId id);
uint32_t policyCount();

// Distinct task names: even indices have 16 characters (no NUL in the record, and too long for
// the inline buffer of a std::string), odd ones are short.
std::string taskName(size_t index);

// Puts the keys of names 0 to n-1 into a time-in-state map, each with a value in every block.
// In the process map the flag alternates, so flag 1 keys are walked too.
void putTaskKeys(testbed::MapId id, size_t n);
// Empties a map by deleting its first key until there is none; returns the keys deleted.
size_t drainMap(testbed::MapId id);

// The pid maps, the clear time and the top and background time maps for the top/background
// query: `pids` live tasks over `names` names (every name stored in both time maps), half of the
// tasks in the foreground.
void putTopBgWorld(size_t pids, size_t names);

// Sets a failure that makes the binary exit non-zero, for the smoke run.
void markFailed();
bool anyFailed();

}  // namespace zelk::bench
