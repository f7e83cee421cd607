// A cpufreq policy for a machine without a cpufreq driver: one policy over all of its CPUs at
// the CPU's nominal frequency, written in the kernel's file format so that the library reads it
// as it reads a real one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelk::cli {

struct NominalFrequency {
  uint64_t khz;
  std::string source;  // where it was read, for the label of the output
};

// From /proc/cpuinfo: the first model name with "@ <n>GHz" (or MHz), which names the nominal
// frequency; else the first "cpu MHz" line, rounded to whole MHz; else nothing.
std::optional<NominalFrequency> nominalFrequency(const std::string& cpuinfo);

// Writes <dir>/policy0 with scaling_available_frequencies, scaling_cur_freq and related_cpus.
// "" on success, else what failed.
std::string writeSyntheticPolicy(const std::string& dir, uint64_t khz,
                                 const std::vector<uint32_t>& cpus);

}  // namespace zelk::cli
