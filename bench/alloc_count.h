// Heap allocations, counted by the benchmark binary's own operator new.
#pragma once

#include <cstddef>

namespace zelk::bench {

// Allocations made by the calling thread so far. A plain per-thread counter, so that counting
// adds no atomic operation to the timed library calls.
size_t allocationCount();

}  // namespace zelk::bench
