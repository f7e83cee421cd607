#include "config_writes_floor.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>

#include <string>

#include "core/catalogue.h"
#include "core/decimal.h"
#include "core/state.h"
#include "syscall/bpf_syscall.h"

namespace zelk::bench {
namespace {

using android::base::unique_fd;
using com::zelkora::MapId;
using com::zelkora::mapUpdateElem;

// Object get write-only, the map id for the lock offset, an open-file-description write lock.
unique_fd retrieveLocked(MapId map) {
  unique_fd fd(com::zelkora::bpfObjGet(com::zelkora::mapInfo(map).pinPath, BPF_F_WRONLY));
  if (fd.get() < 0) return fd;
  bpf_map_info info;
  uint32_t infoLen;
  if (com::zelkora::mapGetInfo(fd.get(), &info, &infoLen) != 0) return unique_fd();
  struct flock64 lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = info.id;
  lock.l_len = 1;
  if (fcntl(fd.get(), F_OFD_SETLK, &lock) != 0) return unique_fd();
  return fd;
}

template <typename Key, typename Value>
bool writeAll(int fd, const std::vector<std::pair<Key, Value>>& entries) {
  for (const auto& [key, value] : entries) {
    if (mapUpdateElem(fd, &key, &value, BPF_ANY) != 0) return false;
  }
  return true;
}

}  // namespace

ConfigWrites configWritesFromState() {
  using namespace com::zelkora;
  ConfigWrites writes;
  for (uint32_t p = 0; p < gRelatedCpus.size(); ++p) {
    for (uint64_t cpu : gRelatedCpus[p]) writes.cpuPolicies.emplace_back(cpu, p);
  }
  for (uint32_t p = 0; p < gPolicyCount; ++p) {
    for (uint32_t j = 1; j <= gFreqTable[p].size(); ++j) {
      writes.freqIndices.push_back({{p, static_cast<uint32_t>(gFreqTable[p][j - 1])}, j});
    }
  }
  writes.zeroLastUpdate.assign(gCpuBlockCount, 0);
  for (uint32_t p = 0; p < gPolicyCount; ++p) {
    std::string text;
    const std::string path = "/sys/devices/system/cpu/cpufreq/policy" +
                             std::to_string(gRelatedCpus[p].front()) + "/scaling_cur_freq";
    android::base::ReadFileToString(path, &text);
    uint64_t current = 0;
    com::zelkora::parseDecimal(android::base::Trim(text), &current, UINT64_MAX);
    for (uint32_t j = 0; j < gFreqTable[p].size(); ++j) {
      if (gFreqTable[p][j] == current) {
        writes.currentIndices.emplace_back(p, j + 1);
        break;
      }
    }
  }
  return writes;
}

bool configWritesFloor(const ConfigWrites& writes) {
  const unique_fd cpuPolicy = retrieveLocked(MapId::CpuPolicy);
  if (cpuPolicy.get() < 0 || !writeAll(cpuPolicy.get(), writes.cpuPolicies)) return false;
  const unique_fd freqToIdx = retrieveLocked(MapId::FreqToIdx);
  if (freqToIdx.get() < 0 || !writeAll(freqToIdx.get(), writes.freqIndices)) return false;
  const unique_fd lastUpdate = retrieveLocked(MapId::CpuLastUpdate);
  const uint32_t zero = 0;
  if (lastUpdate.get() < 0 ||
      mapUpdateElem(lastUpdate.get(), &zero, writes.zeroLastUpdate.data(), BPF_ANY) != 0) {
    return false;
  }
  const unique_fd policyFreqIdx = retrieveLocked(MapId::PolicyFreqIdx);
  return policyFreqIdx.get() >= 0 && writeAll(policyFreqIdx.get(), writes.currentIndices);
}

}  // namespace zelk::bench
