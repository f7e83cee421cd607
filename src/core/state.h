// The library's process-wide state. Tables, counts and descriptors are written only by
// initGlobals() under gInitMutex before gGlobalsReady is set (release); after that they are
// read-only and read without locks by anyone who saw the flag set (acquire).
#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "core/rw_lock.h"
#include "query/fold.h"

namespace com {
namespace zelkora {

extern std::mutex gInitMutex;
extern std::mutex gTrackingMutex;
extern std::vector<std::vector<uint64_t>> gFreqTable;
extern std::vector<std::vector<uint64_t>> gRelatedCpus;
extern std::vector<uint64_t> gCpuSlot;
extern android::base::unique_fd gProcessTimeFd;
extern RwLock gProcessTimeLock;
extern android::base::unique_fd gKthreadTimeFd;
extern RwLock gKthreadTimeLock;
extern android::base::unique_fd gTotalTimeFd;
extern RwLock gTotalTimeLock;
extern android::base::unique_fd gTopTimeFd;
extern android::base::unique_fd gBgTimeFd;
extern android::base::unique_fd gPidAdjUpdateFd;
extern android::base::unique_fd gClearTimeFd;
extern android::base::unique_fd gProAdjFd;
extern android::base::unique_fd gProCommFd;
extern RwLock gTopBgTimeLock;
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
// Where each policy's CPUs are found in a per-CPU buffer of gCpuBlockCount blocks.
extern FoldLayout gFoldLayout;

// Runs the lazy initialisation; true when the state is ready.
bool initGlobals();

// The entry test of every exported operation but the tracking start.
inline bool ensureGlobals() {
  return gGlobalsReady.load(std::memory_order_acquire) || initGlobals();
}

}  // namespace zelkora
}  // namespace com
