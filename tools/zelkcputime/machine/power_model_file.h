// The power model a command names, or the kernel's Energy Model in debugfs.
#pragma once

#include <optional>
#include <string>

#include "zelkcpufreqtime_energy.h"

namespace zelk::cli {

inline constexpr const char kDefaultEnergyModel[] = "/sys/kernel/debug/energy_model";

// The model at `path`, or at the default with debugfs mounted when it is not. The error is the
// one line to print.
com::zelkora::PowerModelResult loadModelForTool(const std::string& path,
                                                std::optional<double> voltage);

}  // namespace zelk::cli
