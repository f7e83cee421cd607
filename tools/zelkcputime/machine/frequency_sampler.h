// Where a cpufreq policy has no frequency events to follow (a driver without a table, or
// hardware-managed P-states), a thread reads its scaling_cur_freq every period and writes the
// nearest frequency's index into the kernel object's current-frequency map, where the frequency
// program would. On x86, scaling_cur_freq is the average frequency delivered since its last
// read, so time counts at what the CPU ran at, averaged over the period.
//
// A sampled policy has one source: the sampler takes its frequencies out of the frequency-to-index
// map of the object (the tool's own copy, loaded in its namespace), so that the frequency program,
// which leaves the index alone for a frequency it does not find there, never overrides a sample
// (drivers that do send events, or an event that matches a bin). The index is also written at every
// sample, not only on a change, so that no other writer holds it for longer than a period.
//
// Before a new index is written, the policy's CPUs are settled, so that what their running tasks
// have run up to the change counts at the frequency before it, not at the one after.
#pragma once

#include <android-base/unique_fd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "core/mutex.h"

namespace zelk::cli {

struct SampledPolicy {
  uint32_t ordinal;                  // its place in the library's policy order
  std::string name;                  // "policy0"
  android::base::unique_fd curFreq;  // the real scaling_cur_freq, opened before any tmpfs
  std::vector<uint64_t> freqs;       // the policy's table as the library has it, kHz
  std::vector<uint32_t> cpus;        // settled before its index changes
};

struct SamplerStats {
  uint64_t wakeups = 0;
  uint64_t samples = 0;  // readings that selected a frequency
  uint64_t skipped = 0;  // readings that could not be read or parsed
  uint64_t writes = 0;   // map updates, one per sample
  uint64_t settles = 0;  // of a policy's CPUs, before a new index; failed ones are not counted
  uint64_t cpuNs = 0;    // the thread's own CPU time
};

class FrequencySampler {
 public:
  FrequencySampler(std::vector<SampledPolicy> policies, std::chrono::milliseconds period);
  ~FrequencySampler();
  FrequencySampler(const FrequencySampler&) = delete;
  FrequencySampler& operator=(const FrequencySampler&) = delete;

  // Opens the pinned current-frequency map, takes the policies' frequencies out of the
  // frequency-to-index map and starts the thread; "" or what failed.
  std::string start();
  // Ends the thread; the counts then stay as they were.
  SamplerStats stop();

  std::chrono::milliseconds period() const { return period_; }

 private:
  std::string silenceFrequencyEvents();
  void run();
  void sampleOnce() REQUIRES(mutex_);

  std::vector<SampledPolicy> policies_;
  std::chrono::milliseconds period_;
  android::base::unique_fd map_;
  com::zelkora::Mutex mutex_;
  std::condition_variable_any wake_;
  bool stopping_ GUARDED_BY(mutex_) = false;
  SamplerStats stats_ GUARDED_BY(mutex_);
  std::vector<uint32_t> written_ GUARDED_BY(mutex_);  // each policy's index, 0 before the first
  std::thread thread_;
};

}  // namespace zelk::cli
