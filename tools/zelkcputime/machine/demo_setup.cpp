#include "machine/demo_setup.h"

#include <android-base/file.h>
#include <android-base/strings.h>

#include "core/possible_cpus.h"
#include "machine/environment.h"
#include "machine/private_mounts.h"
#include "machine/sampled_tree.h"
#include "machine/synthetic_policy.h"
#include "machine/tracking.h"
#include "object_loader.h"
#include "zelkcpufreqtime.h"
#include "zelkcpufreqtime_policies.h"

namespace zelk::cli {
namespace {

constexpr const char kPossibleCpus[] = "/sys/devices/system/cpu/possible";

std::string useSyntheticPolicy(DemoMachine* machine) {
  std::string cpuinfo, possible;
  android::base::ReadFileToString("/proc/cpuinfo", &cpuinfo);
  const std::optional<NominalFrequency> nominal = nominalFrequency(cpuinfo);
  if (!nominal) {
    return "this machine has no cpufreq policies, and /proc/cpuinfo names no CPU frequency (no "
           "model name with \"@ x.xxGHz\", no \"cpu MHz\") to build a synthetic one from";
  }
  std::optional<std::vector<uint32_t>> cpus;
  if (android::base::ReadFileToString(kPossibleCpus, &possible))
    cpus = com::zelkora::parseCpuList(possible);
  if (!cpus) return std::string("cannot read the CPUs of this machine from ") + kPossibleCpus;
  if (std::string error = mountSyntheticCpufreq(nominal->khz, *cpus); !error.empty()) return error;
  machine->synthetic = true;
  machine->syntheticSource = {android::base::Trim(possible), nominal->khz, nominal->source};
  return "";
}

// Policies without a table get bins; those and, when asked, the others are sampled, each on a
// private tree whose current frequency the library's start takes.
std::string useRealPolicies(const Sampling& sampling, std::vector<RealPolicy>* policies,
                            DemoMachine* machine) {
  std::string error;
  *policies = readRealPolicies(sampling.always, &error);
  if (!error.empty()) return error;
  bool sampled = false;
  for (const RealPolicy& policy : *policies) {
    PolicySource source{policy.name, policy.driver, policy.relatedCpus, PolicySource::kEvents, {}};
    if (!policy.hasTable) {
      source.kind = PolicySource::kBins;
      source.bins = policy.bins;
    } else if (policy.curFreq.get() >= 0) {
      source.kind = PolicySource::kOwnFrequencies;
    }
    sampled = sampled || source.kind != PolicySource::kEvents;
    machine->policies.push_back(std::move(source));
  }
  if (!sampled) return "";
  if (std::string failed = mountSampledCpufreq(*policies); !failed.empty()) return failed;
  machine->sampledMs = sampling.periodMs;
  return "";
}

std::string startSampler(const Sampling& sampling, std::vector<RealPolicy>& policies,
                         DemoMachine* machine) {
  const auto freqs = com::zelkora::getCpuFreqs();
  const auto discovered = com::zelkora::getCpuFreqPolicies();
  if (!freqs || freqs->size() != policies.size() || !discovered ||
      discovered->size() != policies.size()) {
    return "the library's policies are not the machine's (run with -v for its messages)";
  }
  std::vector<SampledPolicy> sampled;
  for (size_t i = 0; i < policies.size(); ++i) {
    if (policies[i].curFreq.get() < 0) continue;
    const std::vector<uint64_t>& cpus = (*discovered)[i].cpus;
    sampled.push_back({static_cast<uint32_t>(i), policies[i].name, std::move(policies[i].curFreq),
                       (*freqs)[i], std::vector<uint32_t>(cpus.begin(), cpus.end())});
  }
  machine->sampler = std::make_unique<FrequencySampler>(
      std::move(sampled), std::chrono::milliseconds(sampling.periodMs));
  return machine->sampler->start();
}

}  // namespace

std::string setUpDemo(const Sampling& sampling, DemoMachine* machine) {
  if (std::string message = checkRoot(); !message.empty()) return message;
  if (std::string error = enterPrivateMounts(); !error.empty()) return error;
  std::vector<RealPolicy> policies;
  if (cpufreqPolicies().empty()) {
    if (std::string error = useSyntheticPolicy(machine); !error.empty()) return error;
  } else if (std::string error = useRealPolicies(sampling, &policies, machine); !error.empty()) {
    return error;
  }
  const loader::Outcome loaded = loader::load();
  if (loaded.status != loader::Status::kLoaded) return loaded.message;
  if (const Tracking tracking = joinTracking(); tracking.by == 0) {
    return tracking.error + " (run with -v for its messages)";
  }
  if (machine->sampledMs != 0) return startSampler(sampling, policies, machine);
  return "";
}

}  // namespace zelk::cli
