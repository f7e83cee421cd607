#include <android-base/unique_fd.h>

#include <mutex>

#include "core/log.h"
#include "core/map_records.h"
#include "core/state.h"
#include "kernel/background_thread.h"
#include "kernel/bpf_lock.h"
#include "kernel/config_maps.h"
#include "kernel/tracepoint_program.h"
#include "kernel/tracepoints.h"
#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {
namespace {

// Write-only and write-locked against every other configuring process until it is closed.
android::base::unique_fd retrieveLocked(const char* path) {
  const int fd = android::bpf::mapRetrieveWO(path);
  return android::base::unique_fd(fd < 0 ? -1 : fd);
}

}  // namespace

bool startTrackingCpuFreqTime() {
  std::lock_guard<std::mutex> guard(gTrackingMutex);
  if (!initGlobals()) return false;
  if (gTrackingStarted.load()) return true;

  // Declared in opening order, so that every way out closes them in reverse order, before the
  // mutex is released.
  android::base::unique_fd cpuPolicyFd = retrieveLocked(kCpuPolicyMapPath);
  if (cpuPolicyFd.get() < 0 || !writeCpuPolicies(cpuPolicyFd.get())) return false;
  android::base::unique_fd freqToIdxFd = retrieveLocked(kFreqToIdxMapPath);
  if (freqToIdxFd.get() < 0 || !writeFreqIndices(freqToIdxFd.get())) return false;
  android::base::unique_fd cpuLastUpdateFd = retrieveLocked(kCpuLastUpdateMapPath);
  if (cpuLastUpdateFd.get() < 0 || !writeZeroLastUpdate(cpuLastUpdateFd.get())) return false;
  android::base::unique_fd policyFreqIdxFd = retrieveLocked(kPolicyFreqIdxMapPath);
  if (policyFreqIdxFd.get() < 0 || !writeCurrentFreqIndices(policyFreqIdxFd.get())) return false;

  bool attached = true;
  for (const Tracepoint& tp : kTracepoints) {
    if (!attachTracepointProgram(kObjectName, tp.category, tp.event)) {
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
