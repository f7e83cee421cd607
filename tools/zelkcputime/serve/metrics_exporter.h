// The exporter's scrapes: one collection of the library's tables and the maps for every scraper
// that arrived before it started, rendered in the format each one asked for.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "core/mutex.h"
#include "machine/map_fill.h"
#include "model/snapshot.h"
#include "serve/exposition.h"
#include "zelkcpufreqtime_overflow.h"

namespace zelk::cli {

// Where a collection reads from; tests replace them to see retries and failures without a kernel.
struct CollectSources {
  SnapshotQueries queries;
  std::function<std::vector<MapFill>()> maps = measureMaps;
  std::function<std::optional<com::zelkora::OverflowCounts>()> overflow =
      com::zelkora::getOverflowCounts;
};

struct Collected {
  std::optional<Snapshot> snapshot;  // every part, or nothing
  std::string error;                 // without a snapshot: the query that kept failing
  std::vector<MapFill> maps;
  std::optional<com::zelkora::OverflowCounts> overflow;
  std::vector<TaskSeries> processSeries, kthreadSeries;  // with the snapshot
  std::vector<ClassSeries> foregroundSeries, backgroundSeries;
  uint64_t collectNs = 0;
  std::chrono::steady_clock::time_point startedAt;
};

struct HttpResponse {
  int status = 200;
  std::string contentType;
  std::string body;
};

class MetricsExporter {
 public:
  using Clock = std::chrono::steady_clock;

  // `perFrequency`, `model`, `cgroups.match` and `names.match`, when given, outlive the
  // exporter. `names` bounds the task series of both tables and the class series; the names that
  // `perFrequency` selects always have their own. The class series name kernel threads too only
  // with `classKthreads`.
  explicit MetricsExporter(CollectSources sources = {}, SnapshotRequest request = {},
                           const std::regex* perFrequency = nullptr,
                           const com::zelkora::PowerModel* model = nullptr, unsigned sampledMs = 0,
                           CgroupRowSettings cgroups = {kServeCgroupDepth, nullptr},
                           NameBounds names = {}, bool classKthreads = false);

  // A collection that started at or after `arrival`: the one under way if it started since,
  // else a new one. Concurrent scrapers thus share a walk of the maps, and none is older than
  // its request.
  std::shared_ptr<const Collected> collect(Clock::time_point arrival);

  // GET /metrics with this Accept header: 200 with a whole exposition, or 503 with the reason
  // when a query kept failing. Never a part of one.
  HttpResponse scrape(const std::string& accept);

  uint64_t queryFailures() const { return *queryFailures_; }

 private:
  Collected collectNow();

  CollectSources sources_;
  SnapshotRequest request_;
  const std::regex* perFrequency_;
  const com::zelkora::PowerModel* model_;
  unsigned sampledMs_;
  CgroupRowSettings cgroups_;
  // Used by one collection at a time (running_).
  SeriesBounds processBounds_, kthreadBounds_;
  ClassSeriesBounds classBounds_;
  // Shared with the counting wrappers of the queries in sources_.
  std::shared_ptr<std::atomic<uint64_t>> queryFailures_;
  std::atomic<uint64_t> failedScrapes_{0};

  com::zelkora::Mutex mutex_;
  std::condition_variable_any done_;
  bool running_ GUARDED_BY(mutex_) = false;
  std::shared_ptr<const Collected> last_ GUARDED_BY(mutex_);
};

}  // namespace zelk::cli
