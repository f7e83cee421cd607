// The allocations that a result's own entries cannot do without: per table entry its node, its
// name when too long for std::string's inline buffer, and its vectors (for a time-in-state
// vector, the outer one and one per policy). What a call allocates beyond these is the library's.
#pragma once

#include <optional>
#include <string>

#include "zelkcpufreqtime.h"

namespace zelk::bench {

inline double nameAllocations(const std::string& name) {
  return name.size() > std::string().capacity() ? 1 : 0;
}

inline double vectorAllocations(const com::zelkora::TimeInStateVector& times) {
  double count = times.empty() ? 0 : 1;
  for (const auto& policy : times) count += policy.empty() ? 0 : 1;
  return count;
}

inline double ownAllocations(const std::optional<com::zelkora::TimeInStateVector>& times) {
  return times ? vectorAllocations(*times) : 0;
}

inline double ownAllocations(const std::optional<com::zelkora::TimeInStateTable>& table) {
  double count = 0;
  if (!table) return count;
  for (const auto& [key, times] : *table) {
    count += 1 + nameAllocations(key.comm) + vectorAllocations(times);
  }
  return count;
}

inline double ownAllocations(const std::optional<com::zelkora::TimeTable>& table) {
  double count = 0;
  if (!table) return count;
  for (const auto& entry : *table) count += 1 + nameAllocations(entry.first.comm);
  return count;
}

inline double ownAllocations(bool) { return 0; }

}  // namespace zelk::bench
