#pragma once

#include <cstdint>

namespace com {
namespace zelkora {

// The library's one clock: CLOCK_MONOTONIC in nanoseconds, 0 (after an error message) when it
// cannot be read. Every time in the pid and clear-time maps is on this clock.
uint64_t getTimeSinceBoot();

}  // namespace zelkora
}  // namespace com
