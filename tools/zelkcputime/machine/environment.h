// What the commands need of the machine, checked before the first library call, so that a
// failure can say what is missing rather than only that the library failed.
#pragma once

#include <string>
#include <vector>

namespace zelk::cli {

inline constexpr const char kCpufreqDir[] = "/sys/devices/system/cpu/cpufreq";

// Each returns "" when the need is met, else the message to print.
std::string checkRoot();   // CAP_SYS_ADMIN, or CAP_BPF with CAP_PERFMON
std::string checkBpffs();  // a BPF filesystem on /sys/fs/bpf
// At least one cpufreq policy directory, each with a frequency table.
std::string checkCpufreq();

// Root, cpufreq, bpffs, pins (cpufreq first: loading cannot fix a machine without
// frequencies); the first message, or "".
std::string checkReady();

// The object's pin paths that do not exist, and the number it has.
std::vector<std::string> missingPins(size_t* expected);

struct PolicyDir {
  std::string name;         // "policy0"
  std::string relatedCpus;  // the related_cpus file, trimmed; "" when unreadable
};

// The policy directories of the cpufreq directory, in ascending policy number: for the checks and
// set-ups that run before the library can be asked, on the real machine (the demo's private
// trees are built from it). Once it can, getCpuFreqPolicies() says what the library discovered.
std::vector<PolicyDir> cpufreqPolicies();

}  // namespace zelk::cli
