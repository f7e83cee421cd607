#include "model/task_rows.h"

#include <algorithm>
#include <map>

#include "zelkcpufreqtime_overflow.h"

namespace zelk::cli {
namespace {

template <typename Row, typename Less>
std::vector<Row> sortedAndCut(std::vector<Row> rows, size_t limit, Less less) {
  std::sort(rows.begin(), rows.end(), less);
  if (limit != 0 && rows.size() > limit) rows.resize(limit);
  return rows;
}

}  // namespace

bool busierTask(const TaskTimes& a, const TaskTimes& b) {
  if (a.total != b.total) return a.total > b.total;
  if (a.name != b.name) return a.name < b.name;
  return a.flag < b.flag;
}

bool busierNamed(const NamedTime& a, const NamedTime& b) {
  return a.ns != b.ns ? a.ns > b.ns : a.name < b.name;
}

bool isRow(const com::zelkora::process_key_char_t& key, uint64_t ns, OverflowRow overflow) {
  return overflow == OverflowRow::kAlways || ns > 0 || !com::zelkora::isOverflowEntry(key);
}

std::vector<TaskTimes> sortedTasks(const com::zelkora::TimeInStateTable& table, size_t limit,
                                   OverflowRow overflow) {
  std::vector<TaskTimes> rows;
  rows.reserve(table.size());
  for (const auto& [key, times] : table) {
    const uint64_t total = sumTimes(times);
    if (isRow(key, total, overflow)) rows.push_back({key.comm, key.flag, times, total});
  }
  return sortedAndCut(std::move(rows), limit, busierTask);
}

std::vector<NamedTime> sortedNamedTimes(const com::zelkora::TimeTable& table, size_t limit,
                                        OverflowRow overflow) {
  std::vector<NamedTime> rows;
  rows.reserve(table.size());
  for (const auto& [key, ns] : table) {
    if (isRow(key, ns, overflow)) rows.push_back({key.comm, ns});
  }
  return sortedAndCut(std::move(rows), limit, busierNamed);
}

size_t rowCount(const com::zelkora::TimeInStateTable& table, OverflowRow overflow) {
  size_t count = 0;
  for (const auto& [key, times] : table) count += isRow(key, sumTimes(times), overflow) ? 1 : 0;
  return count;
}

std::vector<ClassTimes> ranClassTimes(const com::zelkora::TimeInStateTable& processes,
                                      const com::zelkora::TimeTable& top,
                                      const com::zelkora::TimeTable& bg, size_t limit) {
  std::map<std::string, ClassTimes> byName;
  for (const auto& [key, times] : processes) {
    const uint64_t ns = sumTimes(times);
    if (ns > 0)
      byName.try_emplace(key.comm, ClassTimes{key.comm, 0, 0, 0}).first->second.cpuNs += ns;
  }
  for (const auto& [table, field] :
       {std::pair{&top, &ClassTimes::topNs}, std::pair{&bg, &ClassTimes::bgNs}}) {
    for (const auto& [key, ns] : *table) {
      if (const auto row = byName.find(key.comm); row != byName.end()) row->second.*field += ns;
    }
  }
  std::vector<ClassTimes> rows;
  rows.reserve(byName.size());
  for (auto& [name, row] : byName) rows.push_back(std::move(row));
  return sortedAndCut(std::move(rows), limit, [](const ClassTimes& a, const ClassTimes& b) {
    return a.cpuNs != b.cpuNs ? a.cpuNs > b.cpuNs : a.name < b.name;
  });
}

}  // namespace zelk::cli
