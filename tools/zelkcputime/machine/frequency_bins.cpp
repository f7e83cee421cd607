#include "machine/frequency_bins.h"

#include <android-base/strings.h>

#include "core/decimal.h"

namespace zelk::cli {
namespace {

constexpr uint64_t kStepKhz = 100000;
constexpr uint64_t kMaxKhz = 100000000;  // 100 GHz: anything above is not a frequency

}  // namespace

std::vector<uint64_t> frequencyBins(uint64_t minKhz, uint64_t maxKhz) {
  if (minKhz == 0 || minKhz > maxKhz || maxKhz > kMaxKhz) return {};
  const uint64_t span = maxKhz - minKhz;
  const uint64_t steps = kMaxBins - 1;
  // The smallest multiple of 100 MHz that covers the span in 31 steps.
  const uint64_t step =
      std::max<uint64_t>(1, (span + steps * kStepKhz - 1) / (steps * kStepKhz)) * kStepKhz;
  std::vector<uint64_t> bins;
  for (uint64_t khz = minKhz; khz < maxKhz; khz += step) bins.push_back(khz);
  bins.push_back(maxKhz);
  return bins;
}

uint32_t nearestBin(const std::vector<uint64_t>& bins, uint64_t khz) {
  size_t best = 0;
  for (size_t i = 1; i < bins.size(); ++i) {
    const uint64_t distance = bins[i] > khz ? bins[i] - khz : khz - bins[i];
    const uint64_t bestDistance = bins[best] > khz ? bins[best] - khz : khz - bins[best];
    if (distance < bestDistance) best = i;
  }
  return static_cast<uint32_t>(best + 1);
}

std::optional<uint64_t> parseKhz(const std::string& text) {
  uint64_t khz;
  if (!com::zelkora::parseDecimal(android::base::Trim(text), &khz, kMaxKhz) || khz == 0) {
    return std::nullopt;
  }
  return khz;
}

}  // namespace zelk::cli
