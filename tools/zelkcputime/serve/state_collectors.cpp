// The collectors of state: the frequency table, the maps' fill and overflow, the exporter's
// health.
#include "serve/collectors.h"

namespace zelk::cli {

void collectFrequencies(const ExpositionInput& input, std::vector<Family>* families) {
  const Snapshot& s = *input.snapshot;
  Family frequencies("zelk_cpu_frequency", MetricKind::kInfo, "",
                     "The frequencies of each cpufreq policy that the counts use.", 0);
  for (size_t p = 0; p < s.freqs.size(); ++p) {
    for (const uint64_t khz : s.freqs[p]) {
      frequencies.set(labels({{"policy", std::to_string(p)}, {"freq_khz", std::to_string(khz)}}),
                      1);
    }
  }
  Family source("zelk_frequency_source", MetricKind::kInfo, "",
                "Where the counts take the CPU frequency from: each change as it happens, or "
                "scaling_cur_freq sampled every period_ms (SAMPLED: a driver without a table).",
                0);
  source.set(input.sampledMs == 0
                 ? labels({{"source", "events"}})
                 : labels({{"source", "sampled"}, {"period_ms", std::to_string(input.sampledMs)}}),
             1);
  families->push_back(std::move(frequencies));
  families->push_back(std::move(source));
}

void collectMapFill(const ExpositionInput& input, std::vector<Family>* families) {
  Family entries("zelk_map_entries", MetricKind::kGauge, "",
                 "Entries in each counting and pid map of the kernel object.", 0);
  Family capacity("zelk_map_capacity", MetricKind::kGauge, "",
                  "Entries that each counting and pid map can hold.", 0);
  for (const MapFill& map : input.maps) {
    entries.add(labels({{"map", map.name}}), map.entries);
    capacity.add(labels({{"map", map.name}}), map.capacity);
  }
  Family untracked("zelk_untracked_processes", MetricKind::kCounter, "",
                   "New processes that the full pid maps could not hold since the load.", 0);
  Family overflowed("zelk_overflowed_updates", MetricKind::kCounter, "",
                    "Time updates added to a full map's overflow entry since the load.", 0);
  Family lost("zelk_lost_updates", MetricKind::kCounter, "",
              "Time updates lost since the load: a full map whose overflow entry a reset had "
              "just deleted.",
              0);
  if (input.overflow) {
    untracked.add("", input.overflow->untrackedProcesses);
    overflowed.add("", input.overflow->overflowedUpdates);
    lost.add("", input.overflow->lostUpdates);
  }
  for (Family* family : {&entries, &capacity, &untracked, &overflowed, &lost}) {
    families->push_back(std::move(*family));
  }
}

void collectExporterHealth(const ExpositionInput& input, std::vector<Family>* families) {
  Family failures("zelk_exporter_query_failures", MetricKind::kCounter, "",
                  "Library queries that failed and were tried again, or ended a scrape.", 0);
  failures.add("", input.stats.queryFailures);
  Family failed("zelk_exporter_failed_scrapes", MetricKind::kCounter, "",
                "Scrapes answered 503 because a query kept failing.", 0);
  failed.add("", input.stats.failedScrapes);
  Family duration("zelk_exporter_scrape_duration_seconds", MetricKind::kGauge, "seconds",
                  "Time this exposition took to read the library's tables and the maps.", 9);
  duration.add("", input.stats.collectNs);
  for (Family* family : {&failures, &failed, &duration}) families->push_back(std::move(*family));
}

}  // namespace zelk::cli
