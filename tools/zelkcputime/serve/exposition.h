// One scrape of this system as a Prometheus exposition: collectors, one per concern, each add
// their metric families from what one collection read, and the encoder renders them all.
#pragma once

#include <cstdint>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "machine/map_fill.h"
#include "model/snapshot.h"
#include "serve/encoder.h"
#include "serve/series_bounds.h"
#include "zelkcpufreqtime_energy.h"
#include "zelkcpufreqtime_overflow.h"

namespace zelk::cli {

// What the exporter says about itself.
struct ExporterStats {
  uint64_t collectNs = 0;      // reading the tables and maps of this exposition took this long
  uint64_t queryFailures = 0;  // library queries that failed (and were tried again) so far
  uint64_t failedScrapes = 0;  // scrapes answered 503 so far
};

// Levels of cgroups below the root that serve shows unless --cgroup-depth says otherwise: enough
// for a systemd slice, its units and a container's scope, with series bounded by that.
inline constexpr unsigned kServeCgroupDepth = 3;

struct ExpositionInput {
  const Snapshot* snapshot = nullptr;  // every part
  std::vector<MapFill> maps;           // entries and capacity; overflowNs is not used
  std::optional<com::zelkora::OverflowCounts> overflow;
  // Task names and cgroup paths whose time is also shown per frequency.
  const std::regex* perFrequency = nullptr;
  CgroupRowSettings cgroups{kServeCgroupDepth, nullptr};  // which cgroup rows, folded how deep
  const com::zelkora::PowerModel* model = nullptr;        // energy (or charge) counters when given
  unsigned sampledMs = 0;  // the sampler's period when frequencies are sampled, not followed
  ExporterStats stats;
  // The task series, bounded (series_bounds.h); none: a series per name of each table.
  const std::vector<TaskSeries>* processSeries = nullptr;
  const std::vector<TaskSeries>* kthreadSeries = nullptr;
  // The class series, bounded likewise; none: a series per name of each class table.
  const std::vector<ClassSeries>* foregroundSeries = nullptr;
  const std::vector<ClassSeries>* backgroundSeries = nullptr;
};

// Adds one concern's families to `families`, in the order they are rendered.
using Collector = void (*)(const ExpositionInput& input, std::vector<Family>* families);

// Every collector, in the order of the exposition.
const std::vector<Collector>& collectors();

// Complete, or nothing: the caller renders only a snapshot it has in full.
std::string renderExposition(const ExpositionInput& input, ExpositionFormat format);

}  // namespace zelk::cli
