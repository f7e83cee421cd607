#include "model/times.h"

#include <numeric>

namespace zelk::cli {

uint64_t sumTimes(const Times& times) {
  uint64_t sum = 0;
  for (const auto& policy : times) sum = std::accumulate(policy.begin(), policy.end(), sum);
  return sum;
}

uint64_t policyTime(const Times& times, size_t policy) {
  if (policy >= times.size()) return 0;
  return std::accumulate(times[policy].begin(), times[policy].end(), uint64_t{0});
}

Cycles cyclesOf(const FreqTable& freqs, const Times& times) {
  Cycles sum = 0;
  for (size_t p = 0; p < times.size() && p < freqs.size(); ++p) {
    for (size_t f = 0; f < times[p].size() && f < freqs[p].size(); ++f) {
      sum += static_cast<Cycles>(times[p][f]) * freqs[p][f];
    }
  }
  return sum;
}

uint64_t averageKhz(const FreqTable& freqs, const Times& times) {
  Cycles all = 0;
  for (size_t p = 0; p < times.size() && p < freqs.size(); ++p) {
    for (size_t f = 0; f < times[p].size() && f < freqs[p].size(); ++f) all += times[p][f];
  }
  if (all == 0) return 0;
  return static_cast<uint64_t>((cyclesOf(freqs, times) + all / 2) / all);
}

bool addTimes(const Times& add, Times* to) {
  if (add.size() != to->size()) return false;
  for (size_t p = 0; p < add.size(); ++p) {
    if (add[p].size() != (*to)[p].size()) return false;
  }
  for (size_t p = 0; p < add.size(); ++p) {
    for (size_t f = 0; f < add[p].size(); ++f) (*to)[p][f] += add[p][f];
  }
  return true;
}

}  // namespace zelk::cli
