#include "machine/tracking.h"

#include <unistd.h>

#include <vector>

#include "machine/attached_programs.h"
#include "zelkcpufreqtime.h"

namespace zelk::cli {
namespace {

pid_t otherTracker() {
  for (const pid_t pid : pidsTracking()) {
    if (pid != getpid()) return pid;
  }
  return 0;
}

}  // namespace

Tracking joinTracking() {
  if (const pid_t other = otherTracker()) return {other, ""};
  if (com::zelkora::startTrackingCpuFreqTime()) return {getpid(), ""};
  // Another process may have attached between the look and the start.
  if (const pid_t other = otherTracker()) return {other, ""};
  return {0, "the library could not start tracking"};
}

}  // namespace zelk::cli
