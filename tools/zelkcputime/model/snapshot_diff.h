// The difference between two snapshots: what was counted in between, row by row.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "model/snapshot.h"
#include "model/task_rows.h"

namespace zelk::cli {

enum class RowChange {
  kDelta,     // in both: after minus before
  kAppeared,  // only after: all of it counts as counted in between
  kVanished,  // only before (removed or reset by name): zeros
  kReset,     // some value went down, so counting restarted: the after values
};

struct TaskDelta {
  TaskTimes row;  // its times and total are the deltas
  RowChange change;
};

struct NamedDelta {
  NamedTime row;  // its time is the delta
  RowChange change;
};

// A cgroup's own time, by its id: a path may be another cgroup's by the next snapshot.
struct CgroupDelta {
  CgroupEntry entry;  // its times are the delta; the path as the later snapshot knows it
  RowChange change;
};

struct SnapshotDiff {
  unsigned parts = 0;  // those both snapshots hold
  FreqTable freqs;
  std::chrono::steady_clock::duration elapsed{};
  Times total;  // the delta, or after a reset the after values
  RowChange totalChange = RowChange::kDelta;
  // Every name of either snapshot, busiest in between first, in the order of sortedTasks and
  // sortedNamedTimes. Top and background rows are keyed by name and flag like the others.
  std::vector<TaskDelta> processes;
  std::vector<TaskDelta> kthreads;
  std::vector<NamedDelta> top;
  std::vector<NamedDelta> bg;
  std::vector<CgroupDelta> cgroups;  // in the order of their ids
};

struct DiffResult {
  std::optional<SnapshotDiff> diff;
  std::string error;  // without a diff: why the two cannot be compared
};

// Fails when the frequency tables differ (the library was loaded again meanwhile, so the time
// vectors do not line up) or when `after` was taken before `before`.
DiffResult diffSnapshots(const Snapshot& before, const Snapshot& after);

}  // namespace zelk::cli
