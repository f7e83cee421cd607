#include "model/snapshot_diff.h"

#include <algorithm>
#include <tuple>
#include <unordered_map>
#include <utility>

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

// A time vector that does not have the other's shape cannot be subtracted: counting restarted.
bool wentDown(const Times& before, const Times& after) {
  if (before.size() != after.size()) return true;
  for (size_t p = 0; p < before.size(); ++p) {
    if (before[p].size() != after[p].size()) return true;
    for (size_t f = 0; f < before[p].size(); ++f) {
      if (after[p][f] < before[p][f]) return true;
    }
  }
  return false;
}
bool wentDown(uint64_t before, uint64_t after) { return after < before; }

// Only called when nothing went down, so no value underflows.
Times minus(const Times& after, const Times& before) {
  Times delta = after;
  for (size_t p = 0; p < delta.size(); ++p) {
    for (size_t f = 0; f < delta[p].size(); ++f) delta[p][f] -= before[p][f];
  }
  return delta;
}
uint64_t minus(uint64_t after, uint64_t before) { return after - before; }

Times zeroLike(Times times) {
  for (auto& policy : times) std::fill(policy.begin(), policy.end(), 0);
  return times;
}
uint64_t zeroLike(uint64_t) { return 0; }

template <typename Value>
std::pair<Value, RowChange> delta(const Value& before, const Value& after) {
  if (wentDown(before, after)) return {after, RowChange::kReset};
  return {minus(after, before), RowChange::kDelta};
}

template <typename Value>
using Table = std::unordered_map<lib::process_key_char_t, Value, lib::process_key_char_hash,
                                 lib::process_key_char_equal>;

// Calls `add(key, value, change)` for every key of either table.
template <typename Value, typename Add>
void diffTables(const Table<Value>& before, const Table<Value>& after, Add add) {
  for (const auto& [key, value] : after) {
    const auto old = before.find(key);
    if (old == before.end()) {
      add(key, value, RowChange::kAppeared);
    } else {
      auto [d, change] = delta(old->second, value);
      add(key, d, change);
    }
  }
  for (const auto& [key, value] : before) {
    if (after.count(key) == 0) add(key, zeroLike(value), RowChange::kVanished);
  }
}

std::vector<TaskDelta> taskDeltas(const lib::TimeInStateTable& before,
                                  const lib::TimeInStateTable& after) {
  std::vector<TaskDelta> rows;
  diffTables<Times>(before, after,
                    [&](const lib::process_key_char_t& key, const Times& times, RowChange change) {
                      rows.push_back({{key.comm, key.flag, times, sumTimes(times)}, change});
                    });
  std::sort(rows.begin(), rows.end(),
            [](const TaskDelta& a, const TaskDelta& b) { return busierTask(a.row, b.row); });
  return rows;
}

std::vector<NamedDelta> namedDeltas(const lib::TimeTable& before, const lib::TimeTable& after) {
  std::vector<NamedDelta> rows;
  diffTables<uint64_t>(before, after,
                       [&](const lib::process_key_char_t& key, uint64_t ns, RowChange change) {
                         rows.push_back({{key.comm, ns}, change});
                       });
  std::sort(rows.begin(), rows.end(),
            [](const NamedDelta& a, const NamedDelta& b) { return busierNamed(a.row, b.row); });
  return rows;
}

std::vector<CgroupDelta> cgroupDeltas(const CgroupEntries& before, const CgroupEntries& after) {
  std::unordered_map<uint64_t, const CgroupEntry*> earlier, later;
  for (const CgroupEntry& entry : before) earlier.emplace(entry.id, &entry);
  for (const CgroupEntry& entry : after) later.emplace(entry.id, &entry);
  std::vector<CgroupDelta> rows;
  for (const CgroupEntry& entry : after) {
    const auto old = earlier.find(entry.id);
    if (old == earlier.end()) {
      rows.push_back({entry, RowChange::kAppeared});
      continue;
    }
    auto [times, change] = delta(old->second->times, entry.times);
    rows.push_back(
        {{entry.id, entry.path ? entry.path : old->second->path, std::move(times)}, change});
  }
  for (const CgroupEntry& entry : before) {
    if (later.count(entry.id) == 0) {
      rows.push_back({{entry.id, entry.path, zeroLike(entry.times)}, RowChange::kVanished});
    }
  }
  std::sort(rows.begin(), rows.end(),
            [](const CgroupDelta& a, const CgroupDelta& b) { return a.entry.id < b.entry.id; });
  return rows;
}

}  // namespace

DiffResult diffSnapshots(const Snapshot& before, const Snapshot& after) {
  if (before.freqs != after.freqs) {
    return {{}, "the frequency table changed between the two snapshots"};
  }
  if (after.takenAt < before.takenAt) {
    return {{}, "the second snapshot was taken before the first"};
  }
  SnapshotDiff diff;
  diff.parts = before.parts & after.parts;
  diff.freqs = after.freqs;
  diff.elapsed = after.takenAt - before.takenAt;
  if (diff.parts & kTotalPart) {
    std::tie(diff.total, diff.totalChange) = delta(before.total, after.total);
  }
  if (diff.parts & kProcessesPart) diff.processes = taskDeltas(before.processes, after.processes);
  if (diff.parts & kKthreadsPart) diff.kthreads = taskDeltas(before.kthreads, after.kthreads);
  if (diff.parts & kTopPart) diff.top = namedDeltas(before.top, after.top);
  if (diff.parts & kBgPart) diff.bg = namedDeltas(before.bg, after.bg);
  if (diff.parts & kCgroupsPart) diff.cgroups = cgroupDeltas(before.cgroups, after.cgroups);
  return {std::move(diff), ""};
}

}  // namespace zelk::cli
