#include <android-base/unique_fd.h>

#include "core/map_records.h"
#include "core/state.h"
#include "kernel/tracepoint_program.h"
#include "kernel/tracepoints.h"
#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

bool isTrackingCpuFreqTimeSupported() {
  if (!ensureGlobals()) return false;
  // Once attached, the programs are in use whatever happens to their pins.
  if (gTrackingStarted.load()) return true;
  for (const Tracepoint& tp : kTracepoints) {
    const android::base::unique_fd program(retrieveProgramFd(kObjectName, tp.category, tp.event));
    if (program.get() < 0) return false;
  }
  return true;
}

}  // namespace zelkora
}  // namespace com
