// The configuration writes of the tracking start: four maps retrieved write-only and locked
// against other configuring processes, then written from the library's policy tables.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "core/map_records.h"

namespace zelk::bench {

// Every key and value that the tracking start writes, computed beforehand from the library's
// state (which must be ready) and the cpufreq tree.
struct ConfigWrites {
  std::vector<std::pair<uint32_t, uint32_t>> cpuPolicies;  // CPU, policy ordinal
  std::vector<std::pair<com::zelkora::freq_key_t, uint32_t>> freqIndices;
  std::vector<uint64_t> zeroLastUpdate;                       // one per CPU block
  std::vector<std::pair<uint32_t, uint32_t>> currentIndices;  // policy ordinal, index
};
ConfigWrites configWritesFromState();

// The floor: per map the same bpf(2) calls (object get, info for the lock offset, the updates)
// with the same fcntl lock, closed in reverse order at the end. False when a call fails.
bool configWritesFloor(const ConfigWrites& writes);

// The library's own configuration writers, in the tracking start's order.
bool libraryConfigWrites();

}  // namespace zelk::bench
