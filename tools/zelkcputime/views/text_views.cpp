#include "views/text_views.h"

#include <algorithm>

#include "views/bar_chart.h"
#include "views/text_table.h"
#include "views/units.h"

namespace zelk::cli {
namespace {

struct FreqColumn {
  size_t policy;
  size_t index;
  uint64_t ns;  // over all rows
};

// The frequencies with time in `rows`, the busiest `max` of them, in policy and frequency order.
std::vector<FreqColumn> busiestFreqs(const FreqTable& freqs, const std::vector<TaskTimes>& rows,
                                     size_t max) {
  std::vector<FreqColumn> columns;
  for (size_t p = 0; p < freqs.size(); ++p) {
    for (size_t f = 0; f < freqs[p].size(); ++f) {
      uint64_t ns = 0;
      for (const TaskTimes& row : rows) ns += row.times.at(p).at(f);
      if (ns > 0) columns.push_back({p, f, ns});
    }
  }
  if (columns.size() > max) {
    std::stable_sort(columns.begin(), columns.end(),
                     [](const FreqColumn& a, const FreqColumn& b) { return a.ns > b.ns; });
    columns.resize(max);
    std::sort(columns.begin(), columns.end(), [](const FreqColumn& a, const FreqColumn& b) {
      return a.policy != b.policy ? a.policy < b.policy : a.index < b.index;
    });
  }
  return columns;
}

}  // namespace

std::string textFreqs(const FreqTable& freqs) {
  std::string text;
  for (size_t p = 0; p < freqs.size(); ++p) {
    text += "policy " + std::to_string(p) + ":";
    for (uint64_t khz : freqs[p]) text += " " + formatMhz(khz);
    text += " MHz\n";
  }
  return text;
}

std::string textTotal(const FreqTable& freqs, const Times& times) {
  return "Whole system: " + formatSeconds(sumTimes(times)) + " s of CPU time\n" +
         residencyChart(freqs, times);
}

std::string textTaskTable(const FreqTable& freqs, const std::vector<TaskTimes>& rows, bool withFlag,
                          size_t maxFreqColumns, const std::string& nameHeader) {
  const std::vector<FreqColumn> freqColumns = busiestFreqs(freqs, rows, maxFreqColumns);
  uint64_t shownNs = 0;
  for (const FreqColumn& column : freqColumns) shownNs += column.ns;
  uint64_t allNs = 0;
  for (const TaskTimes& row : rows) allNs += row.total;
  const bool other = allNs > shownNs;

  std::vector<Column> columns = {{nameHeader, false}};
  if (withFlag) columns.push_back({"fg", false});
  columns.push_back({"total s", true});
  for (const FreqColumn& column : freqColumns) {
    const std::string policy = freqs.size() > 1 ? "p" + std::to_string(column.policy) + " " : "";
    columns.push_back({policy + formatMhz(freqs[column.policy][column.index]) + " MHz", true});
  }
  if (other) columns.push_back({"other s", true});

  std::vector<std::vector<std::string>> cells;
  for (const TaskTimes& row : rows) {
    std::vector<std::string> line = {printableName(row.name)};
    if (withFlag) line.push_back(row.flag != 0 ? "yes" : "no");
    line.push_back(formatSeconds(row.total));
    uint64_t rest = row.total;
    for (const FreqColumn& column : freqColumns) {
      const uint64_t ns = row.times[column.policy][column.index];
      rest -= ns;
      line.push_back(formatSeconds(ns));
    }
    if (other) line.push_back(formatSeconds(rest));
    cells.push_back(std::move(line));
  }
  return renderTable(columns, cells);
}

std::string taskTitle(bool kthread, const std::string& name, std::optional<uint64_t> flag) {
  if (kthread) return "kernel thread " + printableName(name);
  return "process " + printableName(name) +
         (!flag        ? " (foreground and background)"
          : *flag != 0 ? " (foreground)"
                       : " (background)");
}

std::string textTask(const std::string& title, const FreqTable& freqs, const Times& times) {
  return title + ": " + formatSeconds(sumTimes(times)) + " s\n" + residencyChart(freqs, times);
}

std::string textNamedTimes(const std::string& timeHeader, const std::vector<NamedTime>& rows) {
  std::vector<std::vector<std::string>> cells;
  cells.reserve(rows.size());
  for (const NamedTime& row : rows)
    cells.push_back({printableName(row.name), formatSeconds(row.ns)});
  return renderTable({{"name", false}, {timeHeader, true}}, cells);
}

std::string textClassTimes(const std::vector<ClassTimes>& rows) {
  std::vector<std::vector<std::string>> cells;
  cells.reserve(rows.size());
  for (const ClassTimes& row : rows) {
    cells.push_back({printableName(row.name), formatSeconds(row.cpuNs), formatSeconds(row.topNs),
                     formatSeconds(row.bgNs)});
  }
  return renderTable(
      {{"name", false}, {"CPU s", true}, {"foreground s", true}, {"background s", true}}, cells);
}

}  // namespace zelk::cli
