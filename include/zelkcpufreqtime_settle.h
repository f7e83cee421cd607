// libzelkcpufreqtime: counts exact at the instant of reading.
//
// The kernel object charges a task's time when the task leaves its CPU, so a task that keeps its
// CPU has not been charged for what it has run since it got there: every read lags by what the
// running tasks have run since their last switch (on an idle CPU a busy task may not be switched
// out for seconds). settleCpuTimes() charges those slices up to now, each to its running task at
// its CPU's current frequency exactly as its switch would, so that the queries of
// zelkcpufreqtime.h that follow count every CPU up to the call. None of those queries settles by
// itself; their results are as before, only later. Settle while some process tracks: once the
// programs are detached the counts stand still, and the object then declines to charge a task
// that came in after the last switch it saw, but within about 20 ms of that switch one settle may
// still charge the running task that much.
//
// Cost: one interrupt to each CPU other than the caller's (12 us of the caller's time apiece on
// an x86 test machine, 1 us for its own CPU). An idle CPU is woken for it, which on a phone costs
// energy: settle before reads that need to be exact, not on a timer of its own.
#pragma once

#include <cstdint>
#include <vector>

#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

// Settles every online CPU. False, with the reason in errno, when the kernel cannot run the
// object's settle program on a chosen CPU: before Linux 5.10 (EINVAL, or 524, the kernel's
// ENOTSUPP), with an object that has no settle program (ENOENT), or without the right to open its
// pin (EACCES, EPERM). The counts are then as they were; nothing else changes. Safe to call from
// any thread, and from several processes at once.
ZELK_API bool settleCpuTimes();
// Settles only `cpus`: those of one policy, before its frequency changes. A CPU that is not online
// is skipped, as nothing runs there.
ZELK_API bool settleCpuTimes(const std::vector<uint32_t>& cpus);

}  // namespace zelkora
}  // namespace com
