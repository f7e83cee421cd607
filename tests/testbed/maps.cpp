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

constexpr uint32_t kTis = 16384;
constexpr uint32_t kPids = 32768;
constexpr uint32_t kKey = sizeof(zelk_process_key);
constexpr uint32_t kName = sizeof(zelk_task_name);
constexpr uint32_t kBlock = sizeof(zelk_time_in_state);
constexpr uint32_t kPid = sizeof(zelk_pid_key);
constexpr uint32_t kTime = sizeof(zelk_time_value);
constexpr uint32_t kZero = sizeof(zelk_zero_key);

// In the order of MapId.
constexpr MapDef kDefinitions[] = {
    {"process_time_in_state_map", BPF_MAP_TYPE_PERCPU_HASH, kKey, kBlock, kTis},
    {"kthread_time_in_state_map", BPF_MAP_TYPE_PERCPU_HASH, kKey, kBlock, kTis},
    {"total_cpu_time_in_state_map", BPF_MAP_TYPE_PERCPU_HASH, kZero, kBlock, 16},
    {"comm_to_toptime_map", BPF_MAP_TYPE_HASH, kName, kTime, kTis},
    {"comm_to_bgtime_map", BPF_MAP_TYPE_HASH, kName, kTime, kTis},
    {"pid_to_adj_last_update_map", BPF_MAP_TYPE_HASH, kPid, kTime, kPids},
    {"clear_time_map", BPF_MAP_TYPE_HASH, kZero, kTime, 1},
    {"pid_to_adj_map", BPF_MAP_TYPE_HASH, kPid, sizeof(zelk_adj_value), kPids},
    {"pid_to_comm_map", BPF_MAP_TYPE_HASH, kPid, kName, kPids},
    {"cpu_policy_map", BPF_MAP_TYPE_HASH, sizeof(zelk_cpu_key), sizeof(zelk_policy_ordinal), 1024},
    {"freq_to_idx_map", BPF_MAP_TYPE_HASH, sizeof(zelk_freq_key), sizeof(zelk_freq_index), 4096},
    {"cpu_last_update_map", BPF_MAP_TYPE_PERCPU_ARRAY, kZero, kTime, 1},
    {"policy_freq_idx_map", BPF_MAP_TYPE_HASH, sizeof(zelk_policy_ordinal), sizeof(zelk_freq_index),
     1024},
};

std::string failure(const std::string& what) { return what + ": " + strerror(errno); }

}  // namespace

const MapDef& catalogue(MapId id) { return kDefinitions[static_cast<size_t>(id)]; }

std::string pinPath(MapId id) { return std::string(ZELK_MAP_PATH("")) + catalogue(id).name; }

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
