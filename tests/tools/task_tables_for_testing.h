// Tables for the tool's tests without a kernel: two policies, and rows whose equal totals make
// the order depend on the tie-breaks, never on the hash table's.
#pragma once

#include <cstdint>

#include "model/times.h"
#include "zelkcpufreqtime.h"

namespace zelk::cli {

inline const FreqTable kFreqs = {{300000, 1000000}, {500000}};

// Times in `unit` ns; "id\tle" has none.
inline com::zelkora::TimeInStateTable processes(uint64_t unit = 1) {
  return {
      {{"b", 0}, {{1 * unit, 2 * unit}, {3 * unit}}},
      {{"a", 1}, {{0, 6 * unit}, {0}}},
      {{"a", 0}, {{6 * unit, 0}, {0}}},
      {{"big", 1}, {{10 * unit, 0}, {5 * unit}}},
      {{"id\tle", 0}, {{0, 0}, {0}}},
  };
}

}  // namespace zelk::cli
