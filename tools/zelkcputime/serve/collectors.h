// The exporter's collectors, one per concern; exposition.cpp registers them in one list.
#pragma once

#include <vector>

#include "serve/encoder.h"
#include "serve/exposition.h"

namespace zelk::cli {

// Energy (or charge) of the whole system, the processes and the kernel threads, with a model.
void collectEnergy(const ExpositionInput& input, std::vector<Family>* families);
// CPU time of the whole system at each frequency, and its cycles per policy.
void collectSystemTimes(const ExpositionInput& input, std::vector<Family>* families);
// CPU time and cycles of the processes and the kernel threads, and per frequency where asked.
void collectTaskTimes(const ExpositionInput& input, std::vector<Family>* families);
// CPU time, cycles and (with a model) energy of each cgroup row, its descendants' included, and
// per frequency where asked.
void collectCgroupTimes(const ExpositionInput& input, std::vector<Family>* families);
// Time in the foreground and in the background per name.
void collectClassTimes(const ExpositionInput& input, std::vector<Family>* families);
// The frequency table and where the counts take the frequency from.
void collectFrequencies(const ExpositionInput& input, std::vector<Family>* families);
// How full the maps are and what their overflow counted.
void collectMapFill(const ExpositionInput& input, std::vector<Family>* families);
// The exporter's own health.
void collectExporterHealth(const ExpositionInput& input, std::vector<Family>* families);

}  // namespace zelk::cli
