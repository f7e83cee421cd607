// How people read the library's numbers: frequencies in MHz, times in seconds.
#pragma once

#include <cstdint>
#include <string>

namespace zelk::cli {

// 1785600 kHz -> "1785.6", 2000000 kHz -> "2000": MHz with the decimals that carry information.
std::string formatMhz(uint64_t khz);

// Nanoseconds as seconds with three decimals, rounded: 1234567890 -> "1.235".
std::string formatSeconds(uint64_t ns);

// part / whole as a percentage with one decimal; "0.0" when whole is 0.
std::string formatPercent(uint64_t part, uint64_t whole);

}  // namespace zelk::cli
