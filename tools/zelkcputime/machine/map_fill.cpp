#include "machine/map_fill.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <unordered_set>
#include <vector>

#include "core/catalogue.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

// The maps that fill: those that a size option of `zelkcputime load` sizes, whose need grows with
// the machine. The others hold the machine's layout or single entries.
bool fills(const lib::MapInfo& map) { return map.size != ZELK_SIZE_FIXED; }

// The kernel's error for an operation that a map type does not implement (not in the uapi).
constexpr int kENOTSUPP = 524;

// Before Linux 5.6 there is no batch read: a walk by next key, which restarts at the first key
// when the key it stands on is deleted meanwhile. It stops at a key it has seen, so a restart can
// make it count too few, never too many.
uint64_t countByWalk(int fd, const bpf_map_info& info) {
  std::unordered_set<std::string> seen;
  std::string key(info.key_size, '\0');
  for (const void* previous = nullptr;
       seen.size() < info.max_entries && bpf_map_get_next_key(fd, previous, key.data()) == 0;
       previous = key.data()) {
    if (!seen.insert(key).second) break;
  }
  return seen.size();
}

// Hash maps keep no count that user space can read, and pid churn deletes keys all the time. A
// batch read copies each bucket whole under its lock and moves on to the next bucket, and a key
// always hashes to the same bucket: a read never restarts and never sees a key twice.
std::optional<uint64_t> countEntries(int fd, const bpf_map_info& info) {
  const bool perCpu =
      info.type == BPF_MAP_TYPE_PERCPU_HASH || info.type == BPF_MAP_TYPE_LRU_PERCPU_HASH;
  const int cpus = perCpu ? libbpf_num_possible_cpus() : 1;
  if (cpus <= 0) return std::nullopt;
  // A per-CPU value comes as one 8-byte-aligned block per possible CPU.
  const size_t entryBytes =
      info.key_size + (perCpu ? (size_t{info.value_size} + 7) / 8 * 8 * cpus : info.value_size);
  // Chunks of about 256 KiB; a bucket larger than a chunk makes the kernel answer ENOSPC.
  size_t chunk = std::clamp<size_t>((256 << 10) / entryBytes, 1, std::max(info.max_entries, 1u));
  std::vector<unsigned char> keys, values;
  // The resume token: a bucket number for a hash map, a key for the generic batch of others.
  std::vector<unsigned char> batch(std::max<size_t>(sizeof(__u32), info.key_size));
  uint64_t entries = 0;
  for (bool first = true;; first = false) {
    keys.resize(chunk * info.key_size);
    values.resize(chunk * (entryBytes - info.key_size));
    __u32 count = static_cast<__u32>(chunk);
    const int error = -bpf_map_lookup_batch(fd, first ? nullptr : batch.data(), batch.data(),
                                            keys.data(), values.data(), &count, nullptr);
    entries += count;  // also with ENOENT: the last buckets
    if (error == 0) continue;
    if (error == ENOENT) return entries;
    if (error == ENOSPC && count == 0 && chunk < info.max_entries) {
      chunk = std::min<size_t>(chunk * 2, info.max_entries);  // the token names that bucket
      continue;
    }
    if (entries == 0 &&
        (error == EINVAL || error == kENOTSUPP || error == EOPNOTSUPP || error == ENOSYS)) {
      return countByWalk(fd, info);
    }
    return std::nullopt;
  }
}

std::optional<MapFill> measure(const lib::MapInfo& map) {
  const android::base::unique_fd fd(bpf_obj_get(map.pinPath));
  if (fd.get() < 0) return std::nullopt;
  bpf_map_info info = {};
  __u32 length = sizeof(info);
  if (bpf_obj_get_info_by_fd(fd.get(), &info, &length) != 0) return std::nullopt;
  const std::optional<uint64_t> entries = countEntries(fd.get(), info);
  if (!entries) return std::nullopt;
  return MapFill{map.name, *entries, info.max_entries, std::nullopt};
}

}  // namespace

std::vector<MapFill> measureMaps() {
  std::vector<MapFill> maps;
  for (const lib::MapInfo& map : lib::kMaps) {
    if (!fills(map)) continue;
    if (std::optional<MapFill> measured = measure(map)) maps.push_back(std::move(*measured));
  }
  return maps;
}

}  // namespace zelk::cli
