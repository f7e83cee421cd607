#include "demo_setup.h"

#include <android-base/file.h>
#include <android-base/strings.h>

#include "core/possible_cpus.h"
#include "environment.h"
#include "object_loader.h"
#include "private_mounts.h"
#include "synthetic_policy.h"
#include "units.h"
#include "zelkcpufreqtime.h"

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
  machine->policies =
      "SYNTHETIC: this machine has no cpufreq driver, so policy 0 is one policy "
      "over CPUs " +
      android::base::Trim(possible) + " at the nominal " + formatMhz(nominal->khz) + " MHz (from " +
      nominal->source + "); all time counts at that frequency";
  return "";
}

}  // namespace

std::string setUpDemo(DemoMachine* machine) {
  if (std::string message = checkRoot(); !message.empty()) return message;
  if (std::string error = enterPrivateMounts(); !error.empty()) return error;
  const std::vector<PolicyDir> policies = cpufreqPolicies();
  if (policies.empty()) {
    if (std::string error = useSyntheticPolicy(machine); !error.empty()) return error;
  } else {
    machine->policies = "the machine's cpufreq policies:";
    for (const PolicyDir& policy : policies) {
      machine->policies += " " + policy.name + " (CPUs " + policy.relatedCpus + ")";
    }
  }
  const loader::Outcome loaded = loader::load();
  if (loaded.status != loader::Status::kLoaded) return loaded.message;
  if (!com::zelkora::startTrackingCpuFreqTime()) {
    return "the library could not start tracking (run with -v for its messages)";
  }
  return "";
}

}  // namespace zelk::cli
