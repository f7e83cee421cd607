#include "core/state.h"

namespace com {
namespace zelkora {

// Defined in this order on purpose: construction follows it, and destruction at unload runs in
// reverse, closing the map descriptors.
std::mutex gInitMutex;
std::mutex gTrackingMutex;
std::vector<std::vector<uint64_t>> gFreqTable;
std::vector<std::vector<uint64_t>> gRelatedCpus;
std::vector<std::string> gPolicyNames;
std::vector<uint64_t> gCpuSlot;
android::base::unique_fd gProcessTimeFd;
RwLock gProcessTimeLock;
android::base::unique_fd gKthreadTimeFd;
RwLock gKthreadTimeLock;
android::base::unique_fd gTotalTimeFd;
RwLock gTotalTimeLock;
android::base::unique_fd gTopTimeFd;
android::base::unique_fd gBgTimeFd;
android::base::unique_fd gPidAdjUpdateFd;
android::base::unique_fd gClearTimeFd;
android::base::unique_fd gProAdjFd;
android::base::unique_fd gProCommFd;
RwLock gTopBgTimeLock;
std::atomic<bool> gTrackingStarted{false};
uint32_t gPolicyCount = 0;
std::atomic<bool> gGlobalsReady{false};
uint32_t gCpuCount = 0;
const uint32_t gTopBgClearKey = 0;
uint32_t gCpuBlockCount = 0;
uint32_t gPossibleCpuCount = 0;
FoldLayout gFoldLayout;

}  // namespace zelkora
}  // namespace com
