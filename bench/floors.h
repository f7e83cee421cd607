// The floors: the bpf(2) calls that an operation must make, in the same order, on the same map,
// into buffers allocated beforehand, and nothing else. No implementation of the protocol can go
// under them. Each returns false when the map did not answer as the benchmark set it up.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/map_records.h"

namespace zelk::bench {

using com::zelkora::time_in_state_block_t;

// A whole-map walk of a time-in-state map: the first key, then per key a lookup and a step to
// the next key, until ENOENT. `value` holds one block per possible CPU.
bool walkFloor(int fd, time_in_state_block_t* value, size_t expectedKeys);

// The same walk in batch lookups of 1,024 entries, into `keys` and `values` (1,024 entries
// each, a value one block per possible CPU), until ENOENT.
inline constexpr uint32_t kBatchFloorEntries = 1024;
bool batchWalkFloor(int fd, com::zelkora::process_key_t* keys, time_in_state_block_t* values,
                    size_t expectedKeys);

// One lookup of `key`, which must exist.
bool lookupFloor(int fd, const void* key, time_in_state_block_t* value);

// A whole-map clear: the first key and its delete, until the first key is ENOENT.
bool clearFloor(int fd, size_t expectedKeys);

struct TopBgFds {
  int pidAdj;
  int pidComm;
  int pidAdjUpdate;
  int clearTime;
  int timeMap;  // the top or the background time map
};

// The top/background query: per pid of the adj map its name and adj, and its last update when
// the task is in the asked class; then per key of the time map its total.
bool topBgFloor(const TopBgFds& fds, bool isTop, size_t expectedNames);

}  // namespace zelk::bench
