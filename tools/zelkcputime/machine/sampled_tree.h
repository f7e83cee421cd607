// The machine's cpufreq policies as the tool's own namespace needs them: a policy whose driver
// publishes no frequency table gets one of bins (frequency_bins.h) in a tmpfs over the cpufreq
// directory, and the real scaling_cur_freq of every sampled policy stays open for the sampler.
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zelk::cli {

struct RealPolicy {
  std::string name;                  // "policy0"
  std::string relatedCpus;           // as the file holds it
  std::string driver;                // scaling_driver, "" when unreadable
  bool hasTable = false;             // scaling_available_frequencies names at least one frequency
  std::vector<uint64_t> bins;        // for a policy without a table: its bins, kHz
  android::base::unique_fd curFreq;  // open for the policies to sample
};

// The policies of the cpufreq directory, in ascending number. Those without a table get bins
// from cpuinfo_min_freq to cpuinfo_max_freq; scaling_cur_freq is opened for those, and for
// every policy when `sampleAll`. "" or what is missing, in `error`.
std::vector<RealPolicy> readRealPolicies(bool sampleAll, std::string* error);

// Hides the cpufreq directory under a tmpfs holding every policy: those with a table with it,
// the others with their bins. A sampled policy's scaling_cur_freq is the entry nearest the real
// one, which the library's start looks up in the table: on x86 the real one is an APERF/MPERF
// average, rarely an entry. The others keep theirs.
std::string mountSampledCpufreq(const std::vector<RealPolicy>& policies);

}  // namespace zelk::cli
