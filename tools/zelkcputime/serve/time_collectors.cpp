// The collectors of counted time: the whole system's, the tasks', the cgroups', the classes', and
// its energy.
#include <algorithm>
#include <optional>
#include <tuple>

#include "model/cgroup_rows.h"
#include "model/energy.h"
#include "model/task_rows.h"
#include "model/times.h"
#include "serve/collectors.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

constexpr unsigned kNs = 9;          // nanoseconds as seconds
constexpr unsigned kNsTimesKhz = 6;  // ns × kHz as cycles

struct Task {
  std::string name;
  uint64_t flag;
  const Times* times;
};

// The series of one table: bounded where the exporter bounds them, else one per name. In name
// order, so that the exposition is the same for the same tables.
std::vector<Task> tasksOf(const ExpositionInput& input, bool processes) {
  std::vector<Task> tasks;
  if (const std::vector<TaskSeries>* series =
          processes ? input.processSeries : input.kthreadSeries) {
    tasks.reserve(series->size());
    for (const TaskSeries& row : *series) tasks.push_back({row.name, row.flag, &row.times});
    return tasks;
  }
  const lib::TimeInStateTable& table =
      processes ? input.snapshot->processes : input.snapshot->kthreads;
  tasks.reserve(table.size());
  for (const auto& [key, times] : table) tasks.push_back({key.comm, key.flag, &times});
  std::sort(tasks.begin(), tasks.end(), [](const Task& a, const Task& b) {
    return a.name != b.name ? a.name < b.name : a.flag < b.flag;
  });
  return tasks;
}

std::string taskLabels(const Task& task, bool processes) {
  return processes
             ? labels({{"comm", task.name}, {"foreground", task.flag != 0 ? "true" : "false"}})
             : labels({{"comm", task.name}});
}

// Calls `each(policy, khz, ns)` for every entry of `times` that the frequency table names.
template <typename Each>
void forEachFrequency(const FreqTable& freqs, const Times& times, Each each) {
  for (size_t p = 0; p < times.size() && p < freqs.size(); ++p) {
    for (size_t i = 0; i < times[p].size() && i < freqs[p].size(); ++i) {
      each(p, freqs[p][i], times[p][i]);
    }
  }
}

// Seconds, cycles and (for the names `perFrequency` selects) seconds per frequency of one table.
void addTasks(const ExpositionInput& input, bool processes, Family* seconds, Family* cycles,
              Family* perFrequencySeconds) {
  const FreqTable& freqs = input.snapshot->freqs;
  const std::regex* perFrequency = input.perFrequency;
  for (const Task& task : tasksOf(input, processes)) {
    const std::string ownLabels = taskLabels(task, processes);
    seconds->add(ownLabels, sumTimes(*task.times));
    cycles->add(ownLabels, cyclesOf(freqs, *task.times));
    if (perFrequency == nullptr || !std::regex_match(task.name, *perFrequency)) continue;
    forEachFrequency(freqs, *task.times, [&](size_t p, uint64_t khz, uint64_t ns) {
      const std::string policy = std::to_string(p);
      const std::string freq = std::to_string(khz);
      perFrequencySeconds->add(
          processes ? labels({{"comm", task.name},
                              {"foreground", task.flag != 0 ? "true" : "false"},
                              {"policy", policy},
                              {"freq_khz", freq}})
                    : labels({{"comm", task.name}, {"policy", policy}, {"freq_khz", freq}}),
          ns);
    });
  }
}

// A name's closed periods as a counter, which grows until a reset, and its open ones as a gauge:
// the bounded series where the exporter bounds them, else one per name.
void addClassTimes(const lib::ClassTimePartsTable& table, const std::vector<ClassSeries>* bounded,
                   Family* closed, Family* open) {
  std::vector<ClassSeries> rows;
  if (bounded == nullptr) {
    for (const auto& [key, parts] : table) rows.push_back({key.comm, parts.closedNs, parts.openNs});
    std::sort(rows.begin(), rows.end(),
              [](const ClassSeries& a, const ClassSeries& b) { return a.name < b.name; });
  }
  for (const ClassSeries& row : bounded != nullptr ? *bounded : rows) {
    closed->add(labels({{"comm", row.name}}), row.closedNs);
    open->add(labels({{"comm", row.name}}), row.openNs);
  }
}

// The counters of a power model, in the unit the model's results have: joules, coulombs for a
// current-based profile, or the abstract scale's own unit.
struct EnergyScale {
  explicit EnergyScale(const lib::PowerModel& model) : unit(unitInfo(model.unit)) {}

  Family family(const std::string& prefix, const std::string& whose) const {
    return Family(prefix + unit.metricSuffix, MetricKind::kCounter, unit.metricUnit,
                  unit.metricHelp + whose + ", from the power model.", /*scale=*/6);
  }
  Units value(const lib::EnergyEstimate& estimate) const {
    return static_cast<Units>(estimate.energy) * unit.metricMicros;
  }

  const EnergyUnitInfo& unit;
};

struct EnergyFamilies {
  explicit EnergyFamilies(const lib::PowerModel& model)
      : scale(model),
        total(scale.family("zelk_cpu", "the whole system")),
        process(scale.family("zelk_process_cpu", "the processes of each name")),
        kthread(scale.family("zelk_kthread_cpu", "the kernel threads of each name")) {}

  void add(const lib::PowerModel& model, const ExpositionInput& input) {
    if (const auto estimate = lib::estimateEnergy(model, input.snapshot->total)) {
      total.add("", scale.value(*estimate));
    }
    for (const auto& [family, processes] :
         {std::pair{&process, true}, std::pair{&kthread, false}}) {
      for (const Task& task : tasksOf(input, processes)) {
        const auto estimate = lib::estimateEnergy(model, *task.times);
        if (estimate) family->add(taskLabels(task, processes), scale.value(*estimate));
      }
    }
  }

  EnergyScale scale;
  Family total, process, kthread;
};

// {cgroup="/path",...} without its closing brace, so that the frequency's labels can follow: the
// workload's labels where its path names one.
std::string cgroupLabels(const CgroupRow& row) {
  std::string out = "{cgroup=" + labelValue(row.path);
  for (const auto& [name, value] : {std::pair{",unit=", &row.workload.unit},
                                    std::pair{",container_id=", &row.workload.containerId},
                                    std::pair{",pod_uid=", &row.workload.podUid}}) {
    if (!value->empty()) out += name + labelValue(*value);
  }
  return out;
}

}  // namespace

void collectEnergy(const ExpositionInput& input, std::vector<Family>* families) {
  if (input.model == nullptr) return;
  EnergyFamilies energy(*input.model);
  energy.add(*input.model, input);
  families->push_back(std::move(energy.total));
  families->push_back(std::move(energy.process));
  families->push_back(std::move(energy.kthread));
}

void collectSystemTimes(const ExpositionInput& input, std::vector<Family>* families) {
  const Snapshot& s = *input.snapshot;
  Family total("zelk_cpu_seconds", MetricKind::kCounter, "seconds",
               "CPU time of the whole system at each frequency of each cpufreq policy.", kNs);
  // PromQL cannot read a frequency out of a label: the policy's cycles give its average.
  Family cycles("zelk_cpu_cycles", MetricKind::kCounter, "",
                "CPU time times frequency of the whole system in each cpufreq policy: "
                "rate(cycles) / rate(the policy's seconds) is its average frequency in Hz while "
                "busy.",
                kNsTimesKhz);
  forEachFrequency(s.freqs, s.total, [&](size_t p, uint64_t khz, uint64_t ns) {
    const std::string policy = std::to_string(p);
    total.add(labels({{"policy", policy}, {"freq_khz", std::to_string(khz)}}), ns);
    cycles.add(labels({{"policy", policy}}), static_cast<Units>(ns) * khz);
  });
  families->push_back(std::move(total));
  families->push_back(std::move(cycles));
}

void collectTaskTimes(const ExpositionInput& input, std::vector<Family>* families) {
  Family processSeconds("zelk_process_cpu_seconds", MetricKind::kCounter, "seconds",
                        "CPU time of the processes of each name, over all frequencies. Names "
                        "outside --process-match, or that have not yet run "
                        "--process-min-seconds, count in comm=\"other\".",
                        kNs);
  Family processCycles(
      "zelk_process_cpu_cycles", MetricKind::kCounter, "",
      "CPU time times frequency of the processes of each name: rate(cycles) / rate(seconds) is "
      "their average frequency in Hz.",
      kNsTimesKhz);
  Family processFrequency("zelk_process_cpu_frequency_seconds", MetricKind::kCounter, "seconds",
                          "CPU time of the processes of each name selected by --per-frequency, "
                          "at each frequency.",
                          kNs);
  Family kthreadSeconds("zelk_kthread_cpu_seconds", MetricKind::kCounter, "seconds",
                        "CPU time of the kernel threads of each name, over all frequencies, "
                        "bounded as the processes' are.",
                        kNs);
  Family kthreadCycles("zelk_kthread_cpu_cycles", MetricKind::kCounter, "",
                       "CPU time times frequency of the kernel threads of each name.", kNsTimesKhz);
  Family kthreadFrequency("zelk_kthread_cpu_frequency_seconds", MetricKind::kCounter, "seconds",
                          "CPU time of the kernel threads of each name selected by "
                          "--per-frequency, at each frequency.",
                          kNs);
  addTasks(input, /*processes=*/true, &processSeconds, &processCycles, &processFrequency);
  addTasks(input, /*processes=*/false, &kthreadSeconds, &kthreadCycles, &kthreadFrequency);
  for (Family* family : {&processSeconds, &processCycles, &processFrequency, &kthreadSeconds,
                         &kthreadCycles, &kthreadFrequency}) {
    families->push_back(std::move(*family));
  }
}

void collectCgroupTimes(const ExpositionInput& input, std::vector<Family>* families) {
  const Snapshot& s = *input.snapshot;
  Family seconds("zelk_cgroup_cpu_seconds", MetricKind::kCounter, "seconds",
                 "CPU time of each cgroup v2 with all its descendants; cgroups below "
                 "--cgroup-depth count in their ancestor at that depth. A cgroup that "
                 "--per-frequency selects has one series per policy and frequency, which sum to "
                 "its time; any other one series over all frequencies.",
                 kNs);
  Family cycles("zelk_cgroup_cpu_cycles", MetricKind::kCounter, "",
                "CPU time times frequency of each cgroup with all its descendants.", kNsTimesKhz);
  std::optional<EnergyScale> scale;
  std::optional<Family> energy;
  if (input.model != nullptr) {
    scale.emplace(*input.model);
    // zelk_cgroup_energy_joules, zelk_cgroup_charge_coulombs for a current-based profile, or
    // zelk_cgroup_energy_abstract for an abstract scale.
    const std::string suffix = scale->unit.metricSuffix;
    const char* prefix = suffix == "_joules"     ? "zelk_cgroup_energy"
                         : suffix == "_coulombs" ? "zelk_cgroup_charge"
                                                 : "zelk_cgroup";
    energy = scale->family(prefix, "each cgroup with all its descendants");
  }
  for (const CgroupRow& row : cgroupRows(s.cgroups, input.cgroups)) {
    const std::string open = cgroupLabels(row), own = open + "}";
    cycles.add(own, cyclesOf(s.freqs, row.times));
    if (energy) {
      if (const auto estimate = lib::estimateEnergy(*input.model, row.times)) {
        energy->add(own, scale->value(*estimate));
      }
    }
    if (input.perFrequency == nullptr || !std::regex_match(row.path, *input.perFrequency)) {
      seconds.add(own, row.total);
      continue;
    }
    forEachFrequency(s.freqs, row.times, [&](size_t p, uint64_t khz, uint64_t ns) {
      seconds.add(
          open + ",policy=\"" + std::to_string(p) + "\",freq_khz=\"" + std::to_string(khz) + "\"}",
          ns);
    });
  }
  for (Family* family : {&seconds, &cycles}) families->push_back(std::move(*family));
  if (energy) families->push_back(std::move(*energy));
}

void collectClassTimes(const ExpositionInput& input, std::vector<Family>* families) {
  const Snapshot& s = *input.snapshot;
  Family foreground("zelk_foreground_seconds", MetricKind::kCounter, "seconds",
                    "Time that the processes of each name spent in the foreground (not CPU time), "
                    "in periods that have ended: a class change, a rename or an exit. Names are "
                    "bounded as in zelk_process_cpu_seconds_total; kernel threads count only "
                    "with --class-times-kthreads.",
                    kNs);
  Family foregroundOpen("zelk_foreground_open_seconds", MetricKind::kGauge, "seconds",
                        "Time that the live tasks of each name in the foreground have spent there "
                        "since their last change, summed over the tasks.",
                        kNs);
  Family background("zelk_background_seconds", MetricKind::kCounter, "seconds",
                    "Time that the processes of each name spent in the background (not CPU time), "
                    "in periods that have ended: a class change, a rename or an exit. Names are "
                    "bounded as in zelk_process_cpu_seconds_total; kernel threads count only "
                    "with --class-times-kthreads.",
                    kNs);
  Family backgroundOpen("zelk_background_open_seconds", MetricKind::kGauge, "seconds",
                        "Time that the live tasks of each name in the background have spent there "
                        "since their last change, summed over the tasks.",
                        kNs);
  addClassTimes(s.topParts, input.foregroundSeries, &foreground, &foregroundOpen);
  addClassTimes(s.bgParts, input.backgroundSeries, &background, &backgroundOpen);
  for (Family* family : {&foreground, &foregroundOpen, &background, &backgroundOpen}) {
    families->push_back(std::move(*family));
  }
}

}  // namespace zelk::cli
