#include <android-base/unique_fd.h>

#include <cerrno>
#include <optional>
#include <string>

#include "accounting/clock.h"
#include "core/map_records.h"
#include "core/state.h"
#include "kernel/bpf_syscall.h"
#include "query/task_key.h"
#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {
namespace {

// The running period of the live tasks of the class, counted from the later of their last class
// change and the last clear. False when the query must fail; a pid walk that breaks off after
// its first pid just ends here.
bool addLivePeriods(TimeTable& table, bool isTop, uint64_t now) REQUIRES_SHARED(gTopBgTimeLock) {
  const int adjFd = gProAdjFd.get();
  pid_key_t pid;
  if (mapGetNextKey(adjFd, nullptr, &pid) != 0) return errno == ENOENT;
  time_value_t clearTime;
  // Without a clear time there is nothing to count from.
  if (mapLookupElem(gClearTimeFd.get(), &gTopBgClearKey, &clearTime) != 0) return true;

  process_key_char_t taskKey{std::string(), 0};
  for (;;) {
    task_name_value_t name;
    if (mapLookupElem(gProCommFd.get(), &pid, &name) != 0) return false;
    adj_value_t adj;
    if (mapLookupElem(adjFd, &pid, &adj) == 0 && isTopAdj(adj) == isTop) {
      // A missing or zero last update, or one before the clear, counts from the clear.
      time_value_t lastUpdate;
      time_value_t start = clearTime;
      if (mapLookupElem(gPidAdjUpdateFd.get(), &pid, &lastUpdate) == 0 && lastUpdate > clearTime) {
        start = lastUpdate;
      }
      // A start after `now` (a change recorded after the clock was read, or a clock that could
      // not be read) counts nothing rather than a wrapped, huge period.
      const uint64_t live = now > start ? now - start : 0;
      assignTaskName(taskKey.comm, name.comm);
      // The first task of a name stands for it. The key is copied into a new entry rather than
      // moved, so that its string keeps its buffer for the next pid.
      table.try_emplace(taskKey, live);
    }
    const pid_key_t previous = pid;
    if (mapGetNextKey(adjFd, &previous, &pid) != 0) return true;
  }
}

bool addStoredTotals(TimeTable& table, int mapFd) REQUIRES_SHARED(gTopBgTimeLock) {
  process_info_t key;
  if (mapGetNextKey(mapFd, nullptr, &key) != 0) return errno == ENOENT;
  process_key_char_t taskKey{std::string(), 0};
  for (;;) {
    time_value_t total;
    if (mapLookupElem(mapFd, &key, &total) != 0) return false;
    assignTaskName(taskKey.comm, key.comm);
    const auto [entry, inserted] = table.try_emplace(taskKey, total);
    if (!inserted) entry->second += total;
    const process_info_t previous = key;
    if (mapGetNextKey(mapFd, &previous, &key) != 0) return errno == ENOENT;
  }
}

// Per task name: the stored totals of `mapFd` (the top or the background time map) plus the
// running period of the first live task of that name in the class (`isTop`: foreground).
std::optional<TimeTable> getProcessTime(const android::base::unique_fd& mapFd, bool isTop) {
  if (!ensureGlobals() || mapFd.get() < 0) return std::nullopt;
  TimeTable table;
  const uint64_t now = getTimeSinceBoot();
  ReaderLock lock(gTopBgTimeLock);
  if (!addLivePeriods(table, isTop, now) || !addStoredTotals(table, mapFd.get())) {
    return std::nullopt;
  }
  return table;
}

}  // namespace

// getProcessTime checks the descriptor first, then takes the lock for the walks.
std::optional<TimeTable> getProcessTopTimes() {
  return getProcessTime(lockFreeFd(gTopTimeFd), true);
}

std::optional<TimeTable> getProcessBgTimes() {
  return getProcessTime(lockFreeFd(gBgTimeFd), false);
}

}  // namespace zelkora
}  // namespace com
