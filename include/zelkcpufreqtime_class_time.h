// libzelkcpufreqtime: time in the foreground and in the background per task name, in its two
// parts.
//
// getProcessTopTimes() and getProcessBgTimes() (zelkcpufreqtime.h) add to each name's stored
// total the open period of the first live task of that name that their walk of the pids meets;
// when another task of the name comes first in a later walk, the name's value can fall. These
// queries give the two parts apart:
//   - closedNs: the periods that have ended (the task changed class, was renamed or ended), as
//     the kernel stores them. It only grows until clearTopAndBgTimes(): a counter.
//   - openNs: the periods still open, summed over every live task of the name in the class, each
//     from the later of its last change and the last clear. It falls when a task leaves the
//     class: a gauge.
// Their sum is the name's time in the class up to the call.
//
// Same error contract as the queries of zelkcpufreqtime.h: empty when the library cannot
// initialise or a walk fails, engaged and empty for no entries; nothing is logged.
#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>

#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

struct ClassTimeParts {
  uint64_t closedNs = 0;
  uint64_t openNs = 0;
};

// Keyed as TimeTable: the task name, with flag 0.
using ClassTimePartsTable = std::unordered_map<process_key_char_t, ClassTimeParts,
                                               process_key_char_hash, process_key_char_equal>;

ZELK_API std::optional<ClassTimePartsTable> getProcessTopTimeParts();
ZELK_API std::optional<ClassTimePartsTable> getProcessBgTimeParts();

}  // namespace zelkora
}  // namespace com
