// The exporter's HTTP server: scrape latency with and without clients that trickle request
// headers. Four scrapers each GET /metrics every 100 ms (about 120 KB of text) for 10 s, first
// alone, then beside 256 connections that send a header byte every 0.5 s and never finish; once
// with one event loop and once with two. Reports p50, p99 and max in ms as counters. --smoke:
// 1 s and 16 slow connections, to keep the case from rotting; it judges no speed.
#include <benchmark/benchmark.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "http_load.h"
#include "serve/http_server.h"

namespace {

using std::chrono::milliseconds;
using zelk::cli::HttpLimits;
using zelk::cli::HttpResponse;
using zelk::cli::HttpServer;

bool gSmoke = false;

void scrapes(benchmark::State& state, unsigned threads, size_t slowCount) {
  HttpLimits limits;
  limits.threads = threads;
  HttpServer server;
  const std::string error = server.start(
      {"127.0.0.1", 0},
      [](const std::string&) {
        return HttpResponse{200, "text/plain; version=0.0.4", zelk::testbed::sampleExposition()};
      },
      limits);
  if (!error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  const milliseconds duration(gSmoke ? 1000 : 10000);
  for (auto _ : state) {
    std::optional<zelk::testbed::TrickleClients> slow;
    if (slowCount > 0) slow.emplace(server.port(), gSmoke ? 16 : slowCount, milliseconds(500));
    const zelk::testbed::ScrapeResults results =
        zelk::testbed::scrapeFor(server.port(), 4, milliseconds(100), duration);
    const zelk::testbed::Percentiles p = zelk::testbed::percentiles(results.latencyMs);
    state.SetIterationTime(duration.count() / 1000.0);
    state.counters["scrapes"] = static_cast<double>(results.latencyMs.size());
    state.counters["failed"] = static_cast<double>(results.failed);
    state.counters["p50_ms"] = p.p50;
    state.counters["p99_ms"] = p.p99;
    state.counters["max_ms"] = p.max;
    if (results.failed > 0) state.SkipWithError("a scrape failed");
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> rest = {argv[0]};
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--smoke") == 0) {
      gSmoke = true;
    } else {
      rest.push_back(argv[i]);
    }
  }
  for (unsigned threads : {1u, 2u}) {
    for (size_t slow : {size_t{0}, size_t{256}}) {
      const std::string name =
          "scrapes/threads:" + std::to_string(threads) + "/slow:" + std::to_string(slow);
      benchmark::RegisterBenchmark(
          name.c_str(), [threads, slow](benchmark::State& state) { scrapes(state, threads, slow); })
          ->Iterations(1)
          ->UseManualTime()
          ->Unit(benchmark::kSecond);
    }
  }
  int benchArgc = static_cast<int>(rest.size());
  benchmark::Initialize(&benchArgc, rest.data());
  if (benchmark::ReportUnrecognizedArguments(benchArgc, rest.data())) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
