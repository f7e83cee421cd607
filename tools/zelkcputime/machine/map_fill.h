// How full the kernel object's counting and pid maps are, and what overflowed: a full counting
// map adds new names' time to its overflow entry, a full pid map leaves new processes untracked.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "zelkcpufreqtime_overflow.h"

namespace zelk::cli {

struct MapFill {
  std::string name;
  uint64_t entries = 0;
  uint64_t capacity = 0;
  // Time in the map's overflow entries (ns); none for the pid maps.
  std::optional<uint64_t> overflowNs;
};

struct Fill {
  std::vector<MapFill> maps;                           // those that could be read
  std::optional<com::zelkora::OverflowCounts> counts;  // none for an object without counters
};

// Reads the pinned maps' entries and sizes, and the overflow through the library.
Fill readFill();

// The entries and sizes alone, without the overflow time (which takes more queries).
std::vector<MapFill> measureMaps();

// The maps above `percent` full, as warning lines.
std::vector<std::string> fillWarnings(const Fill& fill, uint64_t percent = 90);

}  // namespace zelk::cli
