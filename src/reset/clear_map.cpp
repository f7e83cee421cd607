#include "reset/clear_map.h"

#include <cerrno>
#include <cstring>

#include "core/clock.h"
#include "core/log.h"
#include "syscall/bpf_syscall.h"

namespace com {
namespace zelkora {

uint64_t (*gClearMapClock)() = getTimeSinceBoot;

template <typename KeyT>
// NOLINTNEXTLINE(performance-unnecessary-value-param): the declared signature takes it by value
bool clearMap(const android::base::unique_fd& mapFd, KeyT key, std::string mapName) {
  const int fd = mapFd.get();
  if (fd < 0) return false;

  const uint64_t start = gClearMapClock();
  // Always restart from the first key: the kernel may add keys behind a walk.
  while (mapGetNextKey(fd, nullptr, &key) == 0 && mapDeleteElem(fd, &key) == 0) {
  }
  // The clock may clobber errno; the outcome is the operation that ended the loop.
  const int error = errno;
  const uint64_t elapsed = gClearMapClock() - start;

  if (elapsed > kSlowClearNs) {
    ZELK_LOGW("Cleared map %s in time interval %lu", mapName.c_str(),
              static_cast<unsigned long>(elapsed));
  }
  if (error == ENOENT) return true;
  ZELK_LOGE("Error clearing map %s, err: %s.", mapName.c_str(), strerror(error));
  return false;
}

template bool clearMap<process_key_t>(const android::base::unique_fd&, process_key_t, std::string);
template bool clearMap<process_info_t>(const android::base::unique_fd&, process_info_t,
                                       std::string);
template bool clearMap<zelk_cgroup_id>(const android::base::unique_fd&, zelk_cgroup_id,
                                       std::string);

}  // namespace zelkora
}  // namespace com
