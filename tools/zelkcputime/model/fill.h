// How full the kernel object's maps are, and what overflowed: a full counting map adds new
// names' time to its overflow entry, a full pid map leaves new processes untracked.
#pragma once

#include <optional>
#include <vector>

#include "machine/map_fill.h"
#include "zelkcpufreqtime_overflow.h"

namespace zelk::cli {

struct Fill {
  std::vector<MapFill> maps;                           // those that could be read
  std::optional<com::zelkora::OverflowCounts> counts;  // none for an object without counters
};

// The pinned maps' entries and sizes, and the time in their overflow entries through the
// library, so that the numbers are the ones `show` prints.
Fill readFill();

}  // namespace zelk::cli
