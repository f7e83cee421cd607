// The pair end to end, each test in a private namespace with bpffs and tracefs: the kernel
// object freshly loaded, a cpufreq policy over every CPU, and tracking started through the
// library.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "background_threads.h"
#include "log_capture.h"
#include "namespace.h"
#include "policy_tree.h"
#include "zelkcpufreqtime.h"

namespace zelk::testbed {

inline constexpr std::chrono::milliseconds kWait(5000);
inline constexpr uint64_t kMs = 1000000;

// The machine policy's frequencies; scaling_cur_freq names the first.
inline const std::vector<uint64_t> kFreqs = {300000, 600000, 900000, 1200000, 1500000};

class TrackingTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
  void SetUp() override;
  // The background thread uses the library's map descriptors; it must end before they close.
  void TearDown() override { threads_.ended(log_); }
  // The object file to load instead of the loader's own.
  virtual const char* objectFile() const { return nullptr; }
  // Writes the cpufreq tree that the library discovers.
  virtual void addPolicies() { addMachinePolicy(kFreqs); }

  LogCapture log_;
  BackgroundThreads threads_;
};

// Time over every policy and frequency; 0 for no result.
uint64_t sum(const std::optional<com::zelkora::TimeInStateVector>& times);
// A name's time in a top or background table, 0 when absent; a failed query fails the test.
uint64_t timeOf(const std::optional<com::zelkora::TimeTable>& table, const std::string& name);

// CLOCK_MONOTONIC, the clock of the library and the object, in nanoseconds.
uint64_t monotonicNs();

}  // namespace zelk::testbed
