#include "views/progress_bar.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "views/units.h"

namespace zelk::cli {

std::string progressLine(uint64_t elapsedMs, uint64_t totalMs, uint64_t countedNs, size_t width) {
  const uint64_t shown = std::min(elapsedMs, totalMs);
  const size_t filled = totalMs == 0 ? width : static_cast<size_t>(shown * width / totalMs);
  char seconds[48];
  snprintf(seconds, sizeof(seconds), "%" PRIu64 ".%" PRIu64 "/%" PRIu64 " s", shown / 1000,
           shown % 1000 / 100, totalMs / 1000);
  return "[" + std::string(filled, '#') + std::string(width - filled, '.') + "]  " + seconds +
         ", " + formatSeconds(countedNs) + " s of CPU time counted";
}

}  // namespace zelk::cli
