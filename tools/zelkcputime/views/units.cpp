#include "views/units.h"

#include <cinttypes>
#include <cstdio>

namespace zelk::cli {

std::string formatMhz(uint64_t khz) {
  std::string text = std::to_string(khz / 1000);
  uint64_t fraction = khz % 1000;
  if (fraction == 0) return text;
  char digits[4];
  snprintf(digits, sizeof(digits), "%03" PRIu64, fraction);
  std::string decimals(digits);
  while (decimals.back() == '0') decimals.pop_back();
  return text + "." + decimals;
}

std::string formatSeconds(uint64_t ns) {
  // Integer arithmetic: doubles would round large counters.
  const uint64_t ms = ns / 1000000 + (ns % 1000000 >= 500000 ? 1 : 0);
  char text[32];
  snprintf(text, sizeof(text), "%" PRIu64 ".%03" PRIu64, ms / 1000, ms % 1000);
  return text;
}

std::string formatPercent(uint64_t part, uint64_t whole) {
  if (whole == 0) return "0.0";
  char text[16];
  snprintf(text, sizeof(text), "%.1f",
           100.0 * static_cast<double>(part) / static_cast<double>(whole));
  return text;
}

}  // namespace zelk::cli
