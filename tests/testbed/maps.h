// Real BPF maps with the kernel object's exact records, types and fixed sizes (its catalogue's),
// created with bpf(2) and pinned at the library's paths inside the test's private bpffs.
#pragma once

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <linux/bpf.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "core/catalogue.h"
#include "core/map_records.h"

namespace zelk::testbed {

// Every map of the object, the library's nine first in the order in which it opens them.
using com::zelkora::MapId;
inline constexpr size_t kLibraryMapCount = com::zelkora::kOpenedMapCount;
#define ZELK_TESTBED_MAP_ID(id, ...) MapId::id,
inline constexpr MapId kAllMaps[] = {ZELK_MAPS(ZELK_TESTBED_MAP_ID)};
#undef ZELK_TESTBED_MAP_ID

struct MapDef {
  const char* name;
  bpf_map_type type;
  uint32_t keySize;
  uint32_t valueSize;
  uint32_t maxEntries;
};

const MapDef& catalogue(MapId id);
std::string pinPath(MapId id);

class Maps {
 public:
  // Creates and pins every map; "" on success, else what failed.
  std::string create();
  // Creates and pins one map (the catalogue's, or `def`), replacing the one held for `id` and its
  // pin.
  std::string pin(MapId id, const MapDef* def = nullptr);
  // Removes a map's pin; the map lives on while fd(id) is open.
  void unpin(MapId id);
  // After this the kernel refuses updates and deletes from user space with EPERM.
  std::string freeze(MapId id);
  int fd(MapId id) const;

 private:
  std::map<MapId, android::base::unique_fd> fds_;
};

// Possible CPUs: the number of blocks the kernel reads and writes for a per-CPU value.
uint32_t possibleCpus();

using PerCpuValue = std::vector<com::zelkora::time_in_state_block_t>;
// Zeroed, one block per possible CPU.
PerCpuValue perCpuValue();

// Records built by hand (not with the library's conversions, which the tests check).
com::zelkora::process_key_t processKey(const std::string& comm, uint64_t flag);
com::zelkora::process_info_t processInfo(const std::string& comm);

// Element operations that report failures to gtest; they return success.
bool update(int fd, const void* key, const void* value, uint64_t flags = BPF_ANY);
bool lookup(int fd, const void* key, void* value);
// Number of keys in a map, by walking it.
size_t countKeys(int fd, uint32_t keySize);

// Every entry of a map that is not per-CPU, by walking it.
template <typename K, typename V>
std::map<K, V> entries(int fd) {
  std::map<K, V> found;
  K key;
  for (const void* previous = nullptr; bpf_map_get_next_key(fd, previous, &key) == 0;
       previous = &key) {
    lookup(fd, &key, &found[key]);
  }
  return found;
}

}  // namespace zelk::testbed
