#include "machine/map_fill.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <algorithm>
#include <cerrno>
#include <memory>
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

// The buffers a batch read copies into, kept from one map to the next and never cleared: only
// the count of what the kernel wrote matters. Fresh, zeroed buffers for each map cost a scrape
// more than the reads themselves (page faults and memset of half a megabyte per map).
class Scratch {
 public:
  unsigned char* get(size_t bytes) {
    if (bytes > size_) {
      buffer_.reset(new unsigned char[bytes]);
      size_ = bytes;
    }
    return buffer_.get();
  }

 private:
  std::unique_ptr<unsigned char[]> buffer_;
  size_t size_ = 0;
};

// Hash maps keep no count that user space can read, and pid churn deletes keys all the time. A
// batch read copies each bucket whole under its lock and moves on to the next bucket, and a key
// always hashes to the same bucket: a read never restarts and never sees a key twice.
std::optional<uint64_t> countEntries(int fd, const bpf_map_info& info, Scratch& keys,
                                     Scratch& values) {
  const bool perCpu =
      info.type == BPF_MAP_TYPE_PERCPU_HASH || info.type == BPF_MAP_TYPE_LRU_PERCPU_HASH;
  const int cpus = perCpu ? libbpf_num_possible_cpus() : 1;
  if (cpus <= 0) return std::nullopt;
  // A per-CPU value comes as one 8-byte-aligned block per possible CPU.
  const size_t valueBytes = perCpu ? (size_t{info.value_size} + 7) / 8 * 8 * cpus : info.value_size;
  // Chunks of about 64 KiB; a bucket larger than a chunk makes the kernel answer ENOSPC.
  size_t chunk = std::clamp<size_t>((64 << 10) / (info.key_size + valueBytes), 1,
                                    std::max(info.max_entries, 1u));
  // The resume token: a bucket number for a hash map, a key for the generic batch of others.
  std::vector<unsigned char> batch(std::max<size_t>(sizeof(__u32), info.key_size));
  uint64_t entries = 0;
  for (bool first = true;; first = false) {
    __u32 count = static_cast<__u32>(chunk);
    const int error = -bpf_map_lookup_batch(fd, first ? nullptr : batch.data(), batch.data(),
                                            keys.get(chunk * info.key_size),
                                            values.get(chunk * valueBytes), &count, nullptr);
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

std::optional<MapFill> measure(const lib::MapInfo& map, Scratch& keys, Scratch& values) {
  const android::base::unique_fd fd(bpf_obj_get(map.pinPath));
  if (fd.get() < 0) return std::nullopt;
  bpf_map_info info = {};
  __u32 length = sizeof(info);
  if (bpf_obj_get_info_by_fd(fd.get(), &info, &length) != 0) return std::nullopt;
  const std::optional<uint64_t> entries = countEntries(fd.get(), info, keys, values);
  if (!entries) return std::nullopt;
  return MapFill{map.name, *entries, info.max_entries, std::nullopt};
}

}  // namespace

std::vector<MapFill> measureMaps() {
  std::vector<MapFill> maps;
  Scratch keys, values;
  for (const lib::MapInfo& map : lib::kMaps) {
    if (!fills(map)) continue;
    if (std::optional<MapFill> measured = measure(map, keys, values))
      maps.push_back(std::move(*measured));
  }
  return maps;
}

}  // namespace zelk::cli
