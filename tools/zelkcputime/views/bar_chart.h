// A per-frequency residency chart: for each policy, one bar per frequency, as long as that
// frequency's share of the policy's time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zelk::cli {

using FreqTable = std::vector<std::vector<uint64_t>>;  // kHz, per policy, ascending
using Times = std::vector<std::vector<uint64_t>>;      // ns, the shape of a FreqTable

// One heading line per policy ("policy 0: 1.500 s"), then one line per frequency: MHz, a bar of
// '#' up to `width` characters, seconds and the share of the policy's time.
std::string residencyChart(const FreqTable& freqs, const Times& times, size_t width = 40);

}  // namespace zelk::cli
