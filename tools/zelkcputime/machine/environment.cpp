#include "machine/environment.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <dirent.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#include "core/decimal.h"
#include "object_pins.h"

namespace zelk::cli {
namespace {

constexpr long kBpfFsMagic = 0xcafe4a11;
constexpr int kCapPerfmon = 38;  // newer than some headers
constexpr int kCapBpf = 39;

bool hasCapability(const __user_cap_data_struct (&data)[2], int capability) {
  return (data[capability / 32].effective & (1u << (capability % 32))) != 0;
}

// As the library's discovery counts them.
bool isPolicyName(const char* name) { return strncmp(name, "policy", 6) == 0; }

}  // namespace

std::string checkRoot() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &header, data) == 0 &&
      (hasCapability(data, CAP_SYS_ADMIN) ||
       (hasCapability(data, kCapBpf) && hasCapability(data, kCapPerfmon)))) {
    return "";
  }
  return "needs root (CAP_SYS_ADMIN, or CAP_BPF with CAP_PERFMON) to use the kernel object: run "
         "it as root, e.g. with sudo";
}

std::string checkBpffs() {
  struct statfs fs;
  if (statfs(loader::kBpffsDir, &fs) == 0 && fs.f_type == kBpfFsMagic) return "";
  return std::string("no BPF filesystem on ") + loader::kBpffsDir +
         ": run `zelkcputime load` first (it mounts one and loads the kernel object)";
}

namespace {

// At least one cpufreq policy directory.
// A policy whose driver publishes no frequency (intel_pstate, amd-pstate) stops the library.
std::string checkFrequencyTable(const PolicyDir& policy) {
  const std::string base = std::string(kCpufreqDir) + "/" + policy.name + "/";
  for (const char* name : {"scaling_available_frequencies", "scaling_boost_frequencies"}) {
    std::string text;
    if (android::base::ReadFileToString(base + name, &text) &&
        text.find_first_of("0123456789") != std::string::npos) {
      return "";
    }
  }
  std::string driver;
  android::base::ReadFileToString(base + "scaling_driver", &driver);
  driver = android::base::Trim(driver);
  return policy.name + " (driver " + (driver.empty() ? "unknown" : driver) +
         ") publishes no frequency table, so the library cannot count per frequency across "
         "processes on this machine; `zelkcputime demo` counts in frequency bins sampled from "
         "scaling_cur_freq, in its own namespace";
}

std::string checkPins() {
  size_t expected = 0;
  const std::vector<std::string> missing = missingPins(&expected);
  if (missing.empty()) return "";
  return "the kernel object is not loaded (" + std::to_string(missing.size()) + " of " +
         std::to_string(expected) + " pins missing, such as " + missing.front() +
         "): run `zelkcputime load` first";
}

}  // namespace

std::string checkCpufreq() {
  const std::vector<PolicyDir> policies = cpufreqPolicies();
  for (const PolicyDir& policy : policies) {
    if (std::string message = checkFrequencyTable(policy); !message.empty()) return message;
  }
  if (!policies.empty()) return "";
  return std::string("no cpufreq policies in ") + kCpufreqDir +
         ": this machine has no cpufreq driver (usual in virtual machines), so it has no CPU "
         "frequencies to account for; `zelkcputime demo` shows the tool on a synthetic policy";
}

std::string checkReady() {
  for (auto check : {checkRoot, checkCpufreq, checkBpffs, checkPins}) {
    std::string message = check();
    if (!message.empty()) return message;
  }
  return "";
}

std::vector<std::string> missingPins(size_t* expected) {
  const loader::PinList pins = loader::objectPins(loader::embeddedObject());
  std::vector<std::string> paths = pins.maps;
  for (const loader::ProgramPin& program : pins.programs) {
    // The settle program is not needed to count, only to read exactly: reads say when it is gone.
    if (!program.category.empty()) paths.push_back(program.path);
  }
  *expected = paths.size();
  std::vector<std::string> missing;
  struct stat st;
  for (const std::string& path : paths) {
    if (stat(path.c_str(), &st) != 0) missing.push_back(path);
  }
  return missing;
}

std::vector<PolicyDir> cpufreqPolicies() {
  std::vector<PolicyDir> policies;
  const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(kCpufreqDir), closedir);
  if (!dir) return policies;
  while (const dirent* entry = readdir(dir.get())) {
    if (isPolicyName(entry->d_name)) policies.push_back({entry->d_name, ""});
  }
  // By number, policy10 after policy9; a name without one first.
  const auto number = [](const PolicyDir& policy) {
    uint32_t n = 0;
    com::zelkora::parseDecimal(policy.name.substr(6), &n, UINT32_MAX);
    return n;
  };
  std::sort(policies.begin(), policies.end(),
            [&](const PolicyDir& a, const PolicyDir& b) { return number(a) < number(b); });
  for (PolicyDir& policy : policies) {
    std::string text;
    if (android::base::ReadFileToString(
            std::string(kCpufreqDir) + "/" + policy.name + "/related_cpus", &text)) {
      policy.relatedCpus = android::base::Trim(text);
    }
  }
  return policies;
}

}  // namespace zelk::cli
