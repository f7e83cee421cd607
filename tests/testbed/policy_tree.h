// Builds cpufreq policy trees under the tmpfs that the test bed mounts over
// /sys/devices/system/cpu/cpufreq, in the kernel's own file format.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zelk::testbed {

inline constexpr const char kCpufreqDir[] = "/sys/devices/system/cpu/cpufreq";

// "a b c \n": numbers separated by spaces, a space before the newline, as the kernel writes.
std::string kernelList(const std::vector<uint64_t>& numbers);

// Writes `content` to kCpufreqDir/relPath, creating directories; reports failures to gtest.
void writeCpufreqFile(const std::string& relPath, const std::string& content);

// A policy directory with scaling_available_frequencies, related_cpus and scaling_cur_freq (the
// first frequency). Add a boost file or odd contents with writeCpufreqFile.
void addPolicy(const std::string& name, const std::vector<uint64_t>& freqs,
               const std::vector<uint64_t>& cpus);

// The layout of a real phone (three clusters: CPUs 0-3, 4-6 and 7, with their real frequency
// tables) plus the entries a real cpufreq directory holds beside the policies, which discovery
// must skip. Returns the expected frequency table.
std::vector<std::vector<uint64_t>> addPhoneTree();

// One policy over every possible CPU of this machine, so that every block of a per-CPU value is
// read; returns its CPUs.
std::vector<uint64_t> addMachinePolicy(const std::vector<uint64_t>& freqs);

}  // namespace zelk::testbed
