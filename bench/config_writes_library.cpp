// The library side of the configuration-write benchmark: the tracking start's own writers.
#include <android-base/unique_fd.h>

#include "config_writes_floor.h"
#include "core/map_records.h"
#include "kernel/bpf_lock.h"
#include "kernel/config_maps.h"

namespace zelk::bench {

// The order of startTrackingCpuFreqTime, descriptors closed in reverse at the end.
bool libraryConfigWrites() {
  using android::base::unique_fd;
  using android::bpf::mapRetrieveWO;
  using namespace com::zelkora;
  const unique_fd cpuPolicy(mapRetrieveWO(kCpuPolicyMapPath));
  if (cpuPolicy.get() < 0 || !writeCpuPolicies(cpuPolicy.get())) return false;
  const unique_fd freqToIdx(mapRetrieveWO(kFreqToIdxMapPath));
  if (freqToIdx.get() < 0 || !writeFreqIndices(freqToIdx.get())) return false;
  const unique_fd lastUpdate(mapRetrieveWO(kCpuLastUpdateMapPath));
  if (lastUpdate.get() < 0 || !writeZeroLastUpdate(lastUpdate.get())) return false;
  const unique_fd policyFreqIdx(mapRetrieveWO(kPolicyFreqIdxMapPath));
  return policyFreqIdx.get() >= 0 && writeCurrentFreqIndices(policyFreqIdx.get());
}

}  // namespace zelk::bench
