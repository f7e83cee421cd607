// The library side of the configuration-write benchmark: the tracking start's own writers.
#include <android-base/unique_fd.h>

#include "config_writes_floor.h"
#include "core/catalogue.h"
#include "core/state.h"
#include "kernel/bpf_lock.h"
#include "kernel/config_maps.h"

namespace zelk::bench {

// The order of startTrackingCpuFreqTime, descriptors closed in reverse at the end.
bool libraryConfigWrites() {
  using android::base::unique_fd;
  using android::bpf::mapRetrieveWO;
  using namespace com::zelkora;
  const unique_fd cpuPolicy(mapRetrieveWO(mapInfo(MapId::CpuPolicy).pinPath));
  if (cpuPolicy.get() < 0 || !writeCpuPolicies(cpuPolicy.get(), gRelatedCpus)) return false;
  const unique_fd freqToIdx(mapRetrieveWO(mapInfo(MapId::FreqToIdx).pinPath));
  if (freqToIdx.get() < 0 || !writeFreqIndices(freqToIdx.get(), gFreqTable)) return false;
  const unique_fd lastUpdate(mapRetrieveWO(mapInfo(MapId::CpuLastUpdate).pinPath));
  if (lastUpdate.get() < 0 || !writeZeroLastUpdate(lastUpdate.get(), gCpuBlockCount)) return false;
  const unique_fd policyFreqIdx(mapRetrieveWO(mapInfo(MapId::PolicyFreqIdx).pinPath));
  return policyFreqIdx.get() >= 0 &&
         writeCurrentFreqIndices(policyFreqIdx.get(), gFreqTable, gRelatedCpus);
}

}  // namespace zelk::bench
