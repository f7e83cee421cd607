#include "core/clock.h"

#include <time.h>

#include <cerrno>
#include <cstring>

#include "core/log.h"

namespace com {
namespace zelkora {

uint64_t getTimeSinceBoot() {
  struct timespec ts;
  errno = 0;
  if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) {
    ZELK_LOGE("Failed to get CLOCK_MONOTONIC: %s", strerror(errno));
    return 0;
  }
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace zelkora
}  // namespace com
