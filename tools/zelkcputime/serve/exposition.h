// The metrics view: one snapshot as a Prometheus exposition, in the text format 0.0.4 or in
// OpenMetrics 1.0, with the names, units and labels of that ecosystem's conventions.
#pragma once

#include <cstdint>
#include <optional>
#include <regex>
#include <string>

#include "machine/map_fill.h"
#include "model/snapshot.h"
#include "zelkcpufreqtime_energy.h"

namespace zelk::cli {

enum class ExpositionFormat { kText, kOpenMetrics };

// The format an Accept header asks for: OpenMetrics 1.0 when it ranks
// application/openmetrics-text (version 1.0.0 or none) above text/plain, else the text format.
ExpositionFormat negotiateFormat(const std::string& accept);
const char* contentType(ExpositionFormat format);

// What the exporter says about itself.
struct ExporterStats {
  uint64_t collectNs = 0;      // reading the tables and maps of this exposition took this long
  uint64_t queryFailures = 0;  // library queries that failed (and were tried again) so far
  uint64_t failedScrapes = 0;  // scrapes answered 503 so far
};

struct ExpositionInput {
  const Snapshot* snapshot = nullptr;  // every part
  std::vector<MapFill> maps;           // entries and capacity; overflowNs is not used
  std::optional<com::zelkora::OverflowCounts> overflow;
  const std::regex* perFrequency = nullptr;         // names whose time is also shown per frequency
  const com::zelkora::PowerModel* model = nullptr;  // energy (or charge) counters when given
  unsigned sampledMs = 0;  // the sampler's period when frequencies are sampled, not followed
  ExporterStats stats;
};

// Complete, or nothing: the caller renders only a snapshot it has in full.
std::string renderExposition(const ExpositionInput& input, ExpositionFormat format);

// A task name as a label value between quotes: bytes that are not UTF-8 become U+FFFD, and the
// backslash, the quote and the line feed are escaped, as both formats require.
std::string labelValue(const std::string& name);

}  // namespace zelk::cli
