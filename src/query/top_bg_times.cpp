#include <android-base/unique_fd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/clock.h"
#include "core/map_records.h"
#include "core/state.h"
#include "query/batch_walk.h"
#include "query/task_key.h"
#include "syscall/bpf_syscall.h"
#include "zelkcpufreqtime.h"
#include "zelkcpufreqtime_class_time.h"

namespace com {
namespace zelkora {
namespace {

// Pids per batch call of the pid maps: 4 to 20 KiB of keys and values.
constexpr uint32_t kPidsPerBatch = 1024;

// The period of a live task, counted from the later of its last class change and the last clear.
// A start after `now` (a change recorded after the clock was read, or a clock that could not be
// read) counts nothing rather than a wrapped, huge period.
inline uint64_t livePeriod(uint64_t now, time_value_t clearTime, const time_value_t* lastUpdate) {
  const time_value_t start = lastUpdate && *lastUpdate > clearTime ? *lastUpdate : clearTime;
  return now > start ? now - start : 0;
}

// Every entry of a pid map, sorted by pid for the join below.
template <typename Value>
BatchWalk readPidMap(int fd, std::vector<std::pair<pid_key_t, Value>>& entries) {
  const BatchWalk walk = walkInBatches<pid_key_t, Value>(
      fd, kPidsPerBatch, 1, [&](const pid_key_t* pids, const Value* values, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) entries.emplace_back(pids[i], values[i]);
      });
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  return walk;
}

template <typename Value>
const Value* findPid(const std::vector<std::pair<pid_key_t, Value>>& entries, pid_key_t pid) {
  const auto at =
      std::lower_bound(entries.begin(), entries.end(), pid,
                       [](const auto& entry, pid_key_t key) { return entry.first < key; });
  return at != entries.end() && at->first == pid ? &at->second : nullptr;
}

// The walk below in batches: the class's pids from the adj map in its order, then the names and
// last changes of all pids, joined on the pid. A pid whose name is gone by then has ended and is
// just absent, as a key deleted during a batch walk is.
template <typename AddLive>
BatchWalk forEachLivePeriodInBatches(bool isTop, uint64_t now, AddLive add)
    REQUIRES_SHARED(gTopBgTimeLock) {
  std::vector<pid_key_t> pids;
  BatchWalk walk = walkInBatches<pid_key_t, adj_value_t>(
      gProAdjFd.get(), kPidsPerBatch, 1,
      [&](const pid_key_t* keys, const adj_value_t* adjs, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
          if (isTopAdj(adjs[i]) == isTop) pids.push_back(keys[i]);
        }
      });
  if (walk != BatchWalk::Done || pids.empty()) return walk;
  time_value_t clearTime;
  // Without a clear time there is nothing to count from.
  if (mapLookupElem(gClearTimeFd.get(), &gTopBgClearKey, &clearTime) != 0) return walk;

  std::vector<std::pair<pid_key_t, task_name_value_t>> names;
  std::vector<std::pair<pid_key_t, time_value_t>> lastUpdates;
  names.reserve(pids.size());
  lastUpdates.reserve(pids.size());
  // The adj map took batches, so these hash maps do too: anything else is an error.
  if (readPidMap(gProCommFd.get(), names) != BatchWalk::Done ||
      readPidMap(gPidAdjUpdateFd.get(), lastUpdates) != BatchWalk::Done) {
    return BatchWalk::Failed;
  }
  for (const pid_key_t pid : pids) {
    const task_name_value_t* name = findPid(names, pid);
    if (name) add(name->comm, livePeriod(now, clearTime, findPid(lastUpdates, pid)));
  }
  return BatchWalk::Done;
}

// Calls `add(name, live)` for each live task of the class with its running period. False when
// the query must fail. Key by key, a pid walk that breaks off after its first pid just ends here.
template <typename AddLive>
bool forEachLivePeriod(bool isTop, uint64_t now, AddLive add) REQUIRES_SHARED(gTopBgTimeLock) {
  if (!gPerElementWalks.load(std::memory_order_relaxed)) {
    const BatchWalk walk = forEachLivePeriodInBatches(isTop, now, add);
    if (walk != BatchWalk::Unsupported) return walk == BatchWalk::Done;
    gPerElementWalks.store(true, std::memory_order_relaxed);
  }
  const int adjFd = gProAdjFd.get();
  pid_key_t pid;
  if (mapGetNextKey(adjFd, nullptr, &pid) != 0) return errno == ENOENT;
  time_value_t clearTime;
  // Without a clear time there is nothing to count from.
  if (mapLookupElem(gClearTimeFd.get(), &gTopBgClearKey, &clearTime) != 0) return true;

  for (;;) {
    task_name_value_t name;
    if (mapLookupElem(gProCommFd.get(), &pid, &name) != 0) return false;
    adj_value_t adj;
    if (mapLookupElem(adjFd, &pid, &adj) == 0 && isTopAdj(adj) == isTop) {
      // A missing or zero last update, or one before the clear, counts from the clear.
      time_value_t lastUpdate;
      const bool updated = mapLookupElem(gPidAdjUpdateFd.get(), &pid, &lastUpdate) == 0;
      add(name.comm, livePeriod(now, clearTime, updated ? &lastUpdate : nullptr));
    }
    const pid_key_t previous = pid;
    if (mapGetNextKey(adjFd, &previous, &pid) != 0) return true;
  }
}

// 24 KiB of names and totals per batch call.
constexpr uint32_t kTotalsPerBatch = 1024;

// Calls `add(name, total)` for each stored total of `mapFd` (the top or the background map):
// in batches, where a name deleted during the walk is just absent; else key by key, where a name
// gone between its step and its lookup fails the query.
template <typename AddStored>
bool forEachStoredTotal(int mapFd, AddStored add) REQUIRES_SHARED(gTopBgTimeLock) {
  if (!gPerElementWalks.load(std::memory_order_relaxed)) {
    const BatchWalk walk = walkInBatches<process_info_t, time_value_t>(
        mapFd, kTotalsPerBatch, 1,
        [&](const process_info_t* keys, const time_value_t* totals, uint32_t count) {
          for (uint32_t i = 0; i < count; ++i) add(keys[i].comm, totals[i]);
        });
    if (walk != BatchWalk::Unsupported) return walk == BatchWalk::Done;
    gPerElementWalks.store(true, std::memory_order_relaxed);
  }
  process_info_t key;
  if (mapGetNextKey(mapFd, nullptr, &key) != 0) return errno == ENOENT;
  for (;;) {
    time_value_t total;
    if (mapLookupElem(mapFd, &key, &total) != 0) return false;
    add(key.comm, total);
    const process_info_t previous = key;
    if (mapGetNextKey(mapFd, &previous, &key) != 0) return errno == ENOENT;
  }
}

// The walks of one class under its lock: `addLive(table, key, live)` for each live task of the
// class, then `addStored(table, key, total)` for each stored total of `mapFd` (the top or the
// background time map). Empty when the library is not ready or a walk fails.
template <typename Table, typename AddLive, typename AddStored>
std::optional<Table> walkClass(const android::base::unique_fd& mapFd, bool isTop, AddLive addLive,
                               AddStored addStored) {
  if (!ensureGlobals() || mapFd.get() < 0) return std::nullopt;
  Table table;
  // One key for every name: its string keeps its buffer from one name to the next.
  process_key_char_t taskKey{std::string(), 0};
  const uint64_t now = getTimeSinceBoot();
  ReaderLock lock(gTopBgTimeLock);
  const bool walked =
      forEachLivePeriod(isTop, now,
                        [&](const char(&comm)[kCommLen], uint64_t live) {
                          assignTaskName(taskKey.comm, comm);
                          addLive(table, taskKey, live);
                        }) &&
      forEachStoredTotal(mapFd.get(), [&](const char(&comm)[kCommLen], uint64_t total) {
        assignTaskName(taskKey.comm, comm);
        addStored(table, taskKey, total);
      });
  if (!walked) return std::nullopt;
  return table;
}

// Per task name: the stored totals plus the running period of the first live task of that name
// in the class (`isTop`: foreground).
std::optional<TimeTable> getProcessTime(const android::base::unique_fd& mapFd, bool isTop) {
  return walkClass<TimeTable>(
      mapFd, isTop,
      [](TimeTable& table, const process_key_char_t& key, uint64_t live) {
        table.try_emplace(key, live);  // the first task of a name stands for it
      },
      [](TimeTable& table, const process_key_char_t& key, uint64_t total) {
        const auto [entry, inserted] = table.try_emplace(key, total);
        if (!inserted) entry->second += total;
      });
}

// The same walks, with the parts apart and every live task's period summed.
std::optional<ClassTimePartsTable> getProcessTimeParts(const android::base::unique_fd& mapFd,
                                                       bool isTop) {
  return walkClass<ClassTimePartsTable>(
      mapFd, isTop,
      [](ClassTimePartsTable& table, const process_key_char_t& key, uint64_t live) {
        table[key].openNs += live;
      },
      [](ClassTimePartsTable& table, const process_key_char_t& key, uint64_t total) {
        table[key].closedNs += total;
      });
}

}  // namespace

// getProcessTime checks the descriptor first, then takes the lock for the walks.
std::optional<TimeTable> getProcessTopTimes() {
  return getProcessTime(lockFreeFd(gTopTimeFd), true);
}

std::optional<TimeTable> getProcessBgTimes() {
  return getProcessTime(lockFreeFd(gBgTimeFd), false);
}

std::optional<ClassTimePartsTable> getProcessTopTimeParts() {
  return getProcessTimeParts(lockFreeFd(gTopTimeFd), true);
}

std::optional<ClassTimePartsTable> getProcessBgTimeParts() {
  return getProcessTimeParts(lockFreeFd(gBgTimeFd), false);
}

}  // namespace zelkora
}  // namespace com
