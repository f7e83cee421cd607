// Matching a model to the policies: by CPUs, by policy number, or clusters in order by their
// core counts. Every policy must get exactly one of the model's entries.
#include <algorithm>

#include "energy/raw_model.h"

namespace com {
namespace zelkora {
namespace {

// "0-3,6", as the kernel writes CPU lists.
std::string cpuList(std::vector<uint64_t> cpus) {
  std::sort(cpus.begin(), cpus.end());
  std::string text;
  for (size_t i = 0; i < cpus.size();) {
    size_t j = i;
    while (j + 1 < cpus.size() && cpus[j + 1] == cpus[j] + 1) ++j;
    text += (text.empty() ? "" : ",") + std::to_string(cpus[i]) +
            (j > i ? "-" + std::to_string(cpus[j]) : "");
    i = j + 1;
  }
  return text;
}

std::string policyName(const std::vector<uint64_t>& cpus) { return "CPUs " + cpuList(cpus); }

std::string allPolicies(const PolicyLayout& policies) {
  std::string text;
  for (const auto& cpus : policies.cpus) text += (text.empty() ? "" : "; ") + cpuList(cpus);
  return "this machine's policies: CPUs " + text;
}

std::vector<uint64_t> sorted(std::vector<uint64_t> v) {
  std::sort(v.begin(), v.end());
  v.erase(std::unique(v.begin(), v.end()), v.end());
  return v;
}

MatchResult failure(const std::string& error) { return {std::nullopt, oneLine(error)}; }

}  // namespace

MatchResult matchModel(const RawModel& raw, const PolicyLayout& policies,
                       const std::string& source) {
  const size_t count = policies.freqs.size();
  if (policies.cpus.size() != count || count == 0) return failure("no policies to match");
  std::vector<const RawDomain*> assigned(count, nullptr);

  const bool byCores = !raw.domains.empty() && raw.domains.front().coreCount.has_value();
  if (byCores) {
    if (raw.domains.size() != count) {
      return failure("the model has " + std::to_string(raw.domains.size()) + " clusters, " +
                     allPolicies(policies));
    }
    for (size_t i = 0; i < count; ++i) {
      const uint64_t cores = sorted(policies.cpus[i]).size();
      if (*raw.domains[i].coreCount != cores) {
        return failure(raw.domains[i].label + " has " + std::to_string(*raw.domains[i].coreCount) +
                       " cores, the policy of " + policyName(policies.cpus[i]) + " has " +
                       std::to_string(cores));
      }
      assigned[i] = &raw.domains[i];
    }
  } else {
    for (const RawDomain& domain : raw.domains) {
      size_t match = count;
      for (size_t i = 0; i < count && match == count; ++i) {
        const std::vector<uint64_t> cpus = sorted(policies.cpus[i]);
        const bool same =
            domain.cpus ? *domain.cpus == cpus : !cpus.empty() && domain.policy == cpus.front();
        if (same) match = i;
      }
      const std::string what =
          domain.cpus ? "covers CPUs " + cpuList(*domain.cpus)
                      : "is for the policy of CPU " + std::to_string(domain.policy.value_or(0));
      if (match == count) {
        return failure(domain.label + " " + what + ", which no policy has (" +
                       allPolicies(policies) + ")");
      }
      if (assigned[match] != nullptr) {
        return failure(assigned[match]->label + " and " + domain.label + " are both for the " +
                       "policy of " + policyName(policies.cpus[match]));
      }
      assigned[match] = &domain;
    }
    for (size_t i = 0; i < count; ++i) {
      if (assigned[i] == nullptr) {
        return failure("nothing in the model for the policy of " + policyName(policies.cpus[i]) +
                       " (the model has " + std::to_string(raw.domains.size()) + " of " +
                       std::to_string(count) + " policies)");
      }
    }
  }

  PowerModel model;
  model.source = source;
  model.unit = raw.unit;
  model.activeRate = raw.activeRate;
  for (size_t i = 0; i < count; ++i) {
    const RawDomain& domain = *assigned[i];
    const std::vector<uint64_t>& freqs = policies.freqs[i];
    std::vector<std::optional<double>> rates;
    if (!domain.stepRates.empty()) {
      if (domain.stepRates.size() != freqs.size()) {
        return failure(domain.stepsName + " has " + std::to_string(domain.stepRates.size()) +
                       " values, the policy of " + policyName(policies.cpus[i]) + " has " +
                       std::to_string(freqs.size()) + " frequencies");
      }
      rates.assign(domain.stepRates.begin(), domain.stepRates.end());
    } else {
      for (uint64_t khz : freqs) {
        const auto rate = domain.rates.find(khz);
        rates.push_back(rate == domain.rates.end() ? std::nullopt
                                                   : std::optional<double>(rate->second));
      }
    }
    model.freqRates.push_back(std::move(rates));
    model.policyRates.push_back(domain.domainRate);
  }
  return {std::move(model), ""};
}

}  // namespace zelkora
}  // namespace com
