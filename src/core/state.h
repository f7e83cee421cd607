// The library's process-wide state. Tables, counts and descriptors are written only by
// initGlobals() under gInitMutex before gGlobalsReady is set (release); after that they are
// read-only and read without locks by anyone who saw the flag set (acquire).
//
// The descriptors of the counting maps are guarded by their map's lock: a whole-map walk holds it
// shared, a whole-map clear exclusive, and the compiler checks that (clang -Wthread-safety).
// Single-element operations, which the kernel makes atomic, take no lock and say so through
// lockFreeFd(). The three pid maps are walked only by the foreground/background queries, which
// hold gTopBgTimeLock shared for the walk and the stored totals together, so that lock guards
// them too; nothing of the library clears them whole, and the seeding's single-element writes
// and deletes take no lock.
#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "core/fold_layout.h"
#include "core/rw_lock.h"
#include "core/thread_annotations.h"

namespace com {
namespace zelkora {

extern std::mutex gInitMutex;
extern std::mutex gTrackingMutex;
extern RwLock gProcessTimeLock;
extern RwLock gKthreadTimeLock;
extern RwLock gTotalTimeLock;
extern RwLock gTopBgTimeLock;
extern std::vector<std::vector<uint64_t>> gFreqTable;
extern std::vector<std::vector<uint64_t>> gRelatedCpus;
extern std::vector<std::string> gPolicyNames;  // per policy, its directory's name
extern std::vector<uint64_t> gCpuSlot;
extern android::base::unique_fd gProcessTimeFd GUARDED_BY(gProcessTimeLock);
extern android::base::unique_fd gKthreadTimeFd GUARDED_BY(gKthreadTimeLock);
extern android::base::unique_fd gTotalTimeFd GUARDED_BY(gTotalTimeLock);
extern android::base::unique_fd gTopTimeFd GUARDED_BY(gTopBgTimeLock);
extern android::base::unique_fd gBgTimeFd GUARDED_BY(gTopBgTimeLock);
extern android::base::unique_fd gPidAdjUpdateFd GUARDED_BY(gTopBgTimeLock);
extern android::base::unique_fd gClearTimeFd GUARDED_BY(gTopBgTimeLock);
extern android::base::unique_fd gProAdjFd GUARDED_BY(gTopBgTimeLock);
extern android::base::unique_fd gProCommFd GUARDED_BY(gTopBgTimeLock);
extern std::atomic<bool> gTrackingStarted;
extern uint32_t gPolicyCount;
extern std::atomic<bool> gGlobalsReady;
extern uint32_t gCpuCount;
extern const uint32_t gTopBgClearKey;

// Blocks in every per-CPU lookup buffer: the larger of gCpuCount and the kernel's possible-CPU
// count. The kernel writes one block per possible CPU, and Android's C library counts only the
// cpuN directories for get_nprocs_conf(), which can be fewer; a buffer of gCpuCount blocks
// alone could then be overrun by the kernel.
extern uint32_t gCpuBlockCount;
// The kernel's possible-CPU count, 0 when it could not be read: the blocks of each value in a
// batch lookup, which lays values end to end.
extern uint32_t gPossibleCpuCount;
// Where each policy's CPUs are found in a per-CPU buffer of gCpuBlockCount blocks.
extern FoldLayout gFoldLayout;

// A guarded map's descriptor for what needs no lock: one element operation, which the kernel
// makes atomic, or a check of the descriptor, which never changes once published.
inline const android::base::unique_fd& lockFreeFd(const android::base::unique_fd& fd)
    NO_THREAD_SAFETY_ANALYSIS {
  return fd;
}

// Runs the lazy initialisation; true when the state is ready.
bool initGlobals();

// The entry test of every exported operation but the tracking start.
inline bool ensureGlobals() {
  return gGlobalsReady.load(std::memory_order_acquire) || initGlobals();
}

}  // namespace zelkora
}  // namespace com
