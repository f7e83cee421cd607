// The library's frequency table and time vectors, and the numbers every view derives from them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zelk::cli {

using FreqTable = std::vector<std::vector<uint64_t>>;  // kHz, per policy, ascending
using Times = std::vector<std::vector<uint64_t>>;      // ns, the shape of a FreqTable

// ns × kHz, exact: such sums outgrow 64 bits within a day at a few GHz.
using Cycles = unsigned __int128;

uint64_t sumTimes(const Times& times);
// One policy's time; 0 for a policy `times` does not have.
uint64_t policyTime(const Times& times, size_t policy);

// Σ time × frequency over the entries that the frequency table names.
Cycles cyclesOf(const FreqTable& freqs, const Times& times);

// The time-weighted average frequency in kHz, rounded; 0 without time.
uint64_t averageKhz(const FreqTable& freqs, const Times& times);

// The element-wise sum of two vectors of the same shape; nothing when the shapes differ.
bool addTimes(const Times& add, Times* to);

}  // namespace zelk::cli
