#include <android-base/unique_fd.h>

#include <cstring>
#include <vector>

#include "core/map_records.h"
#include "core/map_shape.h"
#include "core/state.h"
#include "syscall/bpf_syscall.h"
#include "zelkcpufreqtime_overflow.h"

namespace com {
namespace zelkora {
namespace {

static_assert(sizeof(kOverflowTaskName) == sizeof(ZELK_OVERFLOW_COMM) &&
                  std::char_traits<char>::compare(kOverflowTaskName, ZELK_OVERFLOW_COMM,
                                                  sizeof(kOverflowTaskName)) == 0,
              "the public name is the kernel object's");

// The counter summed over the per-CPU values; false when it cannot be read.
bool readCounter(int fd, uint32_t counter, uint64_t* sum) {
  std::vector<uint64_t> perCpu(gCpuBlockCount);
  if (mapLookupElem(fd, &counter, perCpu.data()) != 0) return false;
  *sum = 0;
  for (uint64_t value : perCpu) *sum += value;
  return true;
}

}  // namespace

std::optional<OverflowCounts> getOverflowCounts() {
  if (!ensureGlobals()) return std::nullopt;
  // Opened per call: the map is optional, and may be loaded after this process started.
  const MapInfo& counters = mapInfo(MapId::OverflowCount);
  const android::base::unique_fd fd(bpfObjGet(counters.pinPath, BPF_F_RDONLY));
  if (fd.get() < 0) return std::nullopt;
  // Another shape would make the kernel write past the per-CPU buffer.
  if (!describeMapMismatch(fd.get(), mapShape(counters)).empty()) {
    return std::nullopt;
  }
  OverflowCounts counts{};
  if (!readCounter(fd.get(), ZELK_UNTRACKED_PROCESSES, &counts.untrackedProcesses) ||
      !readCounter(fd.get(), ZELK_OVERFLOWED_UPDATES, &counts.overflowedUpdates) ||
      !readCounter(fd.get(), ZELK_LOST_UPDATES, &counts.lostUpdates)) {
    return std::nullopt;
  }
  return counts;
}

}  // namespace zelkora
}  // namespace com
