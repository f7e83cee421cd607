#include <android-base/unique_fd.h>

#include "core/catalogue.h"
#include "core/state.h"
#include "kernel/tracepoint_program.h"
#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

bool isTrackingCpuFreqTimeSupported() {
  if (!ensureGlobals()) return false;
  // Once attached, the programs are in use whatever happens to their pins.
  if (gTrackingStarted.load()) return true;
  for (const ProgramInfo& program : kPrograms) {
    const android::base::unique_fd fd(
        retrieveProgramFd(kObjectName, program.category, program.event));
    if (fd.get() < 0) return false;
  }
  return true;
}

}  // namespace zelkora
}  // namespace com
