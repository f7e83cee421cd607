#include "views/fill_warnings.h"

#include "core/catalogue.h"
#include "map_sizes.h"
#include "views/units.h"

namespace zelk::cli {

std::vector<std::string> fillWarnings(const Fill& fill, uint64_t percent) {
  std::vector<std::string> warnings;
  for (const MapFill& map : fill.maps) {
    if (map.capacity == 0 || map.entries * 100 <= map.capacity * percent) continue;
    const com::zelkora::MapInfo* counted = com::zelkora::findMap(map.name);
    const char* option = counted != nullptr ? loader::sizeOption(counted->size) : "";
    warnings.push_back(
        map.name + " is " + formatPercent(map.entries, map.capacity) + "% full (" +
        std::to_string(map.entries) + " of " + std::to_string(map.capacity) + "): " +
        (map.overflowNs ? "new names go to its overflow entry" : "new processes go untracked") +
        "; `zelkcputime load --replace " + option + " N` makes room");
  }
  return warnings;
}

}  // namespace zelk::cli
