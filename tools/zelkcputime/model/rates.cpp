#include "model/rates.h"

#include <algorithm>

#include "model/energy.h"

namespace zelk::cli {
namespace {

double seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

TaskRate rateOf(const SnapshotDiff& diff, const std::string& name, uint64_t flag,
                const Times& times, const com::zelkora::PowerModel* model) {
  TaskRate row;
  row.name = name;
  row.flag = flag;
  row.cpuPercent = cpuPercent(sumTimes(times), diff.elapsed);
  row.avgKhz = averageKhz(diff.freqs, times);
  row.bands = timePerBand(diff.freqs, times);
  if (model != nullptr) row.power = powerOf(*model, times, diff.elapsed);
  return row;
}

// A stable sort keeps the rows' own order among equal keys.
void sortRates(TopSort sort, std::vector<TaskRate>* rows) {
  switch (sort) {
    case TopSort::kPower:
      std::stable_sort(rows->begin(), rows->end(), [](const TaskRate& a, const TaskRate& b) {
        return a.power.value_or(-1) > b.power.value_or(-1);
      });
      break;
    case TopSort::kFrequency:
      std::stable_sort(rows->begin(), rows->end(),
                       [](const TaskRate& a, const TaskRate& b) { return a.avgKhz > b.avgKhz; });
      break;
    case TopSort::kCpu:
      std::stable_sort(rows->begin(), rows->end(), [](const TaskRate& a, const TaskRate& b) {
        return a.cpuPercent > b.cpuPercent;
      });
      break;
  }
}

}  // namespace

size_t bandOf(size_t index, size_t count) {
  return count == 0 ? 0 : index * kFrequencyBands / count;
}

BandTimes timePerBand(const FreqTable& freqs, const Times& times) {
  BandTimes bands{};
  for (size_t p = 0; p < times.size() && p < freqs.size(); ++p) {
    for (size_t f = 0; f < times[p].size(); ++f) bands[bandOf(f, freqs[p].size())] += times[p][f];
  }
  return bands;
}

double cpuPercent(uint64_t ns, std::chrono::steady_clock::duration elapsed, unsigned cpus) {
  const double elapsedS = seconds(elapsed);
  if (elapsedS <= 0) return 0;
  return 100.0 * static_cast<double>(ns) / 1e9 / elapsedS / (cpus > 0 ? cpus : 1);
}

PolicyLoad policyLoad(const SnapshotDiff& diff, size_t policy, unsigned cpus) {
  PolicyLoad load;
  if (policy >= diff.total.size() || policy >= diff.freqs.size()) return load;
  const std::vector<uint64_t>& times = diff.total[policy];
  load.busyNs = policyTime(diff.total, policy);
  const double capacityNs =
      cpus > 0 ? seconds(diff.elapsed) * 1e9 * cpus : static_cast<double>(load.busyNs);
  for (const uint64_t ns : times) {
    load.shareAt.push_back(capacityNs > 0 ? static_cast<double>(ns) / capacityNs : 0);
  }
  if (cpus > 0 && capacityNs > 0) {
    load.busyPercent = 100 * static_cast<double>(load.busyNs) / capacityNs;
  }
  load.avgKhz = averageKhz({diff.freqs[policy]}, {times});
  return load;
}

std::vector<TaskRate> taskRates(const SnapshotDiff& diff, bool kthreads, TopSort sort,
                                const com::zelkora::PowerModel* model) {
  std::vector<TaskRate> rows;
  for (const TaskDelta& delta : kthreads ? diff.kthreads : diff.processes) {
    if (delta.change == RowChange::kVanished || delta.row.total == 0) continue;
    rows.push_back(rateOf(diff, delta.row.name, delta.row.flag, delta.row.times, model));
  }
  // The diff's rows are busiest first, then by name and flag.
  sortRates(sort, &rows);
  return rows;
}

std::vector<TaskRate> cgroupRates(const SnapshotDiff& diff, const CgroupRowSettings& settings,
                                  TopSort sort, const com::zelkora::PowerModel* model) {
  // A vanished id's zeros add nothing to its rows.
  CgroupEntries entries;
  for (const CgroupDelta& delta : diff.cgroups) entries.push_back(delta.entry);
  std::vector<TaskRate> rows;
  for (const CgroupRow& row : cgroupRows(entries, settings)) {
    if (row.total != 0) rows.push_back(rateOf(diff, row.path, 0, row.times, model));
  }
  sortRates(sort, &rows);
  return rows;
}

}  // namespace zelk::cli
