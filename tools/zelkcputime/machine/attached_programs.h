// Whether tracking runs: which processes hold the kernel object's programs attached to their
// tracepoints. The attachments live as long as the process that made them, so this is the
// machine-wide answer; the library's own flag only knows about its process.
#pragma once

#include <sys/types.h>

#include <vector>

namespace zelk::cli {

// The processes with a perf event that runs one of the pinned programs, ascending; empty when
// none, or when the programs are not pinned.
std::vector<pid_t> pidsTracking();

}  // namespace zelk::cli
