// Single-task lookups take no lock: the lookup is one atomic kernel operation, and everything
// else works on the caller's own buffers.
#include "core/map_records.h"
#include "core/state.h"
#include "query/single_key_read.h"
#include "query/task_key.h"
#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

// NOLINTNEXTLINE(performance-unnecessary-value-param): the declared signature takes it by value
std::optional<std::vector<std::vector<uint64_t>>> getCpuFreqTimesFromProcess(std::string name,
                                                                             bool flag) {
  if (!ensureGlobals()) return std::nullopt;
  const process_key_t key = mapKeyFromName(name, flag);
  process_key_t probeKey;
  return readTimeInState(lockFreeFd(gProcessTimeFd).get(), &key, &probeKey);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the declared signature takes it by value
std::optional<std::vector<std::vector<uint64_t>>> getCpuFreqTimesFromKthread(std::string name) {
  if (!ensureGlobals()) return std::nullopt;
  const process_key_t key = mapKeyFromName(name, /*flag=*/true);
  process_key_t probeKey;
  return readTimeInState(lockFreeFd(gKthreadTimeFd).get(), &key, &probeKey);
}

}  // namespace zelkora
}  // namespace com
