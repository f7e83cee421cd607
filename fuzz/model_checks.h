// What every power model parser promises, checked on each fuzzer's result: an error is one line;
// a model has domains with finite, non-negative rates; matching it to a phone's policies and
// estimating from it never crashes and gives an error of one line or a model of their shape.
#pragma once

#include <cmath>
#include <cstdlib>
#include <string>

#include "energy/raw_model.h"

namespace com::zelkora {

inline void checkRate(double rate) {
  if (!std::isfinite(rate) || rate < 0) abort();
}

inline void checkParsed(const RawModelResult& result) {
  if (!result.model) {
    if (result.error.empty() || result.error.find('\n') != std::string::npos) abort();
    return;
  }
  if (result.model->domains.empty()) abort();
  checkRate(result.model->activeRate);
  for (const RawDomain& domain : result.model->domains) {
    checkRate(domain.domainRate);
    for (const auto& [khz, rate] : domain.rates) checkRate(rate);
    for (double rate : domain.stepRates) checkRate(rate);
  }
  const PolicyLayout phone{{{300000, 1000000, 1766400}, {825600, 2803200}},
                           {{0, 1, 2, 3}, {4, 5, 6, 7}}};
  const MatchResult matched = matchModel(*result.model, phone, "fuzz");
  if (!matched.model) {
    if (matched.error.empty() || matched.error.find('\n') != std::string::npos) abort();
    return;
  }
  if (matched.model->freqRates.size() != 2 || matched.model->freqRates[0].size() != 3 ||
      matched.model->freqRates[1].size() != 2) {
    abort();
  }
  const TimeInStateVector times = {{1, ~uint64_t{0}, 3}, {1000000000, 0}};
  if (!estimateEnergy(*matched.model, times)) abort();
}

}  // namespace com::zelkora
