// The snapshot whose exposition the serve tests know by heart.
#pragma once

#include "model/snapshot.h"

namespace zelk::cli {

// Two policies, the first listing 300 MHz twice (as a boost list may repeat one).
inline Snapshot knownSnapshot() {
  Snapshot s;
  s.parts = kAllParts;
  s.freqs = {{300000, 300000, 600000}, {1000000}};
  s.total = {{1, 2, 1000000000}, {500000000}};
  s.processes[{"app", 1}] = {{1000000000, 0, 500000000}, {0}};
  s.processes[{"app", 0}] = {{0, 0, 0}, {250000000}};
  s.kthreads[{"kworker/0:1", 1}] = {{3, 0, 0}, {0}};
  s.topParts[{"app", 0}] = {2000000000, 250000000};
  s.bgParts[{"app", 0}] = {1500000000, 0};
  return s;
}

}  // namespace zelk::cli
