#include "views/top_view.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <numeric>

#include "model/energy.h"
#include "views/text_table.h"
#include "views/units.h"

namespace zelk::cli {
namespace {

constexpr char kBandChars[kFrequencyBands] = {'.', '=', '#'};

// `width` characters split among the bands by their shares, by largest remainder so that
// they always add up.
std::string bandBar(const BandTimes& inBand, size_t width) {
  const uint64_t all = inBand[0] + inBand[1] + inBand[2];
  if (all == 0) return std::string(width, ' ');
  size_t cells[kFrequencyBands];
  double rest[kFrequencyBands];
  size_t given = 0;
  for (size_t b = 0; b < kFrequencyBands; ++b) {
    const double exact =
        static_cast<double>(inBand[b]) * static_cast<double>(width) / static_cast<double>(all);
    cells[b] = static_cast<size_t>(exact);
    rest[b] = exact - static_cast<double>(cells[b]);
    given += cells[b];
  }
  while (given < width) {
    const size_t b = static_cast<size_t>(std::max_element(rest, rest + kFrequencyBands) - rest);
    ++cells[b];
    rest[b] = -1;
    ++given;
  }
  std::string bar;
  for (size_t b = 0; b < kFrequencyBands; ++b) bar += std::string(cells[b], kBandChars[b]);
  return bar;
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

std::string tableName(const TopSettings& settings) {
  switch (settings.table) {
    case TopTable::kKthreads:
      return ";  kernel threads";
    case TopTable::kCgroups:
      // Short: the line holds "sort: frequency" too within the batch's 120 characters.
      return ";  cgroups with descendants" +
             (settings.cgroups.depth ? ", depth " + std::to_string(*settings.cgroups.depth)
                                     : std::string());
    case TopTable::kProcesses:
      break;
  }
  return "";
}

}  // namespace

std::vector<TaskRate> topRows(const SnapshotDiff& diff, const TopContext& context,
                              const TopSettings& settings) {
  if (settings.table == TopTable::kCgroups) {
    return cgroupRates(diff, settings.cgroups, settings.sort, context.model);
  }
  return taskRates(diff, settings.table == TopTable::kKthreads, settings.sort, context.model);
}

std::vector<std::string> topHeader(const SnapshotDiff& diff, const TopContext& context,
                                   const TopSettings& settings, double selfCpuPercent,
                                   size_t width) {
  const double elapsedS = std::chrono::duration<double>(diff.elapsed).count();
  const unsigned cpus = std::accumulate(context.policyCpus.begin(), context.policyCpus.end(), 0u);
  const uint64_t busyNs = sumTimes(diff.total);
  char clock[16] = "";
  const time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) != nullptr) strftime(clock, sizeof(clock), "%H:%M:%S", &local);

  std::vector<std::string> lines;
  const std::string share = cpus > 0 && elapsedS > 0
                                ? fixed(cpuPercent(busyNs, diff.elapsed, cpus), 1) + "% of " +
                                      std::to_string(cpus) + (cpus == 1 ? " CPU" : " CPUs")
                                : fixed(cpuPercent(busyNs, diff.elapsed), 1) + "% of one CPU";
  std::string first = std::string("zelkcputime top - ") + clock + "  interval " +
                      fixed(elapsedS, 2) + " s  system CPU " + share + "  self " +
                      fixed(selfCpuPercent, 2) + "%";
  if (diff.totalChange == RowChange::kReset) first += "  (total reset meanwhile)";
  lines.push_back(cut(first, width));
  lines.push_back(cut("CPU frequencies: " + context.policies, width));
  const size_t barWidth = width > 60 ? std::min<size_t>(width - 44, 50) : 16;
  for (size_t p = 0; p < diff.total.size() && p < diff.freqs.size(); ++p) {
    const PolicyLoad load =
        policyLoad(diff, p, p < context.policyCpus.size() ? context.policyCpus[p] : 0);
    std::string bar;
    for (size_t f = 0; f < load.shareAt.size(); ++f) {
      const auto cells =
          static_cast<size_t>(std::lround(load.shareAt[f] * static_cast<double>(barWidth)));
      bar += std::string(cells, kBandChars[bandOf(f, diff.freqs[p].size())]);
    }
    bar = padRight(cut(bar, barWidth), barWidth);
    const std::string busy = load.busyPercent ? fixed(*load.busyPercent, 1) + "% busy" : "";
    lines.push_back(cut("policy " + std::to_string(p) + " [" + bar + "] " + padLeft(busy, 11) +
                            "  avg " + (load.avgKhz > 0 ? formatMhz(load.avgKhz) + " MHz" : "-"),
                        width));
  }
  lines.push_back(cut(std::string("bands: . low  = middle  # high third of each policy's "
                                  "frequencies;  sort: ") +
                          sortName(settings.sort) + tableName(settings) +
                          (settings.frozen ? ";  FROZEN" : ""),
                      width));
  return lines;
}

std::string topColumns(const TopContext& context, TopTable table) {
  const std::string power =
      context.model != nullptr ? "  " + padLeft(unitInfo(context.model->unit).rateText, 9) : "";
  if (table == TopTable::kCgroups) {
    return "  CPU%   AVG MHz  " + padRight("BANDS", kBandWidth) + power + "  CGROUP";
  }
  const bool kthreads = table == TopTable::kKthreads;
  return padRight(kthreads ? "KTHREAD" : "PROCESS", 16) + (kthreads ? "" : "  FG") +
         "    CPU%   AVG MHz  " + padRight("BANDS", kBandWidth) + power;
}

std::string topRowLine(const TaskRate& row, const TopContext& context, TopTable table) {
  const std::string rates = padLeft(fixed(row.cpuPercent, 1), 6) + "  " +
                            padLeft(row.avgKhz > 0 ? formatMhz(row.avgKhz) : "-", 8) + "  " +
                            bandBar(row.bands, kBandWidth);
  const std::string power =
      context.model != nullptr ? "  " + padLeft(row.power ? fixed(*row.power, 1) : "-", 9) : "";
  if (table == TopTable::kCgroups) return rates + power + "  " + printableName(row.name);
  const std::string flag = table == TopTable::kKthreads ? "" : row.flag != 0 ? "  fg" : "  bg";
  return padRight(printableName(row.name), 16) + flag + "  " + rates + power;
}

std::vector<std::string> topFrame(const SnapshotDiff& diff, const TopContext& context,
                                  const TopSettings& settings, double selfCpuPercent, size_t width,
                                  size_t maxRows) {
  std::vector<std::string> lines = topHeader(diff, context, settings, selfCpuPercent, width);
  lines.emplace_back();
  lines.push_back(cut(topColumns(context, settings.table), width));
  const std::vector<TaskRate> rows = topRows(diff, context, settings);
  for (size_t i = 0; i < rows.size() && (maxRows == 0 || i < maxRows); ++i) {
    lines.push_back(cut(topRowLine(rows[i], context, settings.table), width));
  }
  return lines;
}

}  // namespace zelk::cli
