// The exposition of known snapshots through the collectors.
#include "serve/exposition.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <regex>
#include <vector>

#include "known_snapshot_for_testing.h"
#include "zelkcpufreqtime_cgroups.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

ExpositionInput knownInput(const Snapshot& snapshot, const std::regex* perFrequency) {
  ExpositionInput input;
  input.snapshot = &snapshot;
  input.maps = {{"process_time_in_state_map", 3, 4096, std::nullopt}};
  input.overflow = lib::OverflowCounts{0, 7, 0};
  input.perFrequency = perFrequency;
  input.stats = {1500000, 2, 1};
  return input;
}

TEST(RenderExposition, TextFormatOfAKnownSnapshot) {
  const Snapshot snapshot = knownSnapshot();
  const std::regex app("app");
  const std::string text = renderExposition(knownInput(snapshot, &app), ExpositionFormat::kText);
  EXPECT_EQ(
      text,
      R"(# HELP zelk_cpu_seconds_total CPU time of the whole system at each frequency of each cpufreq policy.
# TYPE zelk_cpu_seconds_total counter
zelk_cpu_seconds_total{policy="0",freq_khz="300000"} 0.000000003
zelk_cpu_seconds_total{policy="0",freq_khz="600000"} 1
zelk_cpu_seconds_total{policy="1",freq_khz="1000000"} 0.5
# HELP zelk_cpu_cycles_total CPU time times frequency of the whole system in each cpufreq policy: rate(cycles) / rate(the policy's seconds) is its average frequency in Hz while busy.
# TYPE zelk_cpu_cycles_total counter
zelk_cpu_cycles_total{policy="0"} 600000000.9
zelk_cpu_cycles_total{policy="1"} 500000000
# HELP zelk_process_cpu_seconds_total CPU time of the processes of each name, over all frequencies. Names outside --process-match, or that have not yet run --process-min-seconds, count in comm="other".
# TYPE zelk_process_cpu_seconds_total counter
zelk_process_cpu_seconds_total{comm="app",foreground="false"} 0.25
zelk_process_cpu_seconds_total{comm="app",foreground="true"} 1.5
# HELP zelk_process_cpu_cycles_total CPU time times frequency of the processes of each name: rate(cycles) / rate(seconds) is their average frequency in Hz.
# TYPE zelk_process_cpu_cycles_total counter
zelk_process_cpu_cycles_total{comm="app",foreground="false"} 250000000
zelk_process_cpu_cycles_total{comm="app",foreground="true"} 600000000
# HELP zelk_process_cpu_frequency_seconds_total CPU time of the processes of each name selected by --per-frequency, at each frequency.
# TYPE zelk_process_cpu_frequency_seconds_total counter
zelk_process_cpu_frequency_seconds_total{comm="app",foreground="false",policy="0",freq_khz="300000"} 0
zelk_process_cpu_frequency_seconds_total{comm="app",foreground="false",policy="0",freq_khz="600000"} 0
zelk_process_cpu_frequency_seconds_total{comm="app",foreground="false",policy="1",freq_khz="1000000"} 0.25
zelk_process_cpu_frequency_seconds_total{comm="app",foreground="true",policy="0",freq_khz="300000"} 1
zelk_process_cpu_frequency_seconds_total{comm="app",foreground="true",policy="0",freq_khz="600000"} 0.5
zelk_process_cpu_frequency_seconds_total{comm="app",foreground="true",policy="1",freq_khz="1000000"} 0
# HELP zelk_kthread_cpu_seconds_total CPU time of the kernel threads of each name, over all frequencies, bounded as the processes' are.
# TYPE zelk_kthread_cpu_seconds_total counter
zelk_kthread_cpu_seconds_total{comm="kworker/0:1"} 0.000000003
# HELP zelk_kthread_cpu_cycles_total CPU time times frequency of the kernel threads of each name.
# TYPE zelk_kthread_cpu_cycles_total counter
zelk_kthread_cpu_cycles_total{comm="kworker/0:1"} 0.9
# HELP zelk_foreground_seconds_total Time that the processes of each name spent in the foreground (not CPU time), in periods that have ended: a class change, a rename or an exit. Names are bounded as in zelk_process_cpu_seconds_total; kernel threads count only with --class-times-kthreads.
# TYPE zelk_foreground_seconds_total counter
zelk_foreground_seconds_total{comm="app"} 2
# HELP zelk_foreground_open_seconds Time that the live tasks of each name in the foreground have spent there since their last change, summed over the tasks.
# TYPE zelk_foreground_open_seconds gauge
zelk_foreground_open_seconds{comm="app"} 0.25
# HELP zelk_background_seconds_total Time that the processes of each name spent in the background (not CPU time), in periods that have ended: a class change, a rename or an exit. Names are bounded as in zelk_process_cpu_seconds_total; kernel threads count only with --class-times-kthreads.
# TYPE zelk_background_seconds_total counter
zelk_background_seconds_total{comm="app"} 1.5
# HELP zelk_background_open_seconds Time that the live tasks of each name in the background have spent there since their last change, summed over the tasks.
# TYPE zelk_background_open_seconds gauge
zelk_background_open_seconds{comm="app"} 0
# HELP zelk_cpu_frequency_info The frequencies of each cpufreq policy that the counts use.
# TYPE zelk_cpu_frequency_info gauge
zelk_cpu_frequency_info{policy="0",freq_khz="300000"} 1
zelk_cpu_frequency_info{policy="0",freq_khz="600000"} 1
zelk_cpu_frequency_info{policy="1",freq_khz="1000000"} 1
# HELP zelk_frequency_source_info Where the counts take the CPU frequency from: each change as it happens, or scaling_cur_freq sampled every period_ms (SAMPLED: a driver without a table).
# TYPE zelk_frequency_source_info gauge
zelk_frequency_source_info{source="events"} 1
# HELP zelk_map_entries Entries in each counting and pid map of the kernel object.
# TYPE zelk_map_entries gauge
zelk_map_entries{map="process_time_in_state_map"} 3
# HELP zelk_map_capacity Entries that each counting and pid map can hold.
# TYPE zelk_map_capacity gauge
zelk_map_capacity{map="process_time_in_state_map"} 4096
# HELP zelk_untracked_processes_total New processes that the full pid maps could not hold since the load.
# TYPE zelk_untracked_processes_total counter
zelk_untracked_processes_total 0
# HELP zelk_overflowed_updates_total Time updates added to a full map's overflow entry since the load.
# TYPE zelk_overflowed_updates_total counter
zelk_overflowed_updates_total 7
# HELP zelk_lost_updates_total Time updates lost since the load: a full map whose overflow entry a reset had just deleted.
# TYPE zelk_lost_updates_total counter
zelk_lost_updates_total 0
# HELP zelk_exporter_query_failures_total Library queries that failed and were tried again, or ended a scrape.
# TYPE zelk_exporter_query_failures_total counter
zelk_exporter_query_failures_total 2
# HELP zelk_exporter_failed_scrapes_total Scrapes answered 503 because a query kept failing.
# TYPE zelk_exporter_failed_scrapes_total counter
zelk_exporter_failed_scrapes_total 1
# HELP zelk_exporter_scrape_duration_seconds Time this exposition took to read the library's tables and the maps.
# TYPE zelk_exporter_scrape_duration_seconds gauge
zelk_exporter_scrape_duration_seconds 0.0015
)");

  // A policy's cycles are Σ seconds × Hz over its frequencies, the one listed twice included.
  std::map<std::string, double> sums, cycles;
  const std::regex seconds(
      "\nzelk_cpu_seconds_total\\{policy=\"([0-9]+)\",freq_khz=\"([0-9]+)\"\\} ([0-9.]+)");
  for (auto it = std::sregex_iterator(text.begin(), text.end(), seconds);
       it != std::sregex_iterator(); ++it) {
    sums[(*it)[1]] += std::stod((*it)[3]) * std::stod((*it)[2]) * 1e3;
  }
  const std::regex policy("\nzelk_cpu_cycles_total\\{policy=\"([0-9]+)\"\\} ([0-9.]+)");
  for (auto it = std::sregex_iterator(text.begin(), text.end(), policy);
       it != std::sregex_iterator(); ++it) {
    cycles[(*it)[1]] = std::stod((*it)[2]);
  }
  ASSERT_EQ(cycles.size(), 2u) << text;
  for (const auto& [p, sum] : sums) EXPECT_DOUBLE_EQ(cycles[p], sum) << "policy " << p;
}

TEST(RenderExposition, OpenMetricsNamesFamiliesByTheirBaseAndEnds) {
  const Snapshot snapshot = knownSnapshot();
  const std::string om =
      renderExposition(knownInput(snapshot, nullptr), ExpositionFormat::kOpenMetrics);
  EXPECT_EQ(
      om.rfind("# TYPE zelk_cpu_seconds counter\n# UNIT zelk_cpu_seconds seconds\n"
               "# HELP zelk_cpu_seconds CPU time of the whole system at each frequency of each "
               "cpufreq policy.\nzelk_cpu_seconds_total{policy=\"0\",freq_khz=\"300000\"} "
               "0.000000003\n",
               0),
      0u)
      << om;
  EXPECT_NE(om.find("# TYPE zelk_process_cpu_cycles counter\n# HELP zelk_process_cpu_cycles "),
            std::string::npos)
      << "cycles have no unit line";
  EXPECT_NE(om.find("# TYPE zelk_cpu_frequency info\n# HELP zelk_cpu_frequency The frequencies"),
            std::string::npos);
  EXPECT_NE(om.find("\nzelk_cpu_frequency_info{policy=\"1\",freq_khz=\"1000000\"} 1\n"),
            std::string::npos);
  EXPECT_NE(om.find("# TYPE zelk_map_entries gauge\n# HELP zelk_map_entries "), std::string::npos);
  EXPECT_EQ(om.find("frequency_seconds"), std::string::npos) << "nothing selected";
  const std::string end = "zelk_exporter_scrape_duration_seconds 0.0015\n# EOF\n";
  ASSERT_GE(om.size(), end.size());
  EXPECT_EQ(om.substr(om.size() - end.size()), end);
}

TEST(RenderExposition, NamesThatBecomeEqualAddUpAndLargeSumsStayExact) {
  Snapshot s;
  s.freqs = {{4000000}};
  // A year of one CPU at 4 GHz: the policy's cycles too are past 64 bits.
  s.total = {{31536000000000000ull}};
  // Both names show as "a\uFFFD": one series, or the scrape would be rejected as a duplicate.
  s.processes[{"a\xff", 0}] = {{1000000000}};
  s.processes[{"a\xfe", 0}] = {{2000000000}};
  // A year at 4 GHz: ns × kHz is past 64 bits.
  s.kthreads[{"k", 1}] = {{31536000000000000ull}};
  ExpositionInput input;
  input.snapshot = &s;
  const std::string text = renderExposition(input, ExpositionFormat::kText);
  EXPECT_NE(
      text.find("zelk_process_cpu_seconds_total{comm=\"a\xef\xbf\xbd\",foreground=\"false\"} 3\n"),
      std::string::npos)
      << text;
  EXPECT_EQ(text.find("\xff"), std::string::npos);
  EXPECT_NE(text.find("zelk_kthread_cpu_cycles_total{comm=\"k\"} 126144000000000000\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("zelk_kthread_cpu_seconds_total{comm=\"k\"} 31536000\n"), std::string::npos);
  EXPECT_NE(text.find("\nzelk_cpu_cycles_total{policy=\"0\"} 126144000000000000\n"),
            std::string::npos);
  EXPECT_EQ(text.find("zelk_untracked_processes"), std::string::npos) << "no overflow counters";
}

}  // namespace
}  // namespace zelk::cli

namespace zelk::cli {
namespace {

// One policy at 1 and 2 GHz: "app" ran 1 s at 1 GHz and 0.5 s at 2 GHz, "k" 0.25 s at 2 GHz.
Snapshot energySnapshot() {
  Snapshot s;
  s.freqs = {{1000000, 2000000}};
  s.total = {{1000000000, 750000000}};
  s.processes[{"app", 1}] = {{1000000000, 500000000}};
  s.kthreads[{"k", 1}] = {{0, 250000000}};
  s.cgroups = {{1, "/", {{1000000000, 500000000}}}};
  return s;
}

TEST(RenderExposition, EnergyCountersInJoulesOrCoulombsWithTheModel) {
  const Snapshot s = energySnapshot();
  lib::PowerModel model;
  model.freqRates = {{100000.0, 400000.0}};  // µW: 0.1 W and 0.4 W per CPU
  model.policyRates = {0.0};
  ExpositionInput input;
  input.snapshot = &s;
  input.model = &model;
  std::string text = renderExposition(input, ExpositionFormat::kText);
  // 1 s × 0.1 W + 0.5 s × 0.4 W = 0.3 J; 0.25 s × 0.4 W = 0.1 J; the whole system 0.4 J.
  EXPECT_NE(text.find("\nzelk_process_cpu_joules_total{comm=\"app\",foreground=\"true\"} 0.3\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("\nzelk_kthread_cpu_joules_total{comm=\"k\"} 0.1\n"), std::string::npos);
  EXPECT_NE(text.find("\nzelk_cpu_joules_total 0.4\n"), std::string::npos);
  EXPECT_NE(text.find("\nzelk_cgroup_energy_joules_total{cgroup=\"/\"} 0.3\n"), std::string::npos);
  const std::string om = renderExposition(input, ExpositionFormat::kOpenMetrics);
  EXPECT_NE(
      om.find("# TYPE zelk_process_cpu_joules counter\n# UNIT zelk_process_cpu_joules joules\n"),
      std::string::npos)
      << om;

  // A current-based profile without a voltage: 100 µAh per CPU-second at 1 GHz, so 1 s is
  // 100 µAh, which is 0.36 C.
  model.unit = lib::EnergyUnit::kMicroampHours;
  model.freqRates = {{100.0, 0.0}};
  text = renderExposition(input, ExpositionFormat::kText);
  EXPECT_NE(text.find("\nzelk_process_cpu_coulombs_total{comm=\"app\",foreground=\"true\"} 0.36\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("\nzelk_cgroup_charge_coulombs_total{cgroup=\"/\"} 0.36\n"),
            std::string::npos);
  EXPECT_EQ(text.find("joules"), std::string::npos);

  // Without a model, no energy family at all.
  input.model = nullptr;
  EXPECT_EQ(renderExposition(input, ExpositionFormat::kText).find("zelk_cpu_joules"),
            std::string::npos);
}

}  // namespace
}  // namespace zelk::cli

namespace zelk::cli {
namespace {

const std::string kPodUid = "e9fd6274-59d1-11e9-af90-9e3c8464d679";
const std::string kContainer = "4f797c539e6c745de61a93ca3ff892358ecbcaccd8414d5db545c38428142970";
const std::string kPod = "/kubepods/burstable/pod" + kPodUid;

// Five levels under /kubepods (a pod's container and a cgroup inside it), a unit, the root's own
// tasks, a cgroup removed unseen and the overflow entry; one policy at 1 and 2 GHz.
Snapshot cgroupSnapshot() {
  Snapshot s;
  s.parts = kAllParts | kCgroupsPart;
  s.freqs = {{1000000, 2000000}};
  s.cgroups = {{1, "/", {{1000000000, 0}}},
               {20, "/system.slice/nginx.service", {{0, 2000000000}}},
               {30, kPod + "/" + kContainer, {{500000000, 0}}},
               {31, kPod + "/" + kContainer + "/sub", {{250000000, 250000000}}},
               {40, std::nullopt, {{3000000000, 0}}},
               {lib::kOverflowCgroupId, std::nullopt, {{0, 4000000000}}}};
  return s;
}

// A family's series in the text format: labels to value.
std::map<std::string, std::string> seriesOf(const std::string& text, const std::string& name) {
  std::map<std::string, std::string> series;
  for (size_t at = 0; (at = text.find("\n" + name + "{", at)) != std::string::npos;) {
    const size_t labels = at + name.size() + 1, space = text.find("} ", labels);
    const size_t end = text.find('\n', space);
    series[text.substr(labels, space + 1 - labels)] = text.substr(space + 2, end - space - 2);
    at = end;
  }
  return series;
}

TEST(RenderExposition, CgroupRowsToTheDepthWithWorkloadsAndCountersThatNeverFall) {
  Snapshot s = cgroupSnapshot();
  const std::regex units("/system\\.slice.*");
  ExpositionInput input;
  input.snapshot = &s;
  input.perFrequency = &units;
  input.cgroups.depth = 4;
  const std::string text = renderExposition(input, ExpositionFormat::kText);
  const std::string pod = "{cgroup=\"" + kPod + "\",pod_uid=\"" + kPodUid + "\"}";
  const std::string container = "{cgroup=\"" + kPod + "/" + kContainer + "\",container_id=\"" +
                                kContainer + "\",pod_uid=\"" + kPodUid + "\"}";
  const std::string nginx = "{cgroup=\"/system.slice/nginx.service\",unit=\"nginx.service\",";
  // Each parent is its own time plus its children's; sub counts in its container at depth 4. The
  // paths --per-frequency matches in whole have a series per frequency instead of one.
  const std::map<std::string, std::string> expected = {
      {"{cgroup=\"/\"}", "4"},
      {"{cgroup=\"/kubepods\"}", "1"},
      {"{cgroup=\"/kubepods/burstable\"}", "1"},
      {pod, "1"},
      {container, "1"},
      {"{cgroup=\"/system.slice\",policy=\"0\",freq_khz=\"1000000\"}", "0"},
      {"{cgroup=\"/system.slice\",policy=\"0\",freq_khz=\"2000000\"}", "2"},
      {nginx + "policy=\"0\",freq_khz=\"1000000\"}", "0"},
      {nginx + "policy=\"0\",freq_khz=\"2000000\"}", "2"},
      {"{cgroup=\"<removed cgroups>\"}", "3"},
      {"{cgroup=\"<map overflowed>\"}", "4"}};
  EXPECT_EQ(seriesOf(text, "zelk_cgroup_cpu_seconds_total"), expected) << text;
  EXPECT_EQ(seriesOf(text, "zelk_cgroup_cpu_cycles_total")[container], "1250000000");

  // Series bounded by the depth: the cgroups at most that deep, and the two rows without a path.
  const size_t cgroupsAtDepth[] = {1, 3, 5, 6, 7, 8};
  input.perFrequency = nullptr;
  for (unsigned depth = 0; depth <= 5; ++depth) {
    input.cgroups.depth = depth;
    const auto series =
        seriesOf(renderExposition(input, ExpositionFormat::kText), "zelk_cgroup_cpu_seconds_total");
    EXPECT_EQ(series.size(), cgroupsAtDepth[depth] + 2) << depth;
    for (const auto& [labels, value] : series) {
      EXPECT_LE(std::count(labels.begin(), labels.end(), '/'), std::max(depth, 1u)) << labels;
    }
  }

  // The container and its sub are removed (the library keeps their ids and last paths), and a
  // new container at the same path runs 1.5 s: its row and its ancestors' grow by that.
  const auto before =
      seriesOf(renderExposition(input, ExpositionFormat::kText), "zelk_cgroup_cpu_seconds_total");
  s.cgroups.push_back({32, kPod + "/" + kContainer, {{1000000000, 500000000}}});
  const auto after =
      seriesOf(renderExposition(input, ExpositionFormat::kText), "zelk_cgroup_cpu_seconds_total");
  ASSERT_EQ(after.size(), before.size());
  for (const auto& [labels, value] : before) {
    const bool grows =
        labels.find("/sub") == std::string::npos &&
        (labels == "{cgroup=\"/\"}" || labels.find("\"/kubepods") != std::string::npos);
    EXPECT_EQ(std::stod(after.at(labels)) - std::stod(value), grows ? 1.5 : 0) << labels;
  }
}

}  // namespace
}  // namespace zelk::cli

namespace zelk::cli {
namespace {

// Each series' total, by name and flag, and their sum.
std::map<std::pair<std::string, uint64_t>, uint64_t> totals(const std::vector<TaskSeries>& rows) {
  std::map<std::pair<std::string, uint64_t>, uint64_t> out;
  for (const TaskSeries& row : rows) out[{row.name, row.flag}] = sumTimes(row.times);
  return out;
}

TEST(SeriesBounds, SmallAndUnmatchedNamesFoldIntoOtherThatNeverFallsAndSumsToTheTable) {
  const std::regex match("keep.*|big");
  const std::regex always("traced");
  SeriesBounds bounds({&match, /*minNs=*/100, &always});
  const auto row = [](uint64_t ns) { return lib::TimeInStateVector{{ns, 0}}; };
  lib::TimeInStateTable table = {{{"big", 0}, row(500)},     {{"keepsmall", 0}, row(40)},
                                 {{"keepsmall", 1}, row(7)}, {{"nomatch", 1}, row(900)},
                                 {{"traced", 1}, row(3)},    {{"other", 0}, row(200)}};
  using Totals = std::map<std::pair<std::string, uint64_t>, uint64_t>;
  // The first read: names that pass have their whole time; "other" itself always folds.
  EXPECT_EQ(
      totals(bounds.series(table)),
      (Totals{{{"big", 0}, 500}, {{"traced", 1}, 3}, {{"other", 0}, 240}, {{"other", 1}, 907}}));

  // keepsmall (flag 0) passes the floor: what `other` showed of it stays there and its own series
  // counts on from that; a new name that passes at once is its own from zero.
  table[{"keepsmall", 0}] = row(150);
  table[{"keepnew", 0}] = row(120);
  EXPECT_EQ(totals(bounds.series(table)), (Totals{{{"big", 0}, 500},
                                                  {{"keepnew", 0}, 120},
                                                  {{"keepsmall", 0}, 110},
                                                  {{"traced", 1}, 3},
                                                  {{"other", 0}, 240},
                                                  {{"other", 1}, 907}}));
  table[{"keepsmall", 0}] = row(190);
  const auto later = totals(bounds.series(table));
  EXPECT_EQ(later.at({"keepsmall", 0}), 150u);
  EXPECT_EQ(later.at({"other", 0}), 240u) << "other fell or grew when a name left it";
  uint64_t sum = 0, tableSum = 0;
  for (const auto& [id, ns] : later) sum += ns;
  for (const auto& [key, times] : table) tableSum += sumTimes(times);
  EXPECT_EQ(sum, tableSum);

  // A clear: a name whose time fell counts from zero again; a name gone takes its time in
  // `other` with it.
  table[{"keepsmall", 0}] = row(20);
  table.erase({"keepnew", 0});
  const auto cleared = totals(bounds.series(table));
  EXPECT_EQ(cleared.at({"keepsmall", 0}), 20u);
  EXPECT_EQ(cleared.count({"keepnew", 0}), 0u);
  EXPECT_EQ(cleared.at({"other", 0}), 200u);
}

// Each class series' closed and open time, by name.
std::map<std::string, std::pair<uint64_t, uint64_t>> classTotals(
    const std::vector<ClassSeries>& rows) {
  std::map<std::string, std::pair<uint64_t, uint64_t>> out;
  for (const ClassSeries& row : rows) out[row.name] = {row.closedNs, row.openNs};
  return out;
}

TEST(ClassSeriesBounds, ProcessNamesBoundedByTheirCpuTimeAndKernelThreadsOnlyWhenAsked) {
  using Totals = std::map<std::string, std::pair<uint64_t, uint64_t>>;
  const auto row = [](uint64_t ns) { return lib::TimeInStateVector{{ns}}; };
  // "systemd-journa" is how the seeding pass names a process that the object names
  // "systemd-journal"; "sleeper" never ran since the counts began, so it may be either.
  lib::TimeInStateTable processes = {{{"busy", 0}, row(60)},
                                     {{"busy", 1}, row(90)},
                                     {{"idle", 1}, row(10)},
                                     {{"systemd-journal", 0}, row(200)}};
  const lib::TimeInStateTable kthreads = {{{"kworker/0:1", 1}, row(1000)}};
  lib::ClassTimePartsTable table = {{{"busy", 0}, {1000, 50}},
                                    {{"idle", 0}, {30, 5}},
                                    {{"systemd-journa", 0}, {70, 7}},
                                    {{"kworker/0:1", 0}, {5000, 500}},
                                    {{"sleeper", 0}, {9, 1}}};
  ClassSeriesBounds bounds({nullptr, /*minNs=*/100, nullptr});
  ClassSeriesBounds withKthreads({nullptr, /*minNs=*/100, nullptr}, /*kthreads=*/true);
  EXPECT_EQ(classTotals(bounds.series(table, {}, processes, kthreads).foreground),
            (Totals{{"busy", {1000, 50}}, {"systemd-journa", {70, 7}}, {"other", {30, 5}}}));
  EXPECT_EQ(classTotals(withKthreads.series({}, table, processes, kthreads).background),
            (Totals{{"busy", {1000, 50}},
                    {"kworker/0:1", {5000, 500}},
                    {"systemd-journa", {70, 7}},
                    {"other", {39, 6}}}));

  // idle passes the floor: `other` keeps the 30 it showed; idle's own counter counts on from
  // there and its open period leaves `other`'s gauge. A cleared process table takes no name out.
  processes[{"idle", 1}] = row(150);
  table[{"idle", 0}] = {45, 8};
  EXPECT_EQ(classTotals(bounds.series(table, {}, processes, kthreads).foreground),
            (Totals{{"busy", {1000, 50}},
                    {"idle", {15, 8}},
                    {"systemd-journa", {70, 7}},
                    {"other", {30, 0}}}));
  table[{"busy", 0}] = {1100, 0};
  EXPECT_EQ(classTotals(bounds.series(table, {}, {}, {}).foreground),
            (Totals{{"busy", {1100, 0}},
                    {"idle", {15, 8}},
                    {"systemd-journa", {70, 7}},
                    {"other", {30, 0}}}));
}

}  // namespace
}  // namespace zelk::cli
