#include "maps.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace zelk::testbed {
namespace {

// The sized maps as a load with --names 16384 --kthreads 16384 --pids 32768 --cgroups 16384 makes
// them, room for the tests' and benchmarks' many keys; the fixed ones as compiled.
uint32_t bedEntries(const com::zelkora::MapInfo& map) {
  switch (map.size) {
    case ZELK_SIZE_NAMES:
    case ZELK_SIZE_KTHREADS:
    case ZELK_SIZE_CGROUPS:
      return 16384;
    case ZELK_SIZE_PIDS:
      return 32768;
    case ZELK_SIZE_FIXED:
      break;
  }
  return map.compiledEntries;
}

MapDef definitionOf(const com::zelkora::MapInfo& map) {
  return {map.name, map.type, map.keySize, map.valueSize, bedEntries(map)};
}

// In the order of MapId.
const std::vector<MapDef>& definitions() {
  static const std::vector<MapDef> all = [] {
    std::vector<MapDef> defs;
    for (const com::zelkora::MapInfo& map : com::zelkora::kMaps) defs.push_back(definitionOf(map));
    return defs;
  }();
  return all;
}

std::string failure(const std::string& what) { return what + ": " + strerror(errno); }

}  // namespace

const MapDef& catalogue(MapId id) { return definitions()[static_cast<size_t>(id)]; }

std::string pinPath(MapId id) { return com::zelkora::mapInfo(id).pinPath; }

std::string Maps::create() {
  for (MapId id : kAllMaps) {
    const std::string error = pin(id);
    if (!error.empty()) return error;
  }
  return "";
}

std::string Maps::pin(MapId id, const MapDef* def) {
  if (def == nullptr) def = &catalogue(id);
  unpin(id);
  const int fd =
      bpf_map_create(def->type, def->name, def->keySize, def->valueSize, def->maxEntries, nullptr);
  if (fd < 0) return failure(std::string("creating ") + def->name);
  fds_[id].reset(fd);
  if (bpf_obj_pin(fd, pinPath(id).c_str()) != 0) return failure("pinning " + pinPath(id));
  return "";
}

void Maps::unpin(MapId id) { unlink(pinPath(id).c_str()); }

std::string Maps::freeze(MapId id) {
  if (bpf_map_freeze(fd(id)) != 0) return failure(std::string("freezing ") + catalogue(id).name);
  return "";
}

int Maps::fd(MapId id) const {
  const auto it = fds_.find(id);
  return it == fds_.end() ? -1 : it->second.get();
}

uint32_t possibleCpus() {
  static const int count = libbpf_num_possible_cpus();
  return count > 0 ? static_cast<uint32_t>(count) : 0;
}

PerCpuValue perCpuValue() { return PerCpuValue(possibleCpus()); }

com::zelkora::process_key_t processKey(const std::string& comm, uint64_t flag) {
  com::zelkora::process_key_t key;
  memset(&key, 0, sizeof(key));
  memcpy(key.comm, comm.data(), std::min(comm.size(), sizeof(key.comm)));
  key.flag = flag;
  return key;
}

com::zelkora::process_info_t processInfo(const std::string& comm) {
  com::zelkora::process_info_t info;
  memcpy(info.comm, processKey(comm, 0).comm, sizeof(info.comm));
  return info;
}

bool update(int fd, const void* key, const void* value, uint64_t flags) {
  if (bpf_map_update_elem(fd, key, value, flags) == 0) return true;
  ADD_FAILURE() << "map update failed: " << strerror(errno);
  return false;
}

bool lookup(int fd, const void* key, void* value) {
  if (bpf_map_lookup_elem(fd, key, value) == 0) return true;
  ADD_FAILURE() << "map lookup failed: " << strerror(errno);
  return false;
}

size_t countKeys(int fd, uint32_t keySize) {
  std::vector<unsigned char> key(keySize);  // the kernel reads the previous key before writing
  size_t count = 0;
  for (const void* previous = nullptr; bpf_map_get_next_key(fd, previous, key.data()) == 0;
       previous = key.data()) {
    ++count;
  }
  return count;
}

}  // namespace zelk::testbed
