#include "model/times.h"

#include <numeric>

namespace zelk::cli {

uint64_t sumTimes(const Times& times) {
  uint64_t sum = 0;
  for (const auto& policy : times) sum = std::accumulate(policy.begin(), policy.end(), sum);
  return sum;
}

}  // namespace zelk::cli
