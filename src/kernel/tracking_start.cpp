#include <android-base/unique_fd.h>

#include <mutex>

#include "core/catalogue.h"
#include "core/log.h"
#include "core/state.h"
#include "kernel/background_thread.h"
#include "kernel/bpf_lock.h"
#include "kernel/config_maps.h"
#include "kernel/tracepoint_program.h"
#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {
namespace {

// Write-only and write-locked against every other configuring process until it is closed.
android::base::unique_fd retrieveLocked(MapId map) {
  const int fd = android::bpf::mapRetrieveWO(mapInfo(map).pinPath);
  return android::base::unique_fd(fd < 0 ? -1 : fd);
}

}  // namespace

bool startTrackingCpuFreqTime() {
  std::lock_guard<std::mutex> guard(gTrackingMutex);
  if (!initGlobals()) return false;
  if (gTrackingStarted.load()) return true;

  // Declared in opening order, so that every way out closes them in reverse order, before the
  // mutex is released.
  android::base::unique_fd cpuPolicyFd = retrieveLocked(MapId::CpuPolicy);
  if (cpuPolicyFd.get() < 0 || !writeCpuPolicies(cpuPolicyFd.get(), gRelatedCpus)) return false;
  android::base::unique_fd freqToIdxFd = retrieveLocked(MapId::FreqToIdx);
  if (freqToIdxFd.get() < 0 || !writeFreqIndices(freqToIdxFd.get(), gFreqTable)) return false;
  android::base::unique_fd cpuLastUpdateFd = retrieveLocked(MapId::CpuLastUpdate);
  if (cpuLastUpdateFd.get() < 0 || !writeZeroLastUpdate(cpuLastUpdateFd.get(), gCpuBlockCount)) {
    return false;
  }
  android::base::unique_fd policyFreqIdxFd = retrieveLocked(MapId::PolicyFreqIdx);
  if (policyFreqIdxFd.get() < 0 ||
      !writeCurrentFreqIndices(policyFreqIdxFd.get(), gFreqTable, gRelatedCpus)) {
    return false;
  }

  bool attached = true;
  for (const ProgramInfo& program : kPrograms) {
    if (!attachTracepointProgram(kObjectName, program.category, program.event)) {
      attached = false;
      break;  // the programs before it stay attached
    }
  }
  gTrackingStarted.store(attached);
  ZELK_LOGI("zelkCputimeInState tracking %s", attached ? "success." : "failed.");

  // Also after a failed attach: the thread's monitor does not depend on the programs.
  startInitThread();
  return attached;
}

}  // namespace zelkora
}  // namespace com
