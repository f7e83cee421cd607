// The exporter's scrapes: retries of a failing walk, a whole exposition or 503, and concurrent
// scrapers sharing a collection no older than their request.
#include "serve/metrics_exporter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "known_snapshot_for_testing.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

// Fake library queries: each answers from `s` after failing its first `failures` calls.
struct FakeLibrary {
  Snapshot s = knownSnapshot();
  std::atomic<int> processFailures{0};
  std::atomic<int> processCalls{0};
  std::chrono::milliseconds processDelay{0};
  std::atomic<bool> cgroupsFail{false};

  CollectSources sources() {
    CollectSources sources;
    sources.queries.freqs = [this] { return std::optional<FreqTable>(s.freqs); };
    sources.queries.total = [this] { return std::optional<Times>(s.total); };
    sources.queries.processes = [this]() -> std::optional<lib::TimeInStateTable> {
      ++processCalls;
      std::this_thread::sleep_for(processDelay);
      if (processFailures > 0) {
        --processFailures;
        return std::nullopt;
      }
      return s.processes;
    };
    sources.queries.kthreads = [this] { return std::optional<lib::TimeInStateTable>(s.kthreads); };
    sources.queries.topParts = [this] {
      return std::optional<lib::ClassTimePartsTable>(s.topParts);
    };
    sources.queries.bgParts = [this] { return std::optional<lib::ClassTimePartsTable>(s.bgParts); };
    sources.queries.cgroups = [this] {
      return cgroupsFail ? std::nullopt : std::optional<CgroupEntries>(s.cgroups);
    };
    sources.maps = [] { return std::vector<MapFill>{}; };
    sources.overflow = [] { return std::optional<lib::OverflowCounts>(); };
    return sources;
  }
};

SnapshotRequest quickRetries() {
  SnapshotRequest request;
  request.attempts = 3;
  request.pause = std::chrono::milliseconds(1);
  return request;
}

TEST(MetricsExporter, RetriesAFailedWalkThenAnswersInFullOr503) {
  FakeLibrary fake;
  MetricsExporter exporter(fake.sources(), quickRetries());
  fake.processFailures = 2;  // as when another process deletes keys under the walk
  HttpResponse response = exporter.scrape("");
  EXPECT_EQ(response.status, 200);
  EXPECT_NE(response.body.find("zelk_process_cpu_seconds_total{comm=\"app\",foreground=\"true\"}"),
            std::string::npos);
  EXPECT_NE(response.body.find("\nzelk_exporter_query_failures_total 2\n"), std::string::npos);

  fake.processFailures = 3;  // every try
  response = exporter.scrape("application/openmetrics-text");
  EXPECT_EQ(response.status, 503);
  EXPECT_EQ(response.contentType, "text/plain; charset=utf-8");
  EXPECT_EQ(response.body,
            "zelkcputime: the counts could not be read: getProcessCpuFreqTimes failed 3 times "
            "(run with -v for the library's messages)\n");

  response = exporter.scrape("application/openmetrics-text");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.contentType, "application/openmetrics-text; version=1.0.0; charset=utf-8");
  EXPECT_NE(response.body.find("\nzelk_exporter_failed_scrapes_total 1\n"), std::string::npos);
  EXPECT_NE(response.body.find("\nzelk_exporter_query_failures_total 5\n"), std::string::npos);

  // The cgroup table is read with the others, and fails the scrape as they do.
  fake.s.cgroups = {{1, "/", {{1, 0, 0}, {0}}}};
  response = exporter.scrape("");
  EXPECT_NE(response.body.find("\nzelk_cgroup_cpu_seconds_total{cgroup=\"/\"} 0.000000001\n"),
            std::string::npos)
      << response.body;
  fake.cgroupsFail = true;
  response = exporter.scrape("");
  EXPECT_EQ(response.status, 503);
  EXPECT_NE(response.body.find("getCgroupCpuFreqTimes failed 3 times"), std::string::npos)
      << response.body;
}

TEST(MetricsExporter, ConcurrentScrapersShareACollectionNoOlderThanTheirRequest) {
  FakeLibrary fake;
  fake.processDelay = std::chrono::milliseconds(100);
  MetricsExporter exporter(fake.sources(), quickRetries());
  std::vector<std::thread> scrapers;
  std::atomic<int> stale{0}, answered{0};
  for (int i = 0; i < 6; ++i) {
    scrapers.emplace_back([&] {
      const auto arrival = MetricsExporter::Clock::now();
      const auto collected = exporter.collect(arrival);
      if (collected->startedAt < arrival) ++stale;
      if (collected->snapshot) ++answered;
    });
  }
  for (std::thread& scraper : scrapers) scraper.join();
  EXPECT_EQ(stale, 0);
  EXPECT_EQ(answered, 6);
  // The first collection, and at most one more for all who came while it ran.
  const int calls = fake.processCalls;
  EXPECT_LE(calls, 2);
  // One who comes later gets a new one.
  exporter.collect(MetricsExporter::Clock::now());
  EXPECT_EQ(fake.processCalls, calls + 1) << "a later scrape was answered from an older one";
}

}  // namespace
}  // namespace zelk::cli
