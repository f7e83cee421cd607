// The cgroup table, one cgroup's time and the clear: the cgroup map is opened per call, as the
// overflow counters are, since it is optional and may be loaded after this process started.
#include <android-base/unique_fd.h>

#include <cerrno>
#include <vector>

#include "cgroup/cgroup_paths.h"
#include "core/map_shape.h"
#include "core/state.h"
#include "query/batch_walk.h"
#include "query/fold.h"
#include "query/single_key_read.h"
#include "reset/clear_map.h"
#include "syscall/bpf_syscall.h"
#include "zelkcpufreqtime_cgroups.h"

namespace com {
namespace zelkora {
namespace {

static_assert(kOverflowCgroupId == ZELK_OVERFLOW_CGROUP_ID, "the public id is the object's");

// The pinned map, checked for the shape the buffers below assume; -1 when it cannot be used.
android::base::unique_fd openCgroupMap(uint32_t fileFlags) {
  const MapInfo& map = mapInfo(MapId::CgroupTime);
  android::base::unique_fd fd(bpfObjGet(map.pinPath, fileFlags));
  if (fd.get() >= 0 && !describeMapMismatch(fd.get(), mapShape(map)).empty()) fd.reset();
  return fd;
}

// Key by key: a cgroup's time cleared between its step and its lookup is simply not seen, and a
// walk whose previous key vanished restarts from the first, so a key met again is read again,
// not added twice.
bool readCgroupsByElements(int fd, CgroupTimeTable& table) {
  std::vector<time_in_state_block_t> value(gCpuBlockCount);
  zelk_cgroup_id key = 0;
  zelk_cgroup_id last = 0;
  const zelk_cgroup_id* previous = nullptr;
  while (mapGetNextKey(fd, previous, &key) == 0) {
    if (mapLookupElem(fd, &key, value.data()) == 0) {
      TimeInStateVector& times = table[key];
      times = zeroTimeInState(gFreqTable);
      foldPerCpuValue(gFoldLayout, value.data(), times);
    } else if (errno != ENOENT) {
      return false;
    }
    last = key;
    previous = &last;
  }
  return errno == ENOENT;
}

// Cgroups per batch call: with the values of 64 CPUs, about 1 MiB.
constexpr uint32_t kCgroupsPerBatch = 256;

}  // namespace

std::optional<CgroupTimeTable> getCgroupCpuFreqTimes() {
  if (!ensureGlobals()) return std::nullopt;
  const android::base::unique_fd fd = openCgroupMap(BPF_F_RDONLY);
  if (fd.get() < 0) return std::nullopt;
  CgroupTimeTable table;
  if (perCpuBatchesUsable()) {
    const size_t blocks = gCpuBlockCount;
    const BatchWalk walk = walkInBatches<zelk_cgroup_id, time_in_state_block_t>(
        fd.get(), kCgroupsPerBatch, blocks,
        [&](const zelk_cgroup_id* ids, const time_in_state_block_t* values, uint32_t count) {
          for (uint32_t i = 0; i < count; ++i) {
            TimeInStateVector times = zeroTimeInState(gFreqTable);
            foldPerCpuValue(gFoldLayout, &values[i * blocks], times);
            table.insert_or_assign(ids[i], std::move(times));
          }
        });
    if (walk == BatchWalk::Done) return table;
    if (walk == BatchWalk::Failed) return std::nullopt;
    gPerElementWalks.store(true, std::memory_order_relaxed);
  }
  if (!readCgroupsByElements(fd.get(), table)) return std::nullopt;
  return table;
}

std::optional<TimeInStateVector> getCpuFreqTimesFromCgroup(uint64_t id) {
  if (!ensureGlobals()) return std::nullopt;
  const android::base::unique_fd fd = openCgroupMap(BPF_F_RDONLY);
  if (fd.get() < 0) return std::nullopt;
  const zelk_cgroup_id key = id;
  zelk_cgroup_id probe = 0;
  return readTimeInState(fd.get(), &key, &probe);
}

bool clearCgroupTimes() {
  if (!ensureGlobals()) return false;
  const android::base::unique_fd fd = openCgroupMap(0);
  if (fd.get() < 0) return false;
  const bool cleared = clearMap<zelk_cgroup_id>(fd, 0, mapInfo(MapId::CgroupTime).name);
  forgetRemovedCgroups();
  return cleared;
}

}  // namespace zelkora
}  // namespace com
