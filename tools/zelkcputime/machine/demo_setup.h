// The demo's machine: a private mount namespace with the kernel object loaded and tracking
// started, on the machine's cpufreq policies or, without them, on a synthetic one.
#pragma once

#include <memory>
#include <string>

#include "machine/frequency_sampler.h"

namespace zelk::cli {

struct Sampling {
  bool always = false;     // also policies with a table, whose frequency events never arrive
  unsigned periodMs = 20;  // of the sampler
};

struct DemoMachine {
  bool synthetic = false;
  std::string policies;    // one line saying which policies the counts use
  unsigned sampledMs = 0;  // the sampler's period when some policy is sampled, else 0
  std::unique_ptr<FrequencySampler> sampler;
};

// Must run before the first library call: the library reads the policies once per process.
// "" on success, else what failed.
std::string setUpDemo(const Sampling& sampling, DemoMachine* machine);

}  // namespace zelk::cli
