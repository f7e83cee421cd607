// Whole-map reads in BPF_MAP_LOOKUP_BATCH calls. The kernel copies each hash bucket whole under
// its lock, so a key deleted during the walk is just absent and nothing fails for it.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/state.h"
#include "syscall/bpf_syscall.h"

namespace com {
namespace zelkora {

enum class BatchWalk { Done, Failed, Unsupported };

// Set once the kernel refuses batch lookups of hash maps (before Linux 5.6): every whole-map walk
// then steps key by key for the life of the process.
inline std::atomic<bool> gPerElementWalks{false};

// True: every later walk steps key by key, as on a kernel without batch lookups; false: walks try
// batches again. For tests of either path on one kernel.
inline void setPerElementWalks(bool forced) {
  gPerElementWalks.store(forced, std::memory_order_relaxed);
}

// Whether a per-CPU map may be read in batches. Values in a batch lie end to end, one block per
// possible CPU, while the fold reads gCpuBlockCount blocks: the two agree unless the C library
// counts more CPUs than the kernel.
inline bool perCpuBatchesUsable() {
  return !gPerElementWalks.load(std::memory_order_relaxed) && gPossibleCpuCount == gCpuBlockCount;
}

// A bucket lock that the kernel could not take at once, a map being changed under it: tried
// again from the same position this many times before the walk fails.
inline constexpr int kBatchBusyRetries = 8;
// A bucket with more keys than the buffers hold (ENOSPC) doubles them, up to this many entries.
inline constexpr uint32_t kMaxBatchBucketEntries = uint32_t{1} << 20;
// The kernel's own "not supported", which the C library has no name for.
inline constexpr int kKernelEnotsupp = 524;

// Reads the map at `fd` in calls of up to `capacity` entries of one Key and `valueUnits` Values
// each, and hands each call's entries to `consume(keys, values, count)`, entry i's value at
// values + i * valueUnits. Unsupported: the first call was refused as by a kernel without batch
// lookups for this map, and nothing was consumed.
template <typename Key, typename Value, typename Consume>
BatchWalk walkInBatches(int fd, uint32_t capacity, size_t valueUnits, Consume consume) {
  // Left uninitialised: the kernel writes what the count then says was written.
  std::unique_ptr<Key[]> keys(new Key[capacity]);
  std::unique_ptr<Value[]> values(new Value[capacity * valueUnits]);
  // Positions are a bucket number for hash maps; a key's room is what other types may need.
  Key inBatch{};
  Key outBatch{};
  bool atStart = true;
  bool first = true;
  int busyLeft = kBatchBusyRetries;
  for (;;) {
    uint32_t count = capacity;
    const int ret = mapLookupBatch(fd, atStart ? nullptr : &inBatch, &outBatch, keys.get(),
                                   values.get(), &count);
    const int error = ret == 0 ? 0 : errno;
    if (error != 0 && error != ENOENT) {
      if (first &&
          (error == EINVAL || error == kKernelEnotsupp || error == EOPNOTSUPP || error == ENOSYS)) {
        return BatchWalk::Unsupported;
      }
      if (error == ENOSPC && capacity < kMaxBatchBucketEntries) {
        capacity *= 2;
        keys.reset(new Key[capacity]);
        values.reset(new Value[capacity * valueUnits]);
        continue;
      }
      // Entries that a failed call copied are dropped: the retry reads their buckets again.
      if ((error == EBUSY || error == EDEADLK || error == ETIMEDOUT) && busyLeft-- > 0) continue;
      return BatchWalk::Failed;
    }
    first = false;
    busyLeft = kBatchBusyRetries;
    consume(keys.get(), values.get(), count);
    if (error == ENOENT) return BatchWalk::Done;  // the end, perhaps with a last partial batch
    inBatch = outBatch;
    atStart = false;
  }
}

}  // namespace zelkora
}  // namespace com
