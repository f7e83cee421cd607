#include "serve/exposition.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "model/task_rows.h"
#include "views/utf8.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

// Sums of ns × kHz outgrow 64 bits within a day at a few GHz; 128 bits keep every sum exact.
using Units = unsigned __int128;

std::string trim(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

struct MediaRange {
  std::string type;     // "text/plain", lower case
  std::string version;  // "" when not given
  double q = 1;
};

// A q-value, 0 to 1 in plain decimals; anything else as 0, not acceptable. from_chars, not
// strtod, so that the answer does not depend on the locale.
double quality(const std::string& text) {
  if (text.empty() || text.front() < '0' || text.front() > '9') return 0;  // no sign, inf or nan
  double q = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, q, std::chars_format::fixed);
  return error == std::errc() && stop == end && q <= 1 ? q : 0;
}

std::vector<MediaRange> parseAccept(const std::string& accept) {
  std::vector<MediaRange> ranges;
  size_t start = 0;
  while (start <= accept.size()) {
    size_t end = accept.find(',', start);
    if (end == std::string::npos) end = accept.size();
    const std::string item = accept.substr(start, end - start);
    start = end + 1;
    MediaRange range;
    size_t field = 0;
    for (size_t pos = 0; pos <= item.size();) {
      size_t semicolon = item.find(';', pos);
      if (semicolon == std::string::npos) semicolon = item.size();
      const std::string part = trim(item.substr(pos, semicolon - pos));
      pos = semicolon + 1;
      if (field++ == 0) {
        range.type = lower(part);
        continue;
      }
      const size_t equals = part.find('=');
      if (equals == std::string::npos) continue;
      const std::string key = lower(trim(part.substr(0, equals)));
      std::string value = trim(part.substr(equals + 1));
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
      }
      if (key == "version") range.version = value;
      if (key == "q") range.q = quality(value);
    }
    if (!range.type.empty()) ranges.push_back(range);
  }
  // Highest preference first; equal ones in the order given.
  std::stable_sort(ranges.begin(), ranges.end(),
                   [](const MediaRange& a, const MediaRange& b) { return a.q > b.q; });
  return ranges;
}

std::string toDecimal(Units value) {
  if (value == 0) return "0";
  std::string digits;
  for (; value != 0; value /= 10) digits += static_cast<char>('0' + static_cast<int>(value % 10));
  std::reverse(digits.begin(), digits.end());
  return digits;
}

// `units` / 10^scale, exactly, without trailing zeros: 1500000000 at scale 9 -> "1.5".
std::string formatValue(Units units, unsigned scale) {
  Units divisor = 1;
  for (unsigned i = 0; i < scale; ++i) divisor *= 10;
  std::string text = toDecimal(units / divisor);
  std::string fraction = toDecimal(units % divisor);
  if (scale == 0 || units % divisor == 0) return text;
  fraction.insert(0, scale - fraction.size(), '0');
  fraction.erase(fraction.find_last_not_of('0') + 1);
  return text + "." + fraction;
}

enum class Kind { kCounter, kGauge, kInfo };

// One metric family. Samples keep the order of their first addition; samples with the same
// labels add up, so that names that differ only in bytes made U+FFFD, or a frequency that a
// policy lists twice, give one series rather than a duplicate that the scrape would reject.
class Family {
 public:
  Family(std::string name, Kind kind, std::string unit, std::string help, unsigned scale)
      : name_(std::move(name)),
        kind_(kind),
        unit_(std::move(unit)),
        help_(std::move(help)),
        scale_(scale) {}

  void add(const std::string& labels, Units units) {
    const auto [it, inserted] = index_.try_emplace(labels, samples_.size());
    if (inserted) {
      samples_.emplace_back(labels, units);
    } else {
      samples_[it->second].second += units;
    }
  }
  // For an info metric, whose value is always 1.
  void set(const std::string& labels, Units units) {
    if (index_.try_emplace(labels, samples_.size()).second) samples_.emplace_back(labels, units);
  }

  void render(ExpositionFormat format, std::string* out) const {
    if (samples_.empty()) return;
    const std::string sample = name_ + (kind_ == Kind::kCounter ? "_total"
                                        : kind_ == Kind::kInfo  ? "_info"
                                                                : "");
    if (format == ExpositionFormat::kText) {
      *out += "# HELP " + sample + " " + help_ + "\n";
      *out += "# TYPE " + sample + (kind_ == Kind::kCounter ? " counter\n" : " gauge\n");
    } else {
      const char* type = kind_ == Kind::kCounter ? "counter"
                         : kind_ == Kind::kInfo  ? "info"
                                                 : "gauge";
      *out += "# TYPE " + name_ + " " + type + "\n";
      if (!unit_.empty()) *out += "# UNIT " + name_ + " " + unit_ + "\n";
      *out += "# HELP " + name_ + " " + help_ + "\n";
    }
    for (const auto& [labels, units] : samples_) {
      *out += sample + labels + " " + formatValue(units, scale_) + "\n";
    }
  }

 private:
  std::string name_;
  Kind kind_;
  std::string unit_;
  std::string help_;
  unsigned scale_;  // a sample's value is its units / 10^scale
  std::vector<std::pair<std::string, Units>> samples_;
  std::unordered_map<std::string, size_t> index_;
};

constexpr unsigned kNs = 9;          // nanoseconds as seconds
constexpr unsigned kNsTimesKhz = 6;  // ns × kHz as cycles

using Label = std::pair<const char*, std::string>;  // name, value already quoted

std::string labels(std::initializer_list<Label> list) {
  std::string text;
  for (const auto& [name, value] : list) {
    text += (text.empty() ? "{" : ",") + std::string(name) + "=" + value;
  }
  return text.empty() ? text : text + "}";
}

std::string quoted(const std::string& plain) { return "\"" + plain + "\""; }

struct Task {
  std::string name;
  uint64_t flag;
  const Times* times;
};

// In name order, so that the exposition is the same for the same tables.
std::vector<Task> byName(const lib::TimeInStateTable& table) {
  std::vector<Task> tasks;
  tasks.reserve(table.size());
  for (const auto& [key, times] : table) tasks.push_back({key.comm, key.flag, &times});
  std::sort(tasks.begin(), tasks.end(), [](const Task& a, const Task& b) {
    return a.name != b.name ? a.name < b.name : a.flag < b.flag;
  });
  return tasks;
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

Units cyclesOf(const FreqTable& freqs, const Times& times) {
  Units sum = 0;
  forEachFrequency(freqs, times,
                   [&](size_t, uint64_t khz, uint64_t ns) { sum += static_cast<Units>(ns) * khz; });
  return sum;
}

// Seconds, cycles and (for the names `perFrequency` selects) seconds per frequency of one table.
void addTasks(const FreqTable& freqs, const lib::TimeInStateTable& table, bool processes,
              const std::regex* perFrequency, Family* seconds, Family* cycles,
              Family* perFrequencySeconds) {
  for (const Task& task : byName(table)) {
    const std::string comm = labelValue(task.name);
    const std::string foreground = quoted(task.flag != 0 ? "true" : "false");
    const std::string taskLabels =
        processes ? labels({{"comm", comm}, {"foreground", foreground}}) : labels({{"comm", comm}});
    seconds->add(taskLabels, sumTimes(*task.times));
    cycles->add(taskLabels, cyclesOf(freqs, *task.times));
    if (perFrequency == nullptr || !std::regex_match(task.name, *perFrequency)) continue;
    forEachFrequency(freqs, *task.times, [&](size_t p, uint64_t khz, uint64_t ns) {
      const std::string policy = quoted(std::to_string(p));
      const std::string freq = quoted(std::to_string(khz));
      perFrequencySeconds->add(
          processes ? labels({{"comm", comm},
                              {"foreground", foreground},
                              {"policy", policy},
                              {"freq_khz", freq}})
                    : labels({{"comm", comm}, {"policy", policy}, {"freq_khz", freq}}),
          ns);
    });
  }
}

// A name's closed periods as a counter, which grows until a reset, and its open ones as a gauge.
void addClassTimes(const lib::ClassTimePartsTable& table, Family* closed, Family* open) {
  std::vector<std::pair<std::string, lib::ClassTimeParts>> rows(table.size());
  std::transform(table.begin(), table.end(), rows.begin(),
                 [](const auto& entry) { return std::make_pair(entry.first.comm, entry.second); });
  std::sort(rows.begin(), rows.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  for (const auto& [name, parts] : rows) {
    closed->add(labels({{"comm", labelValue(name)}}), parts.closedNs);
    open->add(labels({{"comm", labelValue(name)}}), parts.openNs);
  }
}

// The counters of a power model: joules, coulombs for a current-based profile, or the abstract
// scale's own unit. The library gives whole µJ or µAh; 1 µAh is 3600 µC.
struct EnergyFamilies {
  explicit EnergyFamilies(const lib::PowerModel& model)
      : unit(model.unit),
        total(name("zelk_cpu"), Kind::kCounter, unitName(), help("the whole system"), scale()),
        process(name("zelk_process_cpu"), Kind::kCounter, unitName(),
                help("the processes of each name"), scale()),
        kthread(name("zelk_kthread_cpu"), Kind::kCounter, unitName(),
                help("the kernel threads of each name"), scale()) {}

  std::string name(const std::string& prefix) const {
    return prefix + (unit == lib::EnergyUnit::kMicrojoules     ? "_joules"
                     : unit == lib::EnergyUnit::kMicroampHours ? "_coulombs"
                                                               : "_energy_abstract");
  }
  const char* unitName() const {
    return unit == lib::EnergyUnit::kMicrojoules     ? "joules"
           : unit == lib::EnergyUnit::kMicroampHours ? "coulombs"
                                                     : "";
  }
  std::string help(const std::string& whose) const {
    return (unit == lib::EnergyUnit::kMicroampHours ? "Charge drawn by the CPU time of "
            : unit == lib::EnergyUnit::kAbstract
                ? "Energy on the Energy Model's abstract scale (relative only) of the CPU time of "
                : "Energy of the CPU time of ") +
           whose + ", from the power model.";
  }
  unsigned scale() const { return 6; }
  Units value(const lib::EnergyEstimate& estimate) const {
    return static_cast<Units>(estimate.energy) *
           (unit == lib::EnergyUnit::kMicroampHours ? 3600 : 1);
  }

  void add(const lib::PowerModel& model, const Snapshot& s) {
    if (const auto estimate = lib::estimateEnergy(model, s.total)) total.add("", value(*estimate));
    for (const auto& [table, family, processes] :
         {std::tuple{&s.processes, &process, true}, std::tuple{&s.kthreads, &kthread, false}}) {
      for (const Task& task : byName(*table)) {
        const auto estimate = lib::estimateEnergy(model, *task.times);
        if (!estimate) continue;
        const std::string comm = labelValue(task.name);
        family->add(processes ? labels({{"comm", comm},
                                        {"foreground", quoted(task.flag != 0 ? "true" : "false")}})
                              : labels({{"comm", comm}}),
                    value(*estimate));
      }
    }
  }

  lib::EnergyUnit unit;
  Family total, process, kthread;
};

}  // namespace

ExpositionFormat negotiateFormat(const std::string& accept) {
  for (const MediaRange& range : parseAccept(accept)) {
    if (range.q <= 0) continue;
    const bool anyVersion = range.version.empty();
    if (range.type == "application/openmetrics-text" && (anyVersion || range.version == "1.0.0")) {
      return ExpositionFormat::kOpenMetrics;
    }
    if (range.type == "text/plain" && (anyVersion || range.version == "0.0.4")) break;
  }
  return ExpositionFormat::kText;
}

const char* contentType(ExpositionFormat format) {
  return format == ExpositionFormat::kOpenMetrics
             ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
             : "text/plain; version=0.0.4; charset=utf-8";
}

std::string labelValue(const std::string& name) {
  std::string out = "\"";
  for (const char c : validUtf8(name)) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '"') {
      out += "\\\"";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string renderExposition(const ExpositionInput& input, ExpositionFormat format) {
  const Snapshot& s = *input.snapshot;
  Family total("zelk_cpu_seconds", Kind::kCounter, "seconds",
               "CPU time of the whole system at each frequency of each cpufreq policy.", kNs);
  Family processSeconds("zelk_process_cpu_seconds", Kind::kCounter, "seconds",
                        "CPU time of the processes of each name, over all frequencies.", kNs);
  Family processCycles(
      "zelk_process_cpu_cycles", Kind::kCounter, "",
      "CPU time times frequency of the processes of each name: rate(cycles) / rate(seconds) is "
      "their average frequency in Hz.",
      kNsTimesKhz);
  Family processFrequency("zelk_process_cpu_frequency_seconds", Kind::kCounter, "seconds",
                          "CPU time of the processes of each name selected by --per-frequency, "
                          "at each frequency.",
                          kNs);
  Family kthreadSeconds("zelk_kthread_cpu_seconds", Kind::kCounter, "seconds",
                        "CPU time of the kernel threads of each name, over all frequencies.", kNs);
  Family kthreadCycles("zelk_kthread_cpu_cycles", Kind::kCounter, "",
                       "CPU time times frequency of the kernel threads of each name.", kNsTimesKhz);
  Family kthreadFrequency("zelk_kthread_cpu_frequency_seconds", Kind::kCounter, "seconds",
                          "CPU time of the kernel threads of each name selected by "
                          "--per-frequency, at each frequency.",
                          kNs);
  Family foreground("zelk_foreground_seconds", Kind::kCounter, "seconds",
                    "Time that tasks of each name spent in the foreground (not CPU time), in "
                    "periods that have ended: a class change, a rename or an exit.",
                    kNs);
  Family foregroundOpen("zelk_foreground_open_seconds", Kind::kGauge, "seconds",
                        "Time that the live tasks of each name in the foreground have spent there "
                        "since their last change, summed over the tasks.",
                        kNs);
  Family background("zelk_background_seconds", Kind::kCounter, "seconds",
                    "Time that tasks of each name spent in the background (not CPU time), in "
                    "periods that have ended: a class change, a rename or an exit.",
                    kNs);
  Family backgroundOpen("zelk_background_open_seconds", Kind::kGauge, "seconds",
                        "Time that the live tasks of each name in the background have spent there "
                        "since their last change, summed over the tasks.",
                        kNs);
  Family frequencies("zelk_cpu_frequency", Kind::kInfo, "",
                     "The frequencies of each cpufreq policy that the counts use.", 0);

  Family source("zelk_frequency_source", Kind::kInfo, "",
                "Where the counts take the CPU frequency from: each change as it happens, or "
                "scaling_cur_freq sampled every period_ms (SAMPLED: a driver without a table).",
                0);
  source.set(input.sampledMs == 0
                 ? labels({{"source", quoted("events")}})
                 : labels({{"source", quoted("sampled")},
                           {"period_ms", quoted(std::to_string(input.sampledMs))}}),
             1);
  for (size_t p = 0; p < s.freqs.size(); ++p) {
    for (const uint64_t khz : s.freqs[p]) {
      frequencies.set(labels({{"policy", quoted(std::to_string(p))},
                              {"freq_khz", quoted(std::to_string(khz))}}),
                      1);
    }
  }
  forEachFrequency(s.freqs, s.total, [&](size_t p, uint64_t khz, uint64_t ns) {
    total.add(
        labels({{"policy", quoted(std::to_string(p))}, {"freq_khz", quoted(std::to_string(khz))}}),
        ns);
  });
  addTasks(s.freqs, s.processes, /*processes=*/true, input.perFrequency, &processSeconds,
           &processCycles, &processFrequency);
  addTasks(s.freqs, s.kthreads, /*processes=*/false, input.perFrequency, &kthreadSeconds,
           &kthreadCycles, &kthreadFrequency);
  addClassTimes(s.topParts, &foreground, &foregroundOpen);
  addClassTimes(s.bgParts, &background, &backgroundOpen);

  Family entries("zelk_map_entries", Kind::kGauge, "",
                 "Entries in each counting and pid map of the kernel object.", 0);
  Family capacity("zelk_map_capacity", Kind::kGauge, "",
                  "Entries that each counting and pid map can hold.", 0);
  for (const MapFill& map : input.maps) {
    entries.add(labels({{"map", labelValue(map.name)}}), map.entries);
    capacity.add(labels({{"map", labelValue(map.name)}}), map.capacity);
  }
  Family untracked("zelk_untracked_processes", Kind::kCounter, "",
                   "New processes that the full pid maps could not hold since the load.", 0);
  Family overflowed("zelk_overflowed_updates", Kind::kCounter, "",
                    "Time updates added to a full map's overflow entry since the load.", 0);
  Family lost("zelk_lost_updates", Kind::kCounter, "",
              "Time updates lost since the load: a full map whose overflow entry a reset had "
              "just deleted.",
              0);
  if (input.overflow) {
    untracked.add("", input.overflow->untrackedProcesses);
    overflowed.add("", input.overflow->overflowedUpdates);
    lost.add("", input.overflow->lostUpdates);
  }
  Family duration("zelk_exporter_scrape_duration_seconds", Kind::kGauge, "seconds",
                  "Time this exposition took to read the library's tables and the maps.", kNs);
  duration.add("", input.stats.collectNs);
  Family failures("zelk_exporter_query_failures", Kind::kCounter, "",
                  "Library queries that failed and were tried again, or ended a scrape.", 0);
  failures.add("", input.stats.queryFailures);
  Family failed("zelk_exporter_failed_scrapes", Kind::kCounter, "",
                "Scrapes answered 503 because a query kept failing.", 0);
  failed.add("", input.stats.failedScrapes);

  std::optional<EnergyFamilies> energy;
  if (input.model != nullptr) {
    energy.emplace(*input.model);
    energy->add(*input.model, s);
  }

  std::string out;
  if (energy) {
    for (const Family* family : {&energy->total, &energy->process, &energy->kthread}) {
      family->render(format, &out);
    }
  }
  for (const Family* family :
       {&total,          &processSeconds,   &processCycles, &processFrequency, &kthreadSeconds,
        &kthreadCycles,  &kthreadFrequency, &foreground,    &foregroundOpen,   &background,
        &backgroundOpen, &frequencies,      &source,        &entries,          &capacity,
        &untracked,      &overflowed,       &lost,          &failures,         &failed,
        &duration}) {
    family->render(format, &out);
  }
  if (format == ExpositionFormat::kOpenMetrics) out += "# EOF\n";
  return out;
}

}  // namespace zelk::cli
