// The demo's machine: a private mount namespace with the kernel object loaded and tracking
// started, on the machine's cpufreq policies or, without them, on a synthetic one.
#pragma once

#include <string>

namespace zelk::cli {

struct DemoMachine {
  bool synthetic = false;
  std::string policies;  // one line saying which policies the counts use
};

// Must run before the first library call: the library reads the policies once per process.
// "" on success, else what failed.
std::string setUpDemo(DemoMachine* machine);

}  // namespace zelk::cli
