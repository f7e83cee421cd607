// The demo's machine: a private mount namespace with the kernel object loaded and tracking
// started, on the machine's cpufreq policies or, without them, on a synthetic one.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "machine/frequency_sampler.h"

namespace zelk::cli {

struct Sampling {
  bool always = false;     // also policies with a table, whose frequency events never arrive
  unsigned periodMs = 20;  // of the sampler
};

// Where a policy's frequency comes from in the namespace.
struct PolicySource {
  std::string name;         // "policy0"
  std::string driver;       // "" when unknown
  std::string relatedCpus;  // as the file holds it
  enum Kind {
    kEvents,          // its table and the frequency events, as the library counts anywhere
    kBins,            // no table: bins (below), at the sampled scaling_cur_freq
    kOwnFrequencies,  // its table, at the sampled scaling_cur_freq
  } kind = kEvents;
  std::vector<uint64_t> bins;  // kHz, for kBins
};

// The synthetic policy of a machine without cpufreq.
struct SyntheticSource {
  std::string cpus;    // the possible CPUs, as the file lists them
  uint64_t khz = 0;    // the nominal frequency
  std::string origin;  // where that was read
};

// What the counts use, for the line that says so (views/frequency_source.h).
struct DemoMachine {
  bool synthetic = false;
  SyntheticSource syntheticSource;     // when synthetic
  std::vector<PolicySource> policies;  // else, in ascending policy number
  unsigned sampledMs = 0;              // the sampler's period when some policy is sampled, else 0
  std::unique_ptr<FrequencySampler> sampler;
};

// Must run before the first library call: the library reads the policies once per process.
// "" on success, else what failed.
std::string setUpDemo(const Sampling& sampling, DemoMachine* machine);

}  // namespace zelk::cli
