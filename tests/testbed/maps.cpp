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

constexpr uint32_t kTisEntries = 16384;
constexpr uint32_t kPidEntries = 32768;

using com::zelkora::process_info_t;
using com::zelkora::process_key_t;
using com::zelkora::time_in_state_block_t;

const std::map<MapId, MapDef>& definitions() {
  static const std::map<MapId, MapDef> defs = {
      {MapId::ProcessTime,
       {"process_time_in_state_map", BPF_MAP_TYPE_PERCPU_HASH, sizeof(process_key_t),
        sizeof(time_in_state_block_t), kTisEntries}},
      {MapId::KthreadTime,
       {"kthread_time_in_state_map", BPF_MAP_TYPE_PERCPU_HASH, sizeof(process_key_t),
        sizeof(time_in_state_block_t), kTisEntries}},
      {MapId::TotalTime,
       {"total_cpu_time_in_state_map", BPF_MAP_TYPE_PERCPU_HASH, 4, sizeof(time_in_state_block_t),
        16}},
      {MapId::TopTime,
       {"comm_to_toptime_map", BPF_MAP_TYPE_HASH, sizeof(process_info_t), 8, kTisEntries}},
      {MapId::BgTime,
       {"comm_to_bgtime_map", BPF_MAP_TYPE_HASH, sizeof(process_info_t), 8, kTisEntries}},
      {MapId::PidAdjUpdate, {"pid_to_adj_last_update_map", BPF_MAP_TYPE_HASH, 4, 8, kPidEntries}},
      {MapId::ClearTime, {"clear_time_map", BPF_MAP_TYPE_HASH, 4, 8, 1}},
      {MapId::PidAdj, {"pid_to_adj_map", BPF_MAP_TYPE_HASH, 4, 2, kPidEntries}},
      {MapId::PidComm, {"pid_to_comm_map", BPF_MAP_TYPE_HASH, 4, 16, kPidEntries}},
      {MapId::CpuPolicy, {"cpu_policy_map", BPF_MAP_TYPE_HASH, 4, 4, 1024}},
      {MapId::FreqToIdx, {"freq_to_idx_map", BPF_MAP_TYPE_HASH, 8, 4, 4096}},
      {MapId::CpuLastUpdate, {"cpu_last_update_map", BPF_MAP_TYPE_PERCPU_ARRAY, 4, 8, 1}},
      {MapId::PolicyFreqIdx, {"policy_freq_idx_map", BPF_MAP_TYPE_HASH, 4, 4, 1024}},
  };
  return defs;
}

std::string failure(const std::string& what) { return what + ": " + strerror(errno); }

}  // namespace

const MapDef& catalogue(MapId id) { return definitions().at(id); }

std::string pinPath(MapId id) {
  return std::string("/sys/fs/bpf/map_zelkCputimeInState_") + catalogue(id).name;
}

std::string Maps::create() {
  for (MapId id : kAllMaps) {
    const std::string error = pin(id);
    if (!error.empty()) return error;
  }
  return "";
}

std::string Maps::pin(MapId id, const MapDef* def) {
  if (def == nullptr) def = &catalogue(id);
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

process_key_t processKey(const std::string& comm, uint64_t flag) {
  process_key_t key;
  memset(&key, 0, sizeof(key));
  memcpy(key.comm, comm.data(), std::min(comm.size(), sizeof(key.comm)));
  key.flag = flag;
  return key;
}

process_info_t processInfo(const std::string& comm) {
  process_info_t info;
  memset(&info, 0, sizeof(info));
  memcpy(info.comm, comm.data(), std::min(comm.size(), sizeof(info.comm)));
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
  std::vector<unsigned char> key(keySize);
  std::vector<unsigned char> next(keySize);
  size_t count = 0;
  const void* previous = nullptr;
  while (bpf_map_get_next_key(fd, previous, next.data()) == 0) {
    ++count;
    key = next;
    previous = key.data();
  }
  return count;
}

}  // namespace zelk::testbed
