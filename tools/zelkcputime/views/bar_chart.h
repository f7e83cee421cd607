// A per-frequency residency chart: for each policy, one bar per frequency, as long as that
// frequency's share of the policy's time.
#pragma once

#include <cstddef>
#include <string>

#include "model/times.h"

namespace zelk::cli {

// One heading line per policy ("policy 0: 1.500 s"), then one line per frequency: MHz, a bar of
// '#' up to `width` characters, seconds and the share of the policy's time.
std::string residencyChart(const FreqTable& freqs, const Times& times, size_t width = 40);

}  // namespace zelk::cli
