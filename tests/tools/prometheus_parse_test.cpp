// The exposition of task names made of every byte, served by the exporter's own server and read
// by the real parsers: promtool's lint of the text format, and Debian's Prometheus scraping it
// once in OpenMetrics (as it asks) and once in the text format.
#include <android-base/file.h>
#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include "child_process.h"
#include "namespace.h"
#include "self_status.h"
#include "serve/http_server.h"
#include "serve/metrics_exporter.h"
#include "serve_bed.h"
#include "zelkcpufreqtime_cgroups.h"

namespace zelk::testbed {
namespace {

using namespace zelk::cli;
namespace lib = com::zelkora;

// Every byte from 1 to 255 in some name, and the ones each format escapes on their own.
Snapshot hostileSnapshot() {
  Snapshot s;
  s.parts = kAllParts;
  s.freqs = {{300000, 300000, 1000000}};
  s.total = {{1000000000, 0, 250000000}};
  std::vector<std::string> names = {"a\"b",      "back\\slash", "new\nline",        "\xff\xfe",
                                    "\xc3\x28x", "caf\xc3\xa9", "<map overflowed>", "",
                                    "x\xff",     "x\xfe",       "sp ace{}=,#"};
  for (int first = 1; first < 256; first += 15) {
    std::string name;
    for (int c = first; c < first + 15 && c < 256; ++c) name += static_cast<char>(c);
    names.push_back(name);
  }
  uint64_t ns = 1000;
  for (const std::string& name : names) {
    s.processes[{name, 0}] = {{ns, 0, ns * 3}};
    s.processes[{name, 1}] = {{ns * 2, ns, 0}};
    s.kthreads[{name, 1}] = {{ns, 0, 0}};
    s.topParts[{name, 0}] = {ns * 5, ns};
    s.bgParts[{name, 0}] = {ns * 7, 0};
    ns += 1000;
  }
  // Five levels under /l1, a unit, names a directory may have, a removed cgroup, the overflow.
  s.parts |= kCgroupsPart;
  s.cgroups = {{1, "/", {{1000, 0, 0}}},
               {2, "/l1/l2/l3/l4/l5", {{2000, 0, 1000}}},
               {3, "/l1/l2/l3", {{3000, 0, 0}}},
               {4, "/system.slice/nginx.service", {{0, 4000, 0}}},
               {5, "/we\"ird\\/new\nline \xff", {{5000, 0, 0}}},
               {6, std::nullopt, {{6000, 0, 0}}},
               {lib::kOverflowCgroupId, std::nullopt, {{7000, 0, 0}}}};
  return s;
}

CollectSources sourcesOf(const Snapshot& s) {
  CollectSources sources;
  sources.queries.freqs = [s] { return std::optional<FreqTable>(s.freqs); };
  sources.queries.total = [s] { return std::optional<Times>(s.total); };
  sources.queries.processes = [s] { return std::optional<lib::TimeInStateTable>(s.processes); };
  sources.queries.kthreads = [s] { return std::optional<lib::TimeInStateTable>(s.kthreads); };
  sources.queries.topParts = [s] { return std::optional<lib::ClassTimePartsTable>(s.topParts); };
  sources.queries.bgParts = [s] { return std::optional<lib::ClassTimePartsTable>(s.bgParts); };
  sources.queries.cgroups = [s] { return std::optional<CgroupEntries>(s.cgroups); };
  sources.maps = [] { return std::vector<MapFill>{{"process_time_in_state_map", 40, 4096, {}}}; };
  sources.overflow = [] { return std::optional<lib::OverflowCounts>({{1, 2, 3}}); };
  return sources;
}

size_t sampleLines(const std::string& exposition) {
  size_t samples = 0;
  for (size_t start = 0; start < exposition.size();) {
    size_t end = exposition.find('\n', start);
    if (end == std::string::npos) end = exposition.size();
    if (exposition[start] != '#') ++samples;
    start = end + 1;
  }
  return samples;
}

TEST(PromtoolCheck, TextFormatOfHostileNames) {
  const std::string promtool = installedProgram("promtool");
  if (promtool.empty())
    ZELK_SKIP_OR_FAIL("Debian's prometheus package (promtool) is not installed");
  const std::regex all(".*");
  MetricsExporter exporter(sourcesOf(hostileSnapshot()), {}, &all);
  const HttpResponse response = exporter.scrape("text/plain");
  ASSERT_EQ(response.status, 200);
  const std::string file = "/tmp/zelk-promtool-" + std::to_string(getpid()) + ".prom";
  ASSERT_TRUE(android::base::WriteStringToFile(response.body, file));
  const ChildResult run = runProgram("/bin/sh", {"-c", promtool + " check metrics < " + file});
  unlink(file.c_str());
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(run.output, "") << "lint findings";
}

class PrometheusParseTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.network = true}; }
};

TEST_F(PrometheusParseTest, ScrapesHostileNamesInBothFormats) {
  const Snapshot snapshot = hostileSnapshot();
  const std::regex selected("x.*|/l1.*");
  MetricsExporter exporter(sourcesOf(snapshot), {}, &selected, nullptr, 0, {2, nullptr});
  std::mutex mutex;
  std::string askedFor;  // the Accept header of Prometheus's last scrape
  HttpServer openMetrics, text;
  ASSERT_EQ(openMetrics.start({"127.0.0.1", 10410},
                              [&](const std::string& accept) {
                                std::lock_guard<std::mutex> lock(mutex);
                                askedFor = accept;
                                return exporter.scrape(accept);
                              }),
            "");
  ASSERT_EQ(text.start({"127.0.0.1", 10411},
                       [&](const std::string&) { return exporter.scrape("text/plain"); }),
            "");
  Prometheus prometheus;
  const std::string error = prometheus.start(R"(global:
  scrape_interval: 1s
  scrape_timeout: 1s
scrape_configs:
  - job_name: openmetrics
    static_configs: [{targets: ['127.0.0.1:10410']}]
  - job_name: text
    static_configs: [{targets: ['127.0.0.1:10411']}]
)",
                                             19090);
  if (error.find("not installed") != std::string::npos) ZELK_SKIP_OR_FAIL(error);
  ASSERT_EQ(error, "");

  const std::string exposition = exporter.scrape("").body;
  const size_t samples = sampleLines(exposition);
  // One series per name and class, after names that show the same have been added up.
  size_t series = 0;
  for (size_t at = 0;
       (at = exposition.find("\nzelk_process_cpu_seconds_total{", at)) != std::string::npos; ++at) {
    ++series;
  }
  ASSERT_LT(series, snapshot.processes.size()) << "no names were made equal";
  const auto value = [&](const std::string& query) { return prometheus.query(query).value_or(-1); };
  for (const std::string job : {"openmetrics", "text"}) {
    const std::string of = "{job=\"" + job + "\"";
    ASSERT_TRUE(waitUntil([&] { return value("up" + of + "}") == 1.0; }, milliseconds(20000)))
        << job << " never scraped successfully: " << prometheus.log();
    EXPECT_EQ(value("scrape_samples_scraped" + of + "}"), static_cast<double>(samples)) << job;
    EXPECT_EQ(value("count(zelk_process_cpu_seconds_total" + of + "})"),
              static_cast<double>(series))
        << job;
    EXPECT_DOUBLE_EQ(
        value("zelk_process_cpu_seconds_total" + of + ",comm=\"new\\nline\",foreground=\"true\"}"),
        0.000009)
        << job;
    // "x\xff" and "x\xfe", both selected and both shown as "x\ufffd": their sum.
    EXPECT_DOUBLE_EQ(value("zelk_process_cpu_frequency_seconds_total" + of +
                           ",comm=\"x\\ufffd\",foreground=\"false\",freq_khz=\"300000\"}"),
                     0.000019)
        << job;
    // Depth 2: /, /l1, /l1/l2, the unit and its slice, the two others, the removed, the overflow;
    // /l1 and /l1/l2, which --per-frequency selects, as a series per frequency (two distinct).
    EXPECT_EQ(value("count(zelk_cgroup_cpu_seconds_total" + of + "})"), 11.0) << job;
    EXPECT_EQ(value("count(zelk_cgroup_cpu_seconds_total" + of + ",freq_khz!=\"\"})"), 4.0) << job;
    EXPECT_DOUBLE_EQ(value("sum(zelk_cgroup_cpu_seconds_total" + of + ",cgroup=\"/l1/l2\"})"),
                     0.000006)
        << job;
  }
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(negotiateFormat(askedFor), ExpositionFormat::kOpenMetrics) << askedFor;
}

}  // namespace
}  // namespace zelk::testbed
