#include "query/single_key_read.h"

#include <cerrno>
#include <vector>

#include "core/state.h"
#include "syscall/bpf_syscall.h"

namespace com {
namespace zelkora {

std::optional<TimeInStateVector> readTimeInState(int fd, const void* key, void* probeKey) {
  TimeInStateVector result = zeroTimeInState(gFreqTable);
  std::vector<time_in_state_block_t> value(gCpuBlockCount);
  if (mapLookupElem(fd, key, value.data()) == 0) {
    foldPerCpuValue(gFoldLayout, value.data(), result);
    return result;
  }
  if (errno != ENOENT) return std::nullopt;
  // Absent key: zeros if the map holds anything else, no value for an empty map.
  if (mapGetNextKey(fd, nullptr, probeKey) != 0) return std::nullopt;
  return result;
}

}  // namespace zelkora
}  // namespace com
