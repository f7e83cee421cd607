// The library's frequency table and time vectors, as every part of the tool holds them.
#pragma once

#include <cstdint>
#include <vector>

namespace zelk::cli {

using FreqTable = std::vector<std::vector<uint64_t>>;  // kHz, per policy, ascending
using Times = std::vector<std::vector<uint64_t>>;      // ns, the shape of a FreqTable

uint64_t sumTimes(const Times& times);

}  // namespace zelk::cli
