// top: one frame of the live view, as lines of text, from the difference of two snapshots. The
// batch mode prints the lines; the interactive mode draws them with ncurses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model/cgroup_rows.h"
#include "model/rates.h"
#include "model/snapshot_diff.h"
#include "zelkcpufreqtime_energy.h"

namespace zelk::cli {

// Which rows a frame shows.
enum class TopTable { kProcesses, kKthreads, kCgroups };

struct TopSettings {
  TopSort sort = TopSort::kCpu;
  TopTable table = TopTable::kProcesses;
  CgroupRowSettings cgroups;  // which cgroup rows, folded how deep
  bool frozen = false;
};

// What a frame is shown with, besides its difference.
struct TopContext {
  std::string policies;              // which policies the counts use, from the demo's setup
  std::vector<unsigned> policyCpus;  // online CPUs per policy; 0 where unknown or none
  const com::zelkora::PowerModel* model = nullptr;
};

inline constexpr size_t kBandWidth = 10;  // characters of a row's band bar

// The rows of the tasks (or cgroups) that ran in the interval, in the order of `settings.sort`.
std::vector<TaskRate> topRows(const SnapshotDiff& diff, const TopContext& context,
                              const TopSettings& settings);

// The header: the time, the interval, the whole system's CPU use and this process's own, then per
// policy its residency as one bar split by frequency band and its average frequency.
std::vector<std::string> topHeader(const SnapshotDiff& diff, const TopContext& context,
                                   const TopSettings& settings, double selfCpuPercent,
                                   size_t width);

// The column headings and one line per row. A cgroup's path comes last, as it is long.
std::string topColumns(const TopContext& context, TopTable table);
std::string topRowLine(const TaskRate& row, const TopContext& context, TopTable table);

// Header, blank line, column headings and the first `maxRows` rows (all when 0).
std::vector<std::string> topFrame(const SnapshotDiff& diff, const TopContext& context,
                                  const TopSettings& settings, double selfCpuPercent, size_t width,
                                  size_t maxRows);

}  // namespace zelk::cli
