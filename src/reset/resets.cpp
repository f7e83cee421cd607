// The six resets of the counting maps. The whole-map resets hold their map's lock exclusively
// so that no query of this library walks a half-cleared map; single-entry resets take no lock
// and rely on each element operation being atomic in the kernel.
#include <cerrno>
#include <vector>

#include "core/clock.h"
#include "core/map_records.h"
#include "core/state.h"
#include "query/task_key.h"
#include "reset/clear_map.h"
#include "syscall/bpf_syscall.h"
#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {
namespace {

// The entry is zeroed before it is deleted, so a reader that races the delete sees no stale
// times. BPF_EXIST keeps an absent entry absent; an absent entry counts as cleared.
bool zeroThenDelete(int fd, const void* key) {
  const std::vector<time_in_state_block_t> zero(gCpuBlockCount);
  if (mapUpdateElem(fd, key, zero.data(), BPF_EXIST) != 0 && errno != ENOENT) return false;
  return mapDeleteElem(fd, key) == 0 || errno == ENOENT;
}

// The descriptor of a map that is being cleared. Reading a guarded descriptor needs only the
// shared side of its lock; this makes the compiler demand the exclusive side.
const android::base::unique_fd& clearingFd(const android::base::unique_fd& fd,
                                           [[maybe_unused]] RwLock& lock) REQUIRES(lock) {
  return fd;
}

}  // namespace

bool clearProcessTimes() {
  if (!ensureGlobals()) return false;
  WriterLock lock(gProcessTimeLock);
  return clearMap(clearingFd(gProcessTimeFd, gProcessTimeLock), process_key_t{}, "processMap");
}

bool clearKthreadTimes() {
  if (!ensureGlobals()) return false;
  WriterLock lock(gKthreadTimeLock);
  return clearMap(clearingFd(gKthreadTimeFd, gKthreadTimeLock), process_key_t{}, "kthreadMap");
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the declared signature takes it by value
bool clearTimesFromProcess(std::string name, bool flag) {
  if (!ensureGlobals()) return false;
  const process_key_t key = mapKeyFromName(name, flag);
  return zeroThenDelete(lockFreeFd(gProcessTimeFd).get(), &key);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the declared signature takes it by value
bool clearTimesFromKthread(std::string name) {
  if (!ensureGlobals()) return false;
  const process_key_t key = mapKeyFromName(name, /*flag=*/true);
  return zeroThenDelete(lockFreeFd(gKthreadTimeFd).get(), &key);
}

bool clearTotalCpuTime() {
  if (!ensureGlobals()) return false;
  WriterLock lock(gTotalTimeLock);
  // An empty map counts as cleared.
  zero_key_t key;
  const int fd = clearingFd(gTotalTimeFd, gTotalTimeLock).get();
  if (mapGetNextKey(fd, nullptr, &key) != 0) return errno == ENOENT;
  return zeroThenDelete(fd, &key);
}

bool clearTopAndBgTimes() {
  if (!ensureGlobals()) return false;
  // Read before waiting for the lock: live periods may then start a little early, never late.
  const time_value_t now = getTimeSinceBoot();
  WriterLock lock(gTopBgTimeLock);
  // Written first and kept even when a clear fails: the totals deleted before the failure are
  // gone, so live periods must count from now.
  if (mapUpdateElem(clearingFd(gClearTimeFd, gTopBgTimeLock).get(), &gTopBgClearKey, &now,
                    BPF_ANY) != 0)
    return false;
  return clearMap(clearingFd(gTopTimeFd, gTopBgTimeLock), process_info_t{}, "topMap") &&
         clearMap(clearingFd(gBgTimeFd, gTopBgTimeLock), process_info_t{}, "bgMap");
}

}  // namespace zelkora
}  // namespace com
