#include <cerrno>
#include <vector>

#include "core/map_records.h"
#include "core/state.h"
#include "kernel/bpf_syscall.h"
#include "query/fold.h"
#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

std::optional<std::vector<std::vector<uint64_t>>> getTotalCpuFreqTimes() {
  if (!ensureGlobals()) return std::nullopt;
  std::shared_lock<std::shared_mutex> lock(gTotalTimeLock);

  TimeInStateVector result = zeroTimeInState(gFreqTable);
  std::vector<time_in_state_block_t> value(gCpuBlockCount);
  const zero_key_t key = 0;
  if (mapLookupElem(gTotalTimeFd.get(), &key, value.data()) == 0) {
    foldPerCpuValue(gFoldLayout, value.data(), result);
    return result;
  }
  if (errno != ENOENT) return std::nullopt;
  // Key 0 absent: zeros if the map holds anything else, no value for an empty map.
  zero_key_t firstKey;
  if (mapGetNextKey(gTotalTimeFd.get(), nullptr, &firstKey) != 0) return std::nullopt;
  return result;
}

}  // namespace zelkora
}  // namespace com
