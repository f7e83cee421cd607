#include "views/top_view.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <numeric>

#include "views/text_table.h"
#include "views/units.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

constexpr char kBandChars[] = {'.', '=', '#'};  // low, middle and high third of a policy's table
constexpr size_t kBands = 3;

double seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

size_t bandOf(size_t index, size_t count) { return count == 0 ? 0 : index * kBands / count; }

// Time-weighted; 0 without time.
uint64_t averageKhz(const FreqTable& freqs, const Times& times) {
  long double weighted = 0, all = 0;
  for (size_t p = 0; p < times.size() && p < freqs.size(); ++p) {
    for (size_t f = 0; f < times[p].size() && f < freqs[p].size(); ++f) {
      weighted += static_cast<long double>(times[p][f]) * freqs[p][f];
      all += times[p][f];
    }
  }
  return all == 0 ? 0 : static_cast<uint64_t>(weighted / all + 0.5L);
}

// `width` characters split among the bands by their shares, by largest remainder so that
// they always add up.
std::string bandBar(const FreqTable& freqs, const Times& times, size_t width) {
  uint64_t inBand[kBands] = {};
  for (size_t p = 0; p < times.size() && p < freqs.size(); ++p) {
    for (size_t f = 0; f < times[p].size(); ++f) inBand[bandOf(f, freqs[p].size())] += times[p][f];
  }
  const uint64_t all = inBand[0] + inBand[1] + inBand[2];
  if (all == 0) return std::string(width, ' ');
  size_t cells[kBands];
  double rest[kBands];
  size_t given = 0;
  for (size_t b = 0; b < kBands; ++b) {
    const double exact =
        static_cast<double>(inBand[b]) * static_cast<double>(width) / static_cast<double>(all);
    cells[b] = static_cast<size_t>(exact);
    rest[b] = exact - static_cast<double>(cells[b]);
    given += cells[b];
  }
  while (given < width) {
    const size_t b = static_cast<size_t>(std::max_element(rest, rest + kBands) - rest);
    ++cells[b];
    rest[b] = -1;
    ++given;
  }
  std::string bar;
  for (size_t b = 0; b < kBands; ++b) bar += std::string(cells[b], kBandChars[b]);
  return bar;
}

std::optional<double> powerOf(const TopContext& context, const Times& times, double elapsedS) {
  if (context.model == nullptr || elapsedS <= 0) return std::nullopt;
  const auto estimate = lib::estimateEnergy(*context.model, times);
  if (!estimate) return std::nullopt;
  // Unrounded: a whole µAh over an interval of seconds is a step of more than a mA.
  const double perSecond = estimate->exactEnergy / elapsedS;
  // uJ/s is uW; uAh/s times 3600 is uA.
  return context.model->unit == lib::EnergyUnit::kMicroampHours ? perSecond * 3.6
                                                                : perSecond / 1000;
}

std::string fixed(double value, int decimals) {
  char text[32];
  snprintf(text, sizeof(text), "%.*f", decimals, value);
  return text;
}

std::string padRight(std::string text, size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}
std::string padLeft(const std::string& text, size_t width) {
  return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

// To `width`, without trailing blanks.
std::string cut(std::string line, size_t width) {
  if (line.size() > width) line.resize(width);
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}

const char* sortName(TopSort sort) {
  switch (sort) {
    case TopSort::kPower:
      return "power";
    case TopSort::kFrequency:
      return "frequency";
    case TopSort::kCpu:
      break;
  }
  return "CPU";
}

}  // namespace

std::string powerUnitText(const lib::PowerModel& model) {
  switch (model.unit) {
    case lib::EnergyUnit::kMicroampHours:
      return "mA";
    case lib::EnergyUnit::kAbstract:
      return "au/s";
    case lib::EnergyUnit::kMicrojoules:
      break;
  }
  return "mW";
}

std::vector<TopRow> topRows(const SnapshotDiff& diff, const TopContext& context,
                            const TopSettings& settings) {
  const double elapsedS = seconds(diff.elapsed);
  std::vector<TopRow> rows;
  const auto& deltas = settings.kthreads ? diff.kthreads : diff.processes;
  for (const TaskDelta& delta : deltas) {
    if (delta.change == RowChange::kVanished || delta.row.total == 0) continue;
    TopRow row;
    row.name = printableName(delta.row.name);
    row.foreground = delta.row.flag != 0;
    row.cpuPercent =
        elapsedS > 0 ? 100.0 * static_cast<double>(delta.row.total) / 1e9 / elapsedS : 0;
    row.avgKhz = averageKhz(diff.freqs, delta.row.times);
    row.bands = bandBar(diff.freqs, delta.row.times, kBandWidth);
    row.power = powerOf(context, delta.row.times, elapsedS);
    rows.push_back(std::move(row));
  }
  // The diff's rows are busiest first, then by name and flag: a stable sort keeps that order
  // among equal keys.
  switch (settings.sort) {
    case TopSort::kPower:
      std::stable_sort(rows.begin(), rows.end(), [](const TopRow& a, const TopRow& b) {
        return a.power.value_or(-1) > b.power.value_or(-1);
      });
      break;
    case TopSort::kFrequency:
      std::stable_sort(rows.begin(), rows.end(),
                       [](const TopRow& a, const TopRow& b) { return a.avgKhz > b.avgKhz; });
      break;
    case TopSort::kCpu:
      std::stable_sort(rows.begin(), rows.end(), [](const TopRow& a, const TopRow& b) {
        return a.cpuPercent > b.cpuPercent;
      });
      break;
  }
  return rows;
}

std::vector<std::string> topHeader(const SnapshotDiff& diff, const TopContext& context,
                                   const TopSettings& settings, double selfCpuPercent,
                                   size_t width) {
  const double elapsedS = seconds(diff.elapsed);
  const unsigned cpus = std::accumulate(context.policyCpus.begin(), context.policyCpus.end(), 0u);
  const double busyS = static_cast<double>(sumTimes(diff.total)) / 1e9;
  char clock[16] = "";
  const time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) != nullptr) strftime(clock, sizeof(clock), "%H:%M:%S", &local);

  std::vector<std::string> lines;
  const std::string share =
      cpus > 0 && elapsedS > 0
          ? fixed(100 * busyS / elapsedS / cpus, 1) + "% of " + std::to_string(cpus) +
                (cpus == 1 ? " CPU" : " CPUs")
          : fixed(elapsedS > 0 ? 100 * busyS / elapsedS : 0, 1) + "% of one CPU";
  std::string first = std::string("zelkcputime top - ") + clock + "  interval " +
                      fixed(elapsedS, 2) + " s  system CPU " + share + "  self " +
                      fixed(selfCpuPercent, 2) + "%";
  if (diff.totalChange == RowChange::kReset) first += "  (total reset meanwhile)";
  lines.push_back(cut(first, width));
  lines.push_back(cut("CPU frequencies: " + context.policies, width));
  const size_t barWidth = width > 60 ? std::min<size_t>(width - 44, 50) : 16;
  for (size_t p = 0; p < diff.total.size() && p < diff.freqs.size(); ++p) {
    const unsigned policyCpus = p < context.policyCpus.size() ? context.policyCpus[p] : 0;
    const uint64_t policyNs =
        std::accumulate(diff.total[p].begin(), diff.total[p].end(), uint64_t{0});
    // Out of the policy's capacity over the interval; without its CPUs, out of its busy time.
    const double capacityNs =
        policyCpus > 0 ? elapsedS * 1e9 * policyCpus : static_cast<double>(policyNs);
    std::string bar;
    for (size_t f = 0; f < diff.total[p].size(); ++f) {
      const size_t cells =
          capacityNs > 0
              ? static_cast<size_t>(std::lround(static_cast<double>(diff.total[p][f]) *
                                                static_cast<double>(barWidth) / capacityNs))
              : 0;
      bar += std::string(cells, kBandChars[bandOf(f, diff.freqs[p].size())]);
    }
    bar = padRight(cut(bar, barWidth), barWidth);
    const std::string busy =
        policyCpus > 0 && capacityNs > 0
            ? fixed(100 * static_cast<double>(policyNs) / capacityNs, 1) + "% busy"
            : "";
    const uint64_t avg = averageKhz({diff.freqs[p]}, {diff.total[p]});
    lines.push_back(cut("policy " + std::to_string(p) + " [" + bar + "] " + padLeft(busy, 11) +
                            "  avg " + (avg > 0 ? formatMhz(avg) + " MHz" : "-"),
                        width));
  }
  lines.push_back(cut(std::string("bands: . low  = middle  # high third of each policy's "
                                  "frequencies;  sort: ") +
                          sortName(settings.sort) + (settings.kthreads ? ";  kernel threads" : "") +
                          (settings.frozen ? ";  FROZEN" : ""),
                      width));
  return lines;
}

std::string topColumns(const TopContext& context, bool kthreads) {
  std::string line = padRight(kthreads ? "KTHREAD" : "PROCESS", 16) + (kthreads ? "" : "  FG") +
                     "    CPU%   AVG MHz  " + padRight("BANDS", kBandWidth);
  if (context.model != nullptr) line += "  " + padLeft(powerUnitText(*context.model), 9);
  return line;
}

std::string topRowLine(const TopRow& row, const TopContext& context, bool kthreads) {
  std::string line = padRight(row.name, 16) +
                     (kthreads         ? ""
                      : row.foreground ? "  fg"
                                       : "  bg") +
                     "  " + padLeft(fixed(row.cpuPercent, 1), 6) + "  " +
                     padLeft(row.avgKhz > 0 ? formatMhz(row.avgKhz) : "-", 8) + "  " + row.bands;
  if (context.model != nullptr) {
    line += "  " + padLeft(row.power ? fixed(*row.power, 1) : "-", 9);
  }
  return line;
}

std::vector<std::string> topFrame(const SnapshotDiff& diff, const TopContext& context,
                                  const TopSettings& settings, double selfCpuPercent, size_t width,
                                  size_t maxRows) {
  std::vector<std::string> lines = topHeader(diff, context, settings, selfCpuPercent, width);
  lines.emplace_back();
  lines.push_back(cut(topColumns(context, settings.kthreads), width));
  const std::vector<TopRow> rows = topRows(diff, context, settings);
  for (size_t i = 0; i < rows.size() && (maxRows == 0 || i < maxRows); ++i) {
    lines.push_back(cut(topRowLine(rows[i], context, settings.kthreads), width));
  }
  return lines;
}

}  // namespace zelk::cli
