// Tracking for the commands that count: whose attachments the counts come from. The kernel takes
// a program once per tracepoint (PERF_EVENT_IOC_SET_BPF: File exists), so while one process has
// the pinned programs attached no other can attach them; it reads what that one's count instead.
#pragma once

#include <sys/types.h>

#include <string>

namespace zelk::cli {

struct Tracking {
  pid_t by = 0;       // this process, or the one that already tracked; 0 when neither
  std::string error;  // without a tracker: that this process could not start, for a message
};

// Starts tracking in this process (the library's startTrackingCpuFreqTime), unless another
// process has the pinned programs attached already: then that one's tracking counts for this
// one too, and the library's start, which rewrites the configuration maps that the running
// tracking uses, is not called.
Tracking joinTracking();

}  // namespace zelk::cli
