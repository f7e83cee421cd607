// The line that says which policies the counts use and where their frequencies come from.
#pragma once

#include <string>

#include "machine/demo_setup.h"

namespace zelk::cli {

// "the machine's cpufreq policies: ...", "SAMPLED every P ms: ..." or "SYNTHETIC: ...".
std::string frequencySourceText(const DemoMachine& machine);

}  // namespace zelk::cli
