// libzelkcpufreqtime: what the kernel object does when its maps fill.
//
// When a counting map (processes, kernel threads, top, background) cannot take a new task's
// entry, the object adds that time to the map's overflow entry instead, so that processes plus
// kernel threads still add up to the whole-system total. The overflow entry appears in the tables
// of zelkcpufreqtime.h like any task, under kOverflowTaskName: in the process table once per
// class (flag 0 and 1, both made whenever either is missing), in the kernel-thread table once, in
// the top and background tables once each. The clears delete them with the rest of their map; the
// object adds them again, at zero, when the map next takes a new name. Time is lost only where
// lostUpdates counts it.
//
// A process that the pid maps cannot hold when it is forked is counted here, once; its foreground
// and background periods are not counted (its CPU time is, under its name or the overflow entry).
#pragma once

#include <cstdint>
#include <optional>

#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

// The overflow entry's name: 16 characters, which no task's name can be, since the kernel keeps
// task names NUL-terminated within 16 bytes.
inline constexpr char kOverflowTaskName[] = "<map overflowed>";

inline bool isOverflowEntry(const process_key_char_t& key) { return key.comm == kOverflowTaskName; }

// Counts since the object was loaded, over all CPUs.
struct OverflowCounts {
  uint64_t untrackedProcesses;  // processes that the full pid maps could not hold at their fork
  uint64_t overflowedUpdates;   // time updates added to an overflow entry
  uint64_t lostUpdates;         // time updates lost: a full map whose overflow entry a clear
                                // had just deleted, or a reset had deleted by name
};

// Empty when the loaded object has no overflow counters (an object with the thirteen maps of
// zelkcpufreqtime.h alone, which the rest of the library works with all the same), or when they
// cannot be read. Logs nothing.
ZELK_API std::optional<OverflowCounts> getOverflowCounts();

}  // namespace zelkora
}  // namespace com
