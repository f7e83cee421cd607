#include "serve/metrics_exporter.h"

#include <cstdio>
#include <utility>

#include "views/unsettled_note.h"

namespace zelk::cli {
namespace {

using Failures = std::shared_ptr<std::atomic<uint64_t>>;

// `query`, with each empty answer counted.
template <typename T>
std::function<std::optional<T>()> counted(std::function<std::optional<T>()> query,
                                          const Failures& failures) {
  return [query = std::move(query), failures]() {
    std::optional<T> answer = query();
    if (!answer) ++*failures;
    return answer;
  };
}

}  // namespace

MetricsExporter::MetricsExporter(CollectSources sources, SnapshotRequest request,
                                 const std::regex* perFrequency,
                                 const com::zelkora::PowerModel* model, unsigned sampledMs,
                                 CgroupRowSettings cgroups, NameBounds names, bool classKthreads)
    : sources_(std::move(sources)),
      request_(request),
      perFrequency_(perFrequency),
      model_(model),
      sampledMs_(sampledMs),
      cgroups_(cgroups),
      processBounds_({names.match, names.minNs, perFrequency}),
      kthreadBounds_({names.match, names.minNs, perFrequency}),
      classBounds_({names.match, names.minNs, perFrequency}, classKthreads),
      queryFailures_(std::make_shared<std::atomic<uint64_t>>(0)) {
  request_.parts = kTotalPart | kProcessesPart | kKthreadsPart | kClassPartsPart | kCgroupsPart;
  SnapshotQueries& q = sources_.queries;
  q.freqs = counted(std::move(q.freqs), queryFailures_);
  q.total = counted(std::move(q.total), queryFailures_);
  q.processes = counted(std::move(q.processes), queryFailures_);
  q.kthreads = counted(std::move(q.kthreads), queryFailures_);
  q.topParts = counted(std::move(q.topParts), queryFailures_);
  q.bgParts = counted(std::move(q.bgParts), queryFailures_);
  q.cgroups = counted(std::move(q.cgroups), queryFailures_);
}

Collected MetricsExporter::collectNow() {
  Collected collected;
  collected.startedAt = Clock::now();
  TakenSnapshot taken = takeSnapshot(request_, sources_.queries);
  if (taken.unsettled != 0) fprintf(stderr, "%s\n", unsettledNote(taken.unsettled).c_str());
  if (taken.snapshot) {
    collected.snapshot = std::move(taken.snapshot);
    collected.processSeries = processBounds_.series(collected.snapshot->processes);
    collected.kthreadSeries = kthreadBounds_.series(collected.snapshot->kthreads);
    const Snapshot& s = *collected.snapshot;
    ClassSeriesBounds::Series classes =
        classBounds_.series(s.topParts, s.bgParts, s.processes, s.kthreads);
    collected.foregroundSeries = std::move(classes.foreground);
    collected.backgroundSeries = std::move(classes.background);
    collected.maps = sources_.maps();
    collected.overflow = sources_.overflow();
  } else {
    collected.error = std::move(taken.error);
  }
  collected.collectNs = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - collected.startedAt)
          .count());
  return collected;
}

std::shared_ptr<const Collected> MetricsExporter::collect(Clock::time_point arrival) {
  {
    com::zelkora::MutexLock lock(mutex_);
    for (;;) {
      if (last_ && last_->startedAt >= arrival) return last_;
      if (!running_) break;
      done_.wait(mutex_);
    }
    running_ = true;
  }
  std::shared_ptr<const Collected> fresh;
  try {
    fresh = std::make_shared<const Collected>(collectNow());
  } catch (...) {
    // Those waiting start their own rather than wait for this one forever.
    com::zelkora::MutexLock lock(mutex_);
    running_ = false;
    done_.notify_all();
    throw;
  }
  com::zelkora::MutexLock lock(mutex_);
  running_ = false;
  last_ = fresh;
  done_.notify_all();
  return fresh;
}

HttpResponse MetricsExporter::scrape(const std::string& accept) {
  const std::shared_ptr<const Collected> collected = collect(Clock::now());
  if (!collected->snapshot) {
    ++failedScrapes_;
    return {503, "text/plain; charset=utf-8",
            "zelkcputime: the counts could not be read: " + collected->error + "\n"};
  }
  const ExpositionFormat format = negotiateFormat(accept);
  ExpositionInput input;
  input.snapshot = &*collected->snapshot;
  input.maps = collected->maps;
  input.overflow = collected->overflow;
  input.perFrequency = perFrequency_;
  input.cgroups = cgroups_;
  input.model = model_;
  input.sampledMs = sampledMs_;
  input.stats = {collected->collectNs, *queryFailures_, failedScrapes_};
  input.processSeries = &collected->processSeries;
  input.kthreadSeries = &collected->kthreadSeries;
  input.foregroundSeries = &collected->foregroundSeries;
  input.backgroundSeries = &collected->backgroundSeries;
  return {200, contentType(format), renderExposition(input, format)};
}

}  // namespace zelk::cli
