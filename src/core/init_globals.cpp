#include <sys/sysinfo.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "core/catalogue.h"
#include "core/log.h"
#include "core/map_shape.h"
#include "core/policy_discovery.h"
#include "core/possible_cpus.h"
#include "core/state.h"
#include "syscall/bpf_syscall.h"

namespace com {
namespace zelkora {
namespace {

// The descriptor of each map that the library opens, in the catalogue's order, which is the
// order in which they are opened; an attempt stops at the first that fails.
struct OpenedMap {
  MapId id;
  android::base::unique_fd* fd;
};
constexpr OpenedMap kOpenedMaps[] = {
    {MapId::ProcessTime, &gProcessTimeFd}, {MapId::KthreadTime, &gKthreadTimeFd},
    {MapId::TotalTime, &gTotalTimeFd},     {MapId::TopTime, &gTopTimeFd},
    {MapId::BgTime, &gBgTimeFd},           {MapId::PidAdjUpdate, &gPidAdjUpdateFd},
    {MapId::ClearTime, &gClearTimeFd},     {MapId::PidAdj, &gProAdjFd},
    {MapId::PidComm, &gProCommFd},
};

constexpr bool opensTheCataloguesMaps() {
  if (std::size(kOpenedMaps) != kOpenedMapCount) return false;
  for (size_t i = 0; i < kOpenedMapCount; ++i) {
    if (kOpenedMaps[i].id != kMaps[i].id) return false;
  }
  return true;
}
static_assert(opensTheCataloguesMaps(), "a descriptor for each map the catalogue says is opened");

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
  gPolicyNames = std::move(tables->names);
  gCpuSlot = std::move(tables->cpuSlot);
  gPossibleCpuCount = readPossibleCpuCount().value_or(0);
  gCpuBlockCount = std::max(gCpuCount, gPossibleCpuCount);
  gFoldLayout = makeFoldLayout(gFreqTable, gRelatedCpus, gCpuSlot, gCpuBlockCount);

  for (const OpenedMap& map : kOpenedMaps) {
    const MapInfo& info = mapInfo(map.id);
    errno = 0;
    const int fd = bpfObjGet(info.pinPath, /*fileFlags=*/0);  // read-write
    map.fd->reset(fd < 0 ? -1 : fd);  // keeps errno across the close of an earlier descriptor
    if (fd < 0) {
      ZELK_LOGE("Failed to open bpf map %s: %s", info.pinPath, strerror(errno));
      return false;
    }
    // A map of another shape is refused like a missing one: the kernel would overrun our buffers.
    const std::string mismatch = describeMapMismatch(fd, mapShape(info));
    if (!mismatch.empty()) {
      ZELK_LOGE("Unexpected bpf map %s: %s", info.pinPath, mismatch.c_str());
      map.fd->reset();
      return false;
    }
  }

  gGlobalsReady.store(true, std::memory_order_release);
  return true;
}

}  // namespace zelkora
}  // namespace com
