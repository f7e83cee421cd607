#include "core/map_records.h"
#include "core/state.h"
#include "query/single_key_read.h"
#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

std::optional<std::vector<std::vector<uint64_t>>> getTotalCpuFreqTimes() {
  if (!ensureGlobals()) return std::nullopt;
  ReaderLock lock(gTotalTimeLock);
  const zero_key_t key = 0;
  zero_key_t probeKey;
  return readTimeInState(gTotalTimeFd.get(), &key, &probeKey);
}

}  // namespace zelkora
}  // namespace com
