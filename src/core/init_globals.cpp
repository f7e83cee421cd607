#include <sys/sysinfo.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/log.h"
#include "core/map_records.h"
#include "core/map_shape.h"
#include "core/policy_discovery.h"
#include "core/possible_cpus.h"
#include "core/state.h"
#include "kernel/bpf_syscall.h"

namespace com {
namespace zelkora {
namespace {

struct PinnedMap {
  const char* path;
  android::base::unique_fd* fd;
  MapShape shape;
};

constexpr MapShape kTimeInStateShape = {sizeof(process_key_t), sizeof(time_in_state_block_t),
                                        /*perCpu=*/true};
constexpr MapShape kPlainShape(uint32_t keySize, uint32_t valueSize) {
  return {keySize, valueSize, /*perCpu=*/false};
}

// The order in which the maps are opened; an attempt stops at the first that fails.
const PinnedMap kPinnedMaps[] = {
    {kProcessTimeMapPath, &gProcessTimeFd, kTimeInStateShape},
    {kKthreadTimeMapPath, &gKthreadTimeFd, kTimeInStateShape},
    {kTotalTimeMapPath,
     &gTotalTimeFd,
     {sizeof(zero_key_t), sizeof(time_in_state_block_t), /*perCpu=*/true}},
    {kTopTimeMapPath, &gTopTimeFd, kPlainShape(sizeof(process_info_t), sizeof(time_value_t))},
    {kBgTimeMapPath, &gBgTimeFd, kPlainShape(sizeof(process_info_t), sizeof(time_value_t))},
    {kPidAdjUpdateMapPath, &gPidAdjUpdateFd, kPlainShape(sizeof(pid_key_t), sizeof(time_value_t))},
    {kClearTimeMapPath, &gClearTimeFd, kPlainShape(sizeof(zero_key_t), sizeof(time_value_t))},
    {kPidAdjMapPath, &gProAdjFd, kPlainShape(sizeof(pid_key_t), sizeof(adj_value_t))},
    {kPidCommMapPath, &gProCommFd, kPlainShape(sizeof(pid_key_t), sizeof(task_name_value_t))},
};

}  // namespace

bool initGlobals() {
  std::lock_guard<std::mutex> guard(gInitMutex);
  if (gGlobalsReady.load(std::memory_order_relaxed)) return true;

  gCpuCount = static_cast<uint32_t>(get_nprocs_conf());
  std::optional<PolicyTables> tables = discoverPolicies();
  if (!tables) return false;
  gPolicyCount = tables->policyCount;
  gFreqTable = std::move(tables->freqTable);
  gRelatedCpus = std::move(tables->relatedCpus);
  gCpuSlot = std::move(tables->cpuSlot);
  gCpuBlockCount = std::max(gCpuCount, readPossibleCpuCount().value_or(0));
  gFoldLayout = makeFoldLayout(gFreqTable, gRelatedCpus, gCpuSlot, gCpuBlockCount);

  for (const PinnedMap& map : kPinnedMaps) {
    errno = 0;
    const int fd = bpfObjGet(map.path, /*fileFlags=*/0);  // read-write
    map.fd->reset(fd < 0 ? -1 : fd);  // keeps errno across the close of an earlier descriptor
    if (fd < 0) {
      ZELK_LOGE("Failed to open bpf map %s: %s", map.path, strerror(errno));
      return false;
    }
    // A map of another shape is refused like a missing one: the kernel would overrun our buffers.
    const std::string mismatch = describeMapMismatch(fd, map.shape);
    if (!mismatch.empty()) {
      ZELK_LOGE("Unexpected bpf map %s: %s", map.path, mismatch.c_str());
      map.fd->reset();
      return false;
    }
  }

  gGlobalsReady.store(true, std::memory_order_release);
  return true;
}

}  // namespace zelkora
}  // namespace com
