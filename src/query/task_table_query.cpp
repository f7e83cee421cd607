// The process and kernel-thread tables: one walk over a per-CPU map keyed by process_key_t.
#include <android-base/unique_fd.h>

#include <cerrno>
#include <mutex>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "core/map_records.h"
#include "core/state.h"
#include "kernel/bpf_syscall.h"
#include "query/fold.h"
#include "query/task_key.h"
#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {
namespace {

enum class TableFlag { FromKey, AlwaysOne };

std::optional<TimeInStateTable> readTaskTable(const android::base::unique_fd& mapFd,
                                              RwLock& mapLock, TableFlag flagRule) {
  TimeInStateTable table;
  std::shared_lock<RwLock> lock(mapLock);
  const int fd = mapFd.get();
  process_key_t key;
  if (mapGetNextKey(fd, nullptr, &key) != 0) {
    if (errno == ENOENT) return table;
    return std::nullopt;
  }

  const TimeInStateVector zeros = zeroTimeInState(gFreqTable);
  std::vector<time_in_state_block_t> value(gCpuBlockCount);
  // One task key for the whole walk: its name is moved into the table only when it starts a new
  // entry, so keys that meet an existing entry cost no allocation.
  process_key_char_t taskKey{std::string(), 0};
  for (;;) {
    // A key removed since the step that returned it fails the whole query, as any lookup error.
    if (mapLookupElem(fd, &key, value.data()) != 0) return std::nullopt;
    assignTaskName(taskKey.comm, key.comm);
    taskKey.flag = flagRule == TableFlag::AlwaysOne ? 1 : key.flag;
    // try_emplace leaves taskKey untouched when the entry exists.
    const auto entry = table.try_emplace(std::move(taskKey), zeros).first;
    foldPerCpuValue(gFoldLayout, value.data(), entry->second);

    const process_key_t previous = key;
    if (mapGetNextKey(fd, &previous, &key) != 0) {
      if (errno == ENOENT) return table;
      return std::nullopt;
    }
  }
}

}  // namespace

std::optional<TimeInStateTable> getProcessCpuFreqTimes() {
  if (!ensureGlobals()) return std::nullopt;
  return readTaskTable(gProcessTimeFd, gProcessTimeLock, TableFlag::FromKey);
}

std::optional<TimeInStateTable> getKthreadCpuFreqTimes() {
  if (!ensureGlobals()) return std::nullopt;
  return readTaskTable(gKthreadTimeFd, gKthreadTimeLock, TableFlag::AlwaysOne);
}

}  // namespace zelkora
}  // namespace com
