#include "kernel/pressure_monitor.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/log.h"

namespace com {
namespace zelkora {
namespace {

constexpr const char kCpuPressurePath[] = "/proc/pressure/cpu";
constexpr int kStallUs = 500000;
constexpr int kWindowUs = 1000000;

}  // namespace

void doPollPsi() {
  errno = 0;
  // Closed on every way out: the trigger lives exactly as long as this descriptor.
  const android::base::unique_fd fd(open(kCpuPressurePath, O_RDWR | O_NONBLOCK | O_CLOEXEC));
  if (fd.get() < 0) {
    ZELK_LOGE("Failed to open %s, reason: %s.", kCpuPressurePath, strerror(errno));
    return;
  }

  char trigger[128];
  snprintf(trigger, sizeof(trigger), "some %d %d", kStallUs, kWindowUs);
  ZELK_LOGI("Trigger: %s", trigger);
  errno = 0;
  // The kernel parses the trigger as a C string, so the terminating zero goes with it.
  if (write(fd.get(), trigger, strlen(trigger) + 1) < 0) {
    ZELK_LOGE("Failed to write trigger, reason: %s.", strerror(errno));
    return;
  }

  struct pollfd event = {};
  event.fd = fd.get();
  event.events = POLLPRI;
  while (true) {
    errno = 0;
    if (poll(&event, 1, -1) < 0) {
      ZELK_LOGE("Failed to poll, reason: %s.", strerror(errno));
      return;
    }
    if (event.revents == 0) continue;
    // An error wins over a pressure event reported in the same wake-up.
    if (event.revents & POLLERR) {
      ZELK_LOGE("Error event.");
      return;
    }
    if (!(event.revents & POLLPRI)) {
      ZELK_LOGE("Unknown event.");
      return;
    }
    ZELK_LOGD("cpu psi is high, 500ms at 1s window");
  }
}

}  // namespace zelkora
}  // namespace com
