// A frequency table for a cpufreq policy whose driver publishes none (intel_pstate, amd-pstate):
// bins from its lowest to its highest frequency, which a sampler of its current frequency
// selects in the kernel object in place of the frequency events.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/map_records.h"

namespace zelk::cli {

// One bin per slot of the kernel object's time-in-state record: 32.
inline constexpr size_t kMaxBins = com::zelkora::kFreqSlots;

// kHz from `minKhz` to `maxKhz`, both included: 100 MHz apart, the P-state step of current x86
// processors, when that makes at most 32 bins; else the smallest multiple of 100 MHz that does.
// One bin when min is max; none when min is 0 or above max.
std::vector<uint64_t> frequencyBins(uint64_t minKhz, uint64_t maxKhz);

// The 1-based number of the bin nearest to `khz`, the lower on a tie, as the kernel object
// numbers frequencies. `bins` is ascending and not empty.
uint32_t nearestBin(const std::vector<uint64_t>& bins, uint64_t khz);

// A scaling_cur_freq text ("2400000\n") as kHz; nothing for anything else.
std::optional<uint64_t> parseKhz(const std::string& text);

}  // namespace zelk::cli
