// A private mount namespace per test process: fresh bpffs on /sys/fs/bpf, a tmpfs over the
// cpufreq directory, optionally tracefs and a private network. The production paths stay fixed;
// only the mounts differ. And cpufreq policy trees under that tmpfs, in the kernel's own file
// format.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zelk::testbed {

struct NamespaceOptions {
  bool tracefs = false;  // mount tracefs on /sys/kernel/tracing (for attaching programs)
  // A network namespace of its own with only loopback, up: servers on fixed ports meet no other
  // test's, and nothing they send leaves the machine.
  bool network = false;
};

// Empty string on success, else what failed.
std::string enterPrivateNamespace(const NamespaceOptions& options = {});

// True when running under CI, where a test bed that cannot be set up is a failure, not a skip.
bool inCi();

// A fixture for tests against the real kernel: enters the namespace in SetUp, skipping (or,
// under CI, failing) when that is not possible here.
class KernelTest : public ::testing::Test {
 protected:
  void SetUp() override;
  virtual NamespaceOptions namespaceOptions() const { return {}; }
};

inline constexpr const char kCpufreqDir[] = "/sys/devices/system/cpu/cpufreq";

// "a b c \n": numbers separated by spaces, a space before the newline, as the kernel writes.
std::string kernelList(const std::vector<uint64_t>& numbers);

// Writes `content` to kCpufreqDir/relPath, creating directories; reports failures to gtest.
void writeCpufreqFile(const std::string& relPath, const std::string& content);

// A policy directory with scaling_available_frequencies, related_cpus and scaling_cur_freq (the
// first frequency). Add a boost file or odd contents with writeCpufreqFile.
void addPolicy(const std::string& name, const std::vector<uint64_t>& freqs,
               const std::vector<uint64_t>& cpus);

// One policy over every possible CPU of this machine, so that every block of a per-CPU value is
// read.
void addMachinePolicy(const std::vector<uint64_t>& freqs);

// policy0 over every possible CPU as a driver without a frequency table shows it (intel_pstate,
// amd-pstate): limits, a driver name and a current frequency, no table.
void addTablelessMachinePolicy(const std::string& driver, uint64_t minKhz, uint64_t maxKhz,
                               uint64_t currentKhz);

}  // namespace zelk::testbed

// In a test body or SetUp: skip, or fail under CI, with `reason`.
#define ZELK_SKIP_OR_FAIL(reason)                          \
  do {                                                     \
    if (::zelk::testbed::inCi()) GTEST_FAIL() << (reason); \
    GTEST_SKIP() << (reason);                              \
  } while (0)
