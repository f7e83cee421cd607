#include <bcc/libbpf.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/log.h"
#include "core/map_records.h"
#include "core/policy_discovery.h"
#include "core/possible_cpus.h"
#include "core/state.h"

namespace com {
namespace zelkora {
namespace {

struct PinnedMap {
  const char* path;
  android::base::unique_fd* fd;
};

// The order in which the maps are opened; an attempt stops at the first that fails.
const PinnedMap kPinnedMaps[] = {
    {kProcessTimeMapPath, &gProcessTimeFd}, {kKthreadTimeMapPath, &gKthreadTimeFd},
    {kTotalTimeMapPath, &gTotalTimeFd},     {kTopTimeMapPath, &gTopTimeFd},
    {kBgTimeMapPath, &gBgTimeFd},           {kPidAdjUpdateMapPath, &gPidAdjUpdateFd},
    {kClearTimeMapPath, &gClearTimeFd},     {kPidAdjMapPath, &gProAdjFd},
    {kPidCommMapPath, &gProCommFd},
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
    const int fd = bpf_obj_get(map.path);
    map.fd->reset(fd < 0 ? -1 : fd);  // keeps errno across the close of an earlier descriptor
    if (fd < 0) {
      ZELK_LOGE("Failed to open bpf map %s: %s", map.path, strerror(errno));
      return false;
    }
  }

  gGlobalsReady.store(true, std::memory_order_release);
  return true;
}

}  // namespace zelkora
}  // namespace com
