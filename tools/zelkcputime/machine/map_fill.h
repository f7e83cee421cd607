// How full the kernel object's counting and pid maps are, counted in the pinned maps.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelk::cli {

struct MapFill {
  std::string name;
  uint64_t entries = 0;
  uint64_t capacity = 0;
  // Time in the map's overflow entries (ns); none for the pid maps.
  std::optional<uint64_t> overflowNs;
};

// The entries and sizes of the pinned maps that fill, those that could be read.
std::vector<MapFill> measureMaps();

}  // namespace zelk::cli
