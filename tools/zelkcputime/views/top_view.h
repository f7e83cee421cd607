// top: one frame of the live view, as lines of text, from the difference of two snapshots. The
// batch mode prints the lines; the interactive mode draws them with ncurses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model/snapshot_diff.h"
#include "zelkcpufreqtime_energy.h"

namespace zelk::cli {

enum class TopSort { kCpu, kPower, kFrequency };

struct TopSettings {
  TopSort sort = TopSort::kCpu;
  bool kthreads = false;  // kernel threads instead of processes
  bool frozen = false;
};

// What a frame is shown with, besides its difference.
struct TopContext {
  std::string policies;              // which policies the counts use, from the demo's setup
  std::vector<unsigned> policyCpus;  // online CPUs per policy; 0 where unknown or none
  const com::zelkora::PowerModel* model = nullptr;
};

struct TopRow {
  std::string name;
  bool foreground = false;
  double cpuPercent = 0;        // of one CPU
  uint64_t avgKhz = 0;          // time-weighted over the interval
  std::string bands;            // its time per frequency band, kBandWidth characters
  std::optional<double> power;  // in the model's rate unit; without a model or a fit, none
};

inline constexpr size_t kBandWidth = 10;

// Rows of the tasks that ran in the interval (vanished names and idle ones have none), in the
// order of `settings.sort`: busiest first, then name, then flag.
std::vector<TopRow> topRows(const SnapshotDiff& diff, const TopContext& context,
                            const TopSettings& settings);

// The header: the time, the interval, the whole system's CPU use and this process's own, then per
// policy its residency as one bar split by frequency band and its average frequency.
std::vector<std::string> topHeader(const SnapshotDiff& diff, const TopContext& context,
                                   const TopSettings& settings, double selfCpuPercent,
                                   size_t width);

// The column headings and one line per row, each cut to `width`.
std::string topColumns(const TopContext& context, bool kthreads);
std::string topRowLine(const TopRow& row, const TopContext& context, bool kthreads);

// Header, blank line, column headings and the first `maxRows` rows (all when 0).
std::vector<std::string> topFrame(const SnapshotDiff& diff, const TopContext& context,
                                  const TopSettings& settings, double selfCpuPercent, size_t width,
                                  size_t maxRows);

// "mW", "mA" (charge per time under a profile without a voltage) or "au/s" (abstract).
std::string powerUnitText(const com::zelkora::PowerModel& model);

}  // namespace zelk::cli
